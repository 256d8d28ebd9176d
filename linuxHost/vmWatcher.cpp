#include "linuxHost/vmWatcher.h"

#include "corvax/format.h"
#include "corvax/system.h"
#include "corvax/thread.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <utility>

namespace LinuxHost {

namespace {

using Corvax::kMicrosecondsPerSecond;
using Corvax::System;
using Quen::Vm::PowerState;

constexpr int64_t kRoundUs = 300 * kMicrosecondsPerSecond;
constexpr int64_t kLongestWaitUs = 3600 * kMicrosecondsPerSecond; // a stop ends every wait
constexpr std::chrono::seconds kPause(1);
constexpr std::chrono::milliseconds kStopPatience(500);

/// A machine that cannot be described is a failure of its own, unless nothing else works either.
template <class Listing>
void DescribeInto(Listing& listing, HypervisorConnection& connection,
                  const std::set<std::string>& ids)
{
   for (const std::string& id : ids) {
      try {
         if (auto description = connection.DescribeVm(id)) {
            listing.descriptions.push_back(std::move(*description));
         } else {
            listing.gone.insert(id);
         }
      } catch (const std::exception& e) {
         listing.failures.emplace(id, e.what());
         connection.ListVms(); // throws if the connection is at fault
      }
   }
}

} // namespace

/// What happens on other threads. Connections are numbered: only the present one counts.
struct VmWatcher::Shared {
   template <class Change>
   void Notify(uint64_t number, const Change& change)
   {
      const std::lock_guard guard(mutex);
      if (number == connection) {
         change();
         changed.notify_all();
      }
   }

   std::mutex mutex;
   std::condition_variable_any changed;
   uint64_t connection = 0;
   std::set<std::string> changedVms;
   std::optional<std::string> loss; // of the connection: the reason
   bool isCalling = false;
   std::optional<std::string> error; // of the last call
   std::optional<std::set<std::string>> running;
   bool hasEnded = false; // the watcher's thread
};

class VmWatcher::Listener : public HypervisorListener {
public:
   Listener(std::shared_ptr<Shared> shared, uint64_t number)
      : _shared(std::move(shared)), _number(number)
   {
   }

   void OnVmChanged(const std::string& id) override
   {
      _shared->Notify(_number, [&] { _shared->changedVms.insert(id); });
   }

   void OnConnectionLost(const std::string& reason) override
   {
      _shared->Notify(_number, [&] { _shared->loss = reason; });
   }

private:
   const std::shared_ptr<Shared> _shared;
   const uint64_t _number;
};

VmWatcher::VmWatcher(std::shared_ptr<HypervisorGate> gate, LinuxVms& vms, Corvax::Logger* logger)
   : _gate(std::move(gate)), _vms(vms), _logger(logger), _shared(std::make_shared<Shared>())
{
}

VmWatcher::~VmWatcher()
{
   Stop();
}

void VmWatcher::Start()
{
   _thread = Corvax::StartThread("vm-watch", [this](const std::stop_token& stop) {
      Run(stop);
      const std::lock_guard guard(_shared->mutex);
      _shared->hasEnded = true;
      _shared->changed.notify_all();
   });
}

bool VmWatcher::Stop()
{
   if (!_thread.joinable()) {
      return true;
   }
   const auto deadline = std::chrono::steady_clock::now() + kStopPatience;
   _thread.request_stop();
   {
      // It waits for no call, but a file of a machine may be on a file system that hangs.
      std::unique_lock lock(_shared->mutex);
      if (!_shared->changed.wait_until(lock, deadline, [this] { return _shared->hasEnded; })) {
         _thread.detach();
         return false;
      }
   }
   _thread.join();
   return std::ranges::all_of(std::exchange(_dropped, {}), [deadline](const auto& caller) {
      return caller->WaitForEnd(deadline);
   });
}

void VmWatcher::OnPolled(const std::set<std::string>& running)
{
   const std::lock_guard guard(_shared->mutex);
   _shared->running = running;
   _shared->changed.notify_all();
}

void VmWatcher::Run(const std::stop_token& stop)
{
   while (!stop.stop_requested()) {
      if (!_gate->Await(stop, System::GetMonotonicTime() + kLongestWaitUs)) {
         continue;
      }
      bool wasConnected = false;
      try {
         wasConnected = Connect(stop);
         if (wasConnected) {
            Follow(stop);
         }
      } catch (const std::exception& e) { // without threads, or from the inventory
         wasConnected = false;
         LogFailure(Corvax::Format("Cannot update the virtual machines: %1", e.what()));
      }
      DropConnection();
      if (!wasConnected && _gate->GetFailure().empty()) {
         std::unique_lock lock(_shared->mutex);
         _shared->changed.wait_for(lock, stop, kPause, [] { return false; });
      }
   }
}

bool VmWatcher::Connect(const std::stop_token& stop)
{
   uint64_t number = 0;
   {
      const std::lock_guard guard(_shared->mutex);
      number = ++_shared->connection;
      _shared->changedVms.clear();
      _shared->loss.reset();
   }
   _caller =
      HypervisorCaller::Start("vm-watch-call", _gate, std::make_shared<Listener>(_shared, number));
   // The connection comes first: changes during the listing arrive as events.
   auto listing = std::make_shared<Listing>();
   if (!Call(stop, [listing](HypervisorConnection& connection) {
          const std::vector<std::string> ids = connection.ListVms();
          DescribeInto(*listing, connection, {ids.begin(), ids.end()});
       })) {
      return false;
   }
   std::set<std::string> failed;
   for (const auto& [id, error] : listing->failures) {
      failed.insert(id);
   }
   _vms.Replace(listing->descriptions, failed);
   _known = failed;
   for (const VmDescription& description : listing->descriptions) {
      _known.insert(description.id);
   }
   _logger->Log(Corvax::kLogNotice, "Connected to the hypervisor: %1 virtual machines",
                _known.size());
   _isFailureLogged = false;
   NoteFailures(*listing);
   _round.assign(_known.begin(), _known.end());
   _lastRoundUs = System::GetMonotonicTime();
   return true;
}

void VmWatcher::Follow(const std::stop_token& stop)
{
   while (true) {
      std::set<std::string> ids;
      std::optional<std::set<std::string>> running;
      {
         std::unique_lock lock(_shared->mutex);
         const int64_t waitUs = GetNextRoundUs() - System::GetMonotonicTime();
         _shared->changed.wait_for(
            lock, stop, std::chrono::microseconds(std::max<int64_t>(waitUs, 0)),
            [this] { return _shared->loss || _shared->running || !_shared->changedVms.empty(); });
         if (stop.stop_requested()) {
            return;
         }
         if (_shared->loss) {
            LogFailure("The connection to the hypervisor was lost, virtual machines are not "
                       "followed until it is back: " +
                       *_shared->loss);
            return;
         }
         ids = std::exchange(_shared->changedVms, {});
         running = std::exchange(_shared->running, std::nullopt);
      }
      if (running) {
         ids.merge(FindContradictions(*running));
      }
      AddDue(ids);
      if (!ids.empty() && !Describe(stop, ids)) {
         return;
      }
   }
}

bool VmWatcher::Describe(const std::stop_token& stop, const std::set<std::string>& ids)
{
   auto listing = std::make_shared<Listing>();
   if (!Call(stop, [listing, ids](HypervisorConnection& connection) {
          DescribeInto(*listing, connection, ids);
       })) {
      return false;
   }
   for (const VmDescription& description : listing->descriptions) {
      _known.insert(description.id);
      _vms.Update(description);
   }
   for (const std::string& id : listing->gone) {
      _known.erase(id);
      _vms.Remove(id);
   }
   NoteFailures(*listing);
   return true;
}

/// False on an error, which is logged, and on a stop.
bool VmWatcher::Call(const std::stop_token& stop, const HypervisorCaller::Call& call)
{
   std::unique_lock lock(_shared->mutex);
   _shared->isCalling = true;
   lock.unlock();
   _caller->Begin(call, [shared = _shared,
                         number = _shared->connection](const std::optional<std::string>& error) {
      shared->Notify(number, [&] {
         shared->isCalling = false;
         shared->error = error;
      });
   });
   lock.lock();
   if (!_shared->changed.wait(lock, stop, [this] { return !_shared->isCalling; })) {
      return false;
   }
   if (!_shared->error) {
      return true;
   }
   LogFailure("Virtual machines are not followed until the hypervisor answers: " + *_shared->error);
   return false;
}

void VmWatcher::DropConnection()
{
   if (_caller) {
      _caller->Abandon();
      _dropped.push_back(std::exchange(_caller, nullptr));
   }
   std::erase_if(_dropped, [](const auto& caller) {
      return caller->WaitForEnd(std::chrono::steady_clock::time_point());
   });
}

/// The machines whose power state contradicts this poll and the last one.
std::set<std::string> VmWatcher::FindContradictions(const std::set<std::string>& running)
{
   std::set<std::string> now = running;
   for (const Corvax::Ref<LinuxVm>& vm : _vms.GetAll()) {
      if (vm->GetPowerState() == PowerState::POWERED_ON && now.erase(vm->GetId()) == 0) {
         now.insert(vm->GetId());
      }
   }
   std::set<std::string> twice;
   std::ranges::set_intersection(now, _contradictions, std::inserter(twice, twice.end()));
   _contradictions = std::move(now);
   return twice;
}

/// One machine after the other, evenly spread over a round.
int64_t VmWatcher::GetNextRoundUs() const
{
   return _lastRoundUs + kRoundUs / std::max<int64_t>(static_cast<int64_t>(_known.size()), 1);
}

void VmWatcher::AddDue(std::set<std::string>& ids)
{
   const int64_t nowUs = System::GetMonotonicTime();
   if (nowUs < GetNextRoundUs()) {
      return;
   }
   _lastRoundUs = nowUs;
   if (_round.empty()) {
      _round.assign(_known.begin(), _known.end());
   }
   if (!_round.empty()) {
      ids.insert(_round.front());
      _round.pop_front();
   }
}

void VmWatcher::NoteFailures(const Listing& listing)
{
   for (const auto& [id, error] : listing.failures) {
      if (_undescribed.insert(id).second) {
         _logger->Log(Corvax::kLogWarning, "VM %1 cannot be described: %2", id, error);
      }
   }
   for (const VmDescription& description : listing.descriptions) {
      if (_undescribed.erase(description.id) != 0) {
         _logger->Log(Corvax::kLogNotice, "VM %1 can be described again", description.id);
      }
   }
   for (const std::string& id : listing.gone) {
      _undescribed.erase(id);
   }
}

void VmWatcher::LogFailure(const std::string& text)
{
   _logger->Log(_isFailureLogged ? Corvax::kLogDebug : Corvax::kLogWarning, "%1", text);
   _isFailureLogged = true;
}

} // namespace LinuxHost
