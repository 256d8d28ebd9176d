#include "linuxHost/vmWatcher.h"

#include "corvax/thread.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace LinuxHost {

namespace {

constexpr int kFirstPauseSec = 1;
constexpr int kLongestPauseSec = 60;

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
   _news.changed.insert(id);
   _changed.notify_all();
}

void VmWatcher::OnConnectionLost(const std::string& reason)
{
   const std::lock_guard guard(_mutex);
   _news.isLost = true;
   _news.lossReason = reason;
   _changed.notify_all();
}

void VmWatcher::Run(const std::stop_token& stop)
{
   while (!stop.stop_requested()) {
      if (Connect()) {
         Follow(stop);
         _connection.reset();
      }
      Pause(stop);
   }
}

bool VmWatcher::Connect()
{
   {
      const std::lock_guard guard(_mutex);
      _news = {};
   }
   try {
      // Events first: what happens while the list is read is looked at afterwards.
      _connection = _hypervisor->Connect(this);
      const std::vector<VmDescription> descriptions = _connection->ListVms();
      _vms.Replace(descriptions);
      _logger->Log(Corvax::kLogNotice, "Connected to the hypervisor: %1 virtual machines",
                   descriptions.size());
      _isFailureTold = false;
      _pauseSec = 0;
      return true;
   } catch (const std::exception& e) {
      LogFailure(Corvax::Format("The hypervisor does not answer, virtual machines are not sampled "
                                "until it does: %1",
                                e.what()));
      _connection.reset();
      return false;
   }
}

void VmWatcher::Follow(const std::stop_token& stop)
{
   try {
      while (true) {
         const News news = WaitForNews(stop);
         if (stop.stop_requested()) {
            return;
         }
         if (news.isLost) {
            LogFailure(Corvax::Format("The connection to the hypervisor was lost, virtual machines "
                                      "are not sampled until it is back: %1",
                                      news.lossReason));
            return;
         }
         for (const std::string& id : news.changed) {
            if (const auto description = _connection->DescribeVm(id)) {
               _vms.Update(*description);
            } else {
               _vms.Remove(id);
            }
         }
      }
   } catch (const std::exception& e) {
      LogFailure(
         Corvax::Format("Cannot follow the virtual machines, connecting anew: %1", e.what()));
   }
}

VmWatcher::News VmWatcher::WaitForNews(const std::stop_token& stop)
{
   std::unique_lock lock(_mutex);
   _changed.wait(lock, stop, [this] { return _news.isLost || !_news.changed.empty(); });
   return std::exchange(_news, {});
}

void VmWatcher::Pause(const std::stop_token& stop)
{
   _pauseSec = std::clamp(_pauseSec * 2, kFirstPauseSec, kLongestPauseSec);
   std::unique_lock lock(_mutex);
   _changed.wait_for(lock, stop, std::chrono::seconds(_pauseSec), [] { return false; });
}

void VmWatcher::LogFailure(const std::string& text)
{
   _logger->Log(_isFailureTold ? Corvax::kLogDebug : Corvax::kLogWarning, "%1", text);
   _isFailureTold = true;
}

} // namespace LinuxHost
