#include "linuxHost/libvirt/subscription.h"

#include "linuxHost/libvirt/libvirtObjects.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>

namespace LinuxHost {

/// Where a callback finds the listener, until the subscription ends.
struct ListenerSlot {
   explicit ListenerSlot(HypervisorListener* given) : listener(given) {}

   std::mutex mutex;
   HypervisorListener* listener;
   /// Not under the mutex: the thread that finds the connection lost must not wait for a handler.
   std::atomic<int> closeReason = 0;
};

namespace {

/// The slots of all subscriptions by key. libvirt stores the keys as the callbacks' arguments:
/// numbers that are used once and find nothing when their slot has gone. So a callback may come at
/// any time after its deregistration, and libvirt need not report when it has released an argument.
/// Locking: its own; no other lock is taken under it.
class SlotTable {
public:
   /// Never destroyed: the event loop may still run at the process's end.
   static SlotTable& GetInstance()
   {
      static auto* const table = new SlotTable;
      return *table;
   }

   void* Add(std::shared_ptr<ListenerSlot> slot)
   {
      const std::lock_guard guard(_mutex);
      _slots.emplace(++_lastKey, std::move(slot));
      return reinterpret_cast<void*>(_lastKey); // NOLINT(performance-no-int-to-ptr)
   }

   void Remove(void* key)
   {
      const std::lock_guard guard(_mutex);
      _slots.erase(reinterpret_cast<uintptr_t>(key));
   }

   std::shared_ptr<ListenerSlot> Find(void* key)
   {
      const std::lock_guard guard(_mutex);
      const auto slot = _slots.find(reinterpret_cast<uintptr_t>(key));
      return slot == _slots.end() ? nullptr : slot->second;
   }

private:
   std::mutex _mutex;
   uintptr_t _lastKey = 0;
   std::map<uintptr_t, std::shared_ptr<ListenerSlot>> _slots;
};

/// Catches all exceptions, because the caller is C code. If the listener throws, the event is lost.
template <class Event>
void Notify(void* key, const Event& event) noexcept
{
   try {
      if (const std::shared_ptr<ListenerSlot> slot = SlotTable::GetInstance().Find(key)) {
         const std::lock_guard guard(slot->mutex);
         if (slot->listener != nullptr) {
            event(*slot->listener, slot->closeReason);
         }
      }
   } catch (...) { // NOLINT(bugprone-empty-catch)
   }
}

void NotifyOfChange(virDomainPtr domain, void* key)
{
   Notify(key, [&](HypervisorListener& listener, int) { listener.OnVmChanged(GetUuid(domain)); });
}

int OnLifecycle(virConnectPtr /*connection*/, virDomainPtr domain, int /*event*/, int /*detail*/,
                void* key)
{
   NotifyOfChange(domain, key);
   return 0;
}

void OnDevice(virConnectPtr /*connection*/, virDomainPtr domain, const char* /*alias*/, void* key)
{
   NotifyOfChange(domain, key);
}

/// The disk's image is another one when a job pivots.
void OnBlockJob(virConnectPtr /*connection*/, virDomainPtr domain, const char* /*disk*/,
                int /*type*/, int /*status*/, void* key)
{
   NotifyOfChange(domain, key);
}

/// A medium may have come or gone.
void OnTray(virConnectPtr /*connection*/, virDomainPtr domain, const char* /*alias*/,
            int /*reason*/, void* key)
{
   NotifyOfChange(domain, key);
}

void OnAgent(virConnectPtr /*connection*/, virDomainPtr domain, int /*state*/, int /*reason*/,
             void* key)
{
   NotifyOfChange(domain, key);
}

/// libvirt stores the callbacks of all events as one type.
template <class Callback>
virConnectDomainEventGenericCallback ToGeneric(Callback* callback)
{
   return reinterpret_cast<virConnectDomainEventGenericCallback>(
      reinterpret_cast<void (*)()>(callback));
}

const char* GetReasonText(int closeReason)
{
   switch (closeReason) {
   case VIR_CONNECT_CLOSE_REASON_EOF:
      return "libvirt closed the connection";
   case VIR_CONNECT_CLOSE_REASON_KEEPALIVE:
      return "libvirt stopped answering";
   case VIR_CONNECT_CLOSE_REASON_CLIENT:
      return "the agent closed the connection";
   default:
      return "reading from or writing to libvirt failed";
   }
}

void NotifyOfLoss(int timer, void* key)
{
   ::virEventRemoveTimeout(timer);
   Notify(key, [](HypervisorListener& listener, int closeReason) {
      listener.OnConnectionLost(GetReasonText(closeReason));
   });
}

/// libvirt calls this on the thread that finds the connection lost, perhaps inside a call of ours.
/// The listener is called later, on the event loop's thread.
void OnClosed(virConnectPtr /*connection*/, int reason, void* key)
{
   if (const std::shared_ptr<ListenerSlot> slot = SlotTable::GetInstance().Find(key)) {
      slot->closeReason = reason;
      ::virEventAddTimeout(0, NotifyOfLoss, key, nullptr); // fails only when out of memory
   }
}

} // namespace

Subscription::Subscription(virConnectPtr connection, HypervisorListener& listener)
   : _connection(connection), _slot(std::make_shared<ListenerSlot>(&listener)),
     _key(SlotTable::GetInstance().Add(_slot))
{
}

void Subscription::Start()
{
   if (::virConnectRegisterCloseCallback(_connection, OnClosed, _key, nullptr) < 0) {
      Fail("subscribe to the loss of the connection");
   }
   Register(VIR_DOMAIN_EVENT_ID_LIFECYCLE, ToGeneric(OnLifecycle));
   Register(VIR_DOMAIN_EVENT_ID_DEVICE_ADDED, ToGeneric(OnDevice));
   Register(VIR_DOMAIN_EVENT_ID_DEVICE_REMOVED, ToGeneric(OnDevice));
   Register(VIR_DOMAIN_EVENT_ID_BLOCK_JOB_2, ToGeneric(OnBlockJob));
   Register(VIR_DOMAIN_EVENT_ID_TRAY_CHANGE, ToGeneric(OnTray));
   Register(VIR_DOMAIN_EVENT_ID_AGENT_LIFECYCLE, ToGeneric(OnAgent));
}

void Subscription::Register(int eventId, virConnectDomainEventGenericCallback callback)
{
   const int id =
      ::virConnectDomainEventRegisterAny(_connection, nullptr, eventId, callback, _key, nullptr);
   if (id < 0) {
      Fail("subscribe to changes of virtual machines");
   }
   _callbackIds.push_back(id);
}

Subscription::~Subscription()
{
   SlotTable::GetInstance().Remove(_key);
   {
      const std::lock_guard guard(_slot->mutex); // waits for a handler that is running
      _slot->listener = nullptr;
   }
   // On a lost connection these fail, but still remove the callbacks on this side.
   for (const int id : _callbackIds) {
      ::virConnectDomainEventDeregisterAny(_connection, id);
   }
   ::virConnectUnregisterCloseCallback(_connection, OnClosed);
}

} // namespace LinuxHost
