#include "linuxHost/groupWatcher.h"

#include "agentdCommon/wellKnown.h"
#include "corvax/system.h"
#include "corvax/thread.h"
#include "linuxHost/kernel/saturate.h"

#include <algorithm>
#include <chrono>

namespace LinuxHost {

namespace {

constexpr char kPools[] = "the resource pools";
constexpr int64_t kMaxReadingUs = LoadHistory::kSamplePeriodUs / 20;

} // namespace

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
   Guarded(kPools, [this] { UpdatePools(); });
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
      Guarded(kPools, [this] { UpdatePools(); });
      const int64_t nowUs = Corvax::System::GetMonotonicTime();
      if (nowUs >= loadsDueUs) {
         // After a hold-up the readings that were missed are not caught up.
         const int64_t periods = (nowUs - loadsDueUs) / LoadHistory::kSamplePeriodUs + 1;
         loadsDueUs += periods * LoadHistory::kSamplePeriodUs;
         ReadLoads();
      }
      const std::chrono::microseconds wait(
         std::min(_periodUs, loadsDueUs - Corvax::System::GetMonotonicTime()));
      std::unique_lock lock(_mutex);
      _wake.wait_for(lock, stop, wait, [] { return false; });
   }
}

template <class Operation>
void GroupWatcher::Guarded(const std::string& what, const Operation& operation)
{
   try {
      operation();
      _failing.erase(what);
   } catch (const std::exception& e) {
      if (_failing.insert(what).second) {
         _logger->Log(Corvax::kLogWarning, "Cannot look up %1: %2", what, e.what());
      }
   }
}

void GroupWatcher::UpdatePools()
{
   const PoolTracker::Changes changes = _pools.LookUp(_groups);
   {
      const std::lock_guard guard(_mutex);
      for (const std::string& id : changes.gone) {
         _loads.erase(id);
      }
      _poolPaths = _pools.GetPaths();
   }
   for (const std::string& id : changes.gone) {
      _inventory.RemovePool(id);
   }
   for (const PoolGroup& pool : changes.present) {
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
         subjects.push_back({vm->GetId(), places->groupPath, true});
      }
   }
   const std::lock_guard guard(_mutex);
   for (const auto& [id, path] : _poolPaths) {
      if (!path.empty()) {
         subjects.push_back({id, path, false});
      }
   }
   return subjects;
}

void GroupWatcher::ReadLoads()
{
   _groups.BeginReading();
   std::vector<Subject> subjects = FindSubjects();
   subjects.push_back({AgentdCommon::moid_hostsystem, "", false});
   std::set<std::string> present;
   std::set<std::string> operations = {kPools};
   for (const Subject& subject : subjects) {
      bool isPresent = true; // also when it cannot be read
      const std::string operation = "the CPU load of " + subject.id;
      operations.insert(operation);
      Guarded(operation, [&] { isPresent = ReadLoad(subject); });
      if (isPresent) {
         present.insert(subject.id);
      }
   }
   std::erase_if(_failing, [&operations](const auto& one) { return !operations.contains(one); });
   const std::lock_guard guard(_mutex);
   std::erase_if(_loads, [&present](const auto& load) { return !present.contains(load.first); });
}

bool GroupWatcher::ReadLoad(const Subject& subject)
{
   const int64_t beginUs = Corvax::System::GetMonotonicTime();
   Load& load = FindLoad(subject);
   const std::optional<GroupCpu> reading = ReadGroup(subject, load.limited);
   const int64_t timeUs = Corvax::System::GetMonotonicTime();
   // Its time would be wrong by up to its length.
   if (reading && timeUs - beginUs <= kMaxReadingUs) {
      const std::lock_guard guard(_mutex);
      load.history.Add(timeUs, reading->usedUs, reading->waitingUs, reading->throttledUs);
   }
   return reading.has_value();
}

/// The subject's own; that of another group begins anew.
GroupWatcher::Load& GroupWatcher::FindLoad(const Subject& subject)
{
   const std::lock_guard guard(_mutex);
   Load& load = _loads[subject.id];
   if (load.path != subject.path) {
      load = Load();
      load.path = subject.path;
   }
   return load;
}

std::optional<GroupCpu> GroupWatcher::ReadGroup(const Subject& subject, LimitedTime& limited)
{
   if (subject.path.empty()) {
      return ReadHostLoad();
   }
   std::optional<GroupCpu> reading = _groups.ReadCpu(subject.path);
   if (reading && subject.isVm) {
      reading->throttledUs =
         SaturatingAdd(reading->throttledUs, limited.ReadUs(_groups, subject.path));
   }
   return reading;
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
   if (found == _loads.end()) {
      return std::nullopt;
   }
   const LoadHistory& history = found->second.history;
   if (history.IsEmpty() || history.IsStale(Corvax::System::GetMonotonicTime())) {
      return std::nullopt;
   }
   return history.Get();
}

} // namespace LinuxHost
