#include "linuxHost/groupWatcher.h"

#include "agentdCommon/wellKnown.h"
#include "corvax/system.h"
#include "corvax/thread.h"
#include "linuxHost/groupTree.h"

#include <algorithm>
#include <chrono>
#include <set>

namespace LinuxHost {

GroupWatcher::GroupWatcher(const std::string& root, int periodSec, Inventory::Inventory& inventory,
                           LinuxVms& vms, Corvax::Logger* logger)
   : _periodUs(periodSec * Corvax::kMicrosecondsPerSecond), _inventory(inventory), _vms(vms),
     _logger(logger), _groups(root), _cpu(root)
{
}

GroupWatcher::~GroupWatcher()
{
   Stop();
}

void GroupWatcher::Start()
{
   Guarded([this] { UpdatePools(); });
   _thread = Corvax::StartThread("groups", [this](const std::stop_token& stop) { Run(stop); });
}

void GroupWatcher::Stop()
{
   if (_thread.joinable()) {
      _thread.request_stop();
      _thread.join();
   }
}

void GroupWatcher::Run(const std::stop_token& stop)
{
   int64_t loadsDueUs = Corvax::System::GetMonotonicTime();
   while (!stop.stop_requested()) {
      Guarded([&] {
         UpdatePools();
         const int64_t nowUs = Corvax::System::GetMonotonicTime();
         if (nowUs >= loadsDueUs) {
            loadsDueUs += LoadHistory::kSamplePeriodUs;
            ReadLoads(nowUs);
         }
      });
      const std::chrono::microseconds wait(
         std::min(_periodUs, loadsDueUs - Corvax::System::GetMonotonicTime()));
      std::unique_lock lock(_mutex);
      _wake.wait_for(lock, stop, wait, [] { return false; });
   }
}

template <class Operation>
void GroupWatcher::Guarded(const Operation& operation)
{
   try {
      operation();
      _isFailureLogged = false;
   } catch (const std::exception& e) {
      if (!_isFailureLogged) {
         _logger->Log(Corvax::kLogWarning, "Cannot read the host's control groups: %1", e.what());
      }
      _isFailureLogged = true;
   }
}

void GroupWatcher::UpdatePools()
{
   const std::vector<PoolGroup> pools = FindPools(_groups);
   std::map<std::string, std::string> paths{{kRootPoolId, FindMachinePath(_groups)}};
   for (const PoolGroup& pool : pools) {
      paths[pool.id] = pool.path;
   }
   std::vector<std::string> gone;
   {
      const std::lock_guard guard(_mutex);
      for (const auto& [id, path] : _poolPaths) {
         if (!paths.contains(id)) {
            gone.push_back(id);
            _loads.erase(id);
         }
      }
      _poolPaths = paths;
   }
   for (const std::string& id : gone) {
      _inventory.RemovePool(id);
   }
   for (const PoolGroup& pool : pools) {
      if (!_inventory.FindPool(pool.id)) {
         _inventory.AddPool(pool.id, pool.name, pool.parentId);
      }
   }
}

std::vector<GroupWatcher::Subject> GroupWatcher::FindSubjects() const
{
   std::vector<Subject> subjects;
   for (const Corvax::Ref<LinuxVm>& vm : _vms.GetAll()) {
      if (const auto places = vm->GetPlaces(); !places->groupPath.empty()) {
         subjects.push_back({vm->GetId(), places->groupPath});
      }
   }
   const std::lock_guard guard(_mutex);
   for (const auto& [id, path] : _poolPaths) {
      if (!path.empty()) {
         subjects.push_back({id, path});
      }
   }
   return subjects;
}

void GroupWatcher::ReadLoads(int64_t timeUs)
{
   _groups.BeginReading();
   std::set<std::string> seen{AgentdCommon::moid_hostsystem};
   AddReading(AgentdCommon::moid_hostsystem, timeUs, ReadHostLoad());
   for (const Subject& subject : FindSubjects()) {
      if (const std::optional<GroupCpu> reading = _groups.ReadCpu(subject.path)) {
         AddReading(subject.id, timeUs, *reading);
         seen.insert(subject.id);
      }
   }
   const std::lock_guard guard(_mutex);
   std::erase_if(_loads, [&seen](const auto& load) { return !seen.contains(load.first); });
}

/// CPU use from the same source as the host's other CPU figures. Nothing limits the host.
GroupCpu GroupWatcher::ReadHostLoad()
{
   GroupCpu load;
   for (const HostCtl::Resource::HostCpuStats& cpu : _cpu.ReadCpuStats()) {
      load.usedUs += cpu.usedUs;
   }
   if (const std::optional<GroupCpu> root = _groups.ReadCpu("/")) {
      load.waitingUs = root->waitingUs;
   }
   return load;
}

void GroupWatcher::AddReading(const std::string& id, int64_t timeUs, const GroupCpu& reading)
{
   const std::lock_guard guard(_mutex);
   _loads[id].Add(timeUs, reading.usedUs, reading.waitingUs, reading.throttledUs);
}

std::string GroupWatcher::GetPoolPath(const std::string& poolId) const
{
   const std::lock_guard guard(_mutex);
   const auto found = _poolPaths.find(poolId);
   return found == _poolPaths.end() ? std::string() : found->second;
}

std::optional<HostCtl::Resource::CpuLoadHistory> GroupWatcher::GetLoad(const std::string& id) const
{
   const std::lock_guard guard(_mutex);
   const auto found = _loads.find(id);
   if (found == _loads.end() || found->second.IsEmpty()) {
      return std::nullopt;
   }
   return found->second.Get();
}

} // namespace LinuxHost
