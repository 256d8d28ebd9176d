#include "linuxHost/libvirt/eventLoop.h"

#include "corvax/format.h"
#include "hostctl/lib.h"
#include "linuxHost/libvirt/libvirtObjects.h"

#include <libvirt/libvirt.h>
#include <libvirt/virterror.h>
#include <pthread.h>

#include <cstdint>
#include <mutex>
#include <system_error>

namespace LinuxHost {

namespace {

constexpr char kAttempt[] = "run the event loop of libvirt";

/// Once a process: libvirt takes no second registration, and forgets none.
void PrepareLibvirt()
{
   // First of all calls: before it, libvirt has no place for a thread's last error.
   if (::virInitialize() < 0) {
      throw HostCtl::Lib::HostCtlException("Cannot initialise libvirt");
   }
   // Without a function of ours, libvirt prints every error to standard error.
   ::virSetErrorFunc(nullptr, [](void*, virErrorPtr) {});
   if (::virEventRegisterDefaultImpl() < 0) {
      Fail(kAttempt);
   }
}

/// All use of the loop of this process. Locking: the mutex is held while the loop comes and goes,
/// so that there are never two; no handler of a connection takes it. Nothing here is destroyed at
/// the process's end, when a thread may still hang in a call.
struct SharedLoop {
   std::mutex mutex;
   bool isPrepared = false;
   int64_t users = 0;
   EventLoop* loop = nullptr;
};

SharedLoop& GetSharedLoop()
{
   static auto* const shared = new SharedLoop;
   return *shared;
}

} // namespace

EventLoop::EventLoop()
{
   // The timer never fires. It is there for its end: what is removed from libvirt's loop is
   // released on the loop's thread later and in turn, the timer's argument after all that was
   // removed before it.
   _timer = ::virEventAddTimeout(
      -1, [](int, void*) {}, &_ended,
      [](void* ended) { *static_cast<std::atomic<bool>*>(ended) = true; });
   if (_timer < 0) {
      Fail(kAttempt);
   }
   try {
      _thread = std::thread([this] { Run(); });
   } catch (const std::system_error& failure) {
      ::virEventRemoveTimeout(_timer);
      Run(); // here, as nobody else does: libvirt must let go of this object
      throw HostCtl::Lib::HostCtlException(
         Corvax::Format("Cannot %1: %2", kAttempt, failure.what()));
   }
   ::pthread_setname_np(_thread.native_handle(), "libvirt");
}

EventLoop::~EventLoop()
{
   ::virEventRemoveTimeout(_timer);
   _thread.join();
}

void EventLoop::Run()
{
   while (!_ended) {
      // It fails only where no loop was registered.
      static_cast<void>(::virEventRunDefaultImpl());
   }
}

EventLoopUse::EventLoopUse()
{
   SharedLoop& shared = GetSharedLoop();
   const std::lock_guard guard(shared.mutex);
   if (!shared.isPrepared) {
      PrepareLibvirt();
      shared.isPrepared = true;
   }
   if (shared.users == 0) {
      shared.loop = new EventLoop;
   }
   ++shared.users;
}

EventLoopUse::~EventLoopUse()
{
   SharedLoop& shared = GetSharedLoop();
   const std::lock_guard guard(shared.mutex);
   if (--shared.users == 0) {
      delete shared.loop;
      shared.loop = nullptr;
   }
}

} // namespace LinuxHost
