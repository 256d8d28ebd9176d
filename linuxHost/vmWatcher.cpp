#include "linuxHost/vmWatcher.h"

#include "corvax/thread.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace LinuxHost {

namespace {

constexpr int kFirstBackOffSec = 1;
constexpr int kLongestBackOffSec = 60;

} // namespace

VmWatcher::VmWatcher(std::shared_ptr<Hypervisor> hypervisor, LinuxVms& vms, Corvax::Logger* logger)
   : _hypervisor(std::move(hypervisor)), _vms(vms), _logger(logger)
{
}

VmWatcher::~VmWatcher()
{
   Stop();
}

void VmWatcher::Start()
{
   _thread = Corvax::StartThread("vm-watch", [this](const std::stop_token& stop) { Run(stop); });
}

void VmWatcher::Stop()
{
   if (_thread.joinable()) {
      _thread.request_stop();
      _thread.join();
   }
   _connection.reset();
}

void VmWatcher::OnVmChanged(const std::string& id)
{
   const std::lock_guard guard(_mutex);
   _pending.changedVms.insert(id);
   _changed.notify_all();
}

void VmWatcher::OnConnectionLost(const std::string& reason)
{
   const std::lock_guard guard(_mutex);
   _pending.isConnectionLost = true;
   _pending.lossReason = reason;
   _changed.notify_all();
}

void VmWatcher::Run(const std::stop_token& stop)
{
   while (!stop.stop_requested()) {
      if (Connect()) {
         HandleEvents(stop);
         _connection.reset();
      }
      BackOff(stop);
   }
}

bool VmWatcher::Connect()
{
   {
      const std::lock_guard guard(_mutex);
      _pending = {};
   }
   try {
      // Connected first: changes during the listing arrive as events.
      _connection = _hypervisor->Connect(this);
      const std::vector<VmDescription> descriptions = _connection->ListVms();
      _vms.Replace(descriptions);
      _logger->Log(Corvax::kLogNotice, "Connected to the hypervisor: %1 virtual machines",
                   descriptions.size());
      _isFailureLogged = false;
      _backOffSec = 0;
      return true;
   } catch (const std::exception& e) {
      LogFailure(Corvax::Format("Cannot connect to the hypervisor, virtual machines are not "
                                "sampled until it works: %1",
                                e.what()));
      _connection.reset();
      return false;
   }
}

void VmWatcher::HandleEvents(const std::stop_token& stop)
{
   try {
      while (true) {
         const Events events = WaitForEvents(stop);
         if (stop.stop_requested()) {
            return;
         }
         if (events.isConnectionLost) {
            LogFailure(Corvax::Format("The connection to the hypervisor was lost, virtual machines "
                                      "are not sampled until it is back: %1",
                                      events.lossReason));
            return;
         }
         for (const std::string& id : events.changedVms) {
            if (const auto description = _connection->DescribeVm(id)) {
               _vms.Update(*description);
            } else {
               _vms.Remove(id);
            }
         }
      }
   } catch (const std::exception& e) {
      LogFailure(Corvax::Format(
         "Cannot update the virtual machines, reconnecting to the hypervisor: %1", e.what()));
   }
}

VmWatcher::Events VmWatcher::WaitForEvents(const std::stop_token& stop)
{
   std::unique_lock lock(_mutex);
   _changed.wait(lock, stop,
                 [this] { return _pending.isConnectionLost || !_pending.changedVms.empty(); });
   return std::exchange(_pending, {});
}

void VmWatcher::BackOff(const std::stop_token& stop)
{
   _backOffSec = std::clamp(_backOffSec * 2, kFirstBackOffSec, kLongestBackOffSec);
   std::unique_lock lock(_mutex);
   _changed.wait_for(lock, stop, std::chrono::seconds(_backOffSec), [] { return false; });
}

void VmWatcher::LogFailure(const std::string& text)
{
   _logger->Log(_isFailureLogged ? Corvax::kLogDebug : Corvax::kLogWarning, "%1", text);
   _isFailureLogged = true;
}

} // namespace LinuxHost
