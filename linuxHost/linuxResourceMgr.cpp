#include "linuxHost/linuxResourceMgr.h"

#include "linuxHost/groupTree.h"
#include "linuxHost/kernel/saturate.h"
#include "linuxHost/kernel/vmGroups.h"

#include <algorithm>
#include <limits>

namespace LinuxHost {

namespace {

using namespace HostCtl::Resource;
using Corvax::Ref;
using Plexa::MoRef;

uint32_t To32(uint64_t value)
{
   return static_cast<uint32_t>(std::min<uint64_t>(value, std::numeric_limits<uint32_t>::max()));
}

template <class T>
T* NewIfAny(const std::optional<T>& record)
{
   return record ? new T(*record) : nullptr;
}

/// Memory of a virtual machine, read from all its sources together.
struct MemoryRecords {
   MemoryStats stats;
   SwapInfo swap;
   MemoryClientStats client;
};

/// CPU time of a virtual machine for each of its virtual CPUs, as their number changes.
struct PerCpuUse {
   int32_t startId = -1;
   uint64_t vcpus = 1;
   uint64_t usedUs = 0;      ///< of the whole machine, at the last reading
   uint64_t correctedUs = 0; ///< for each of its virtual CPUs
};

class LinuxResourceMgr : public Hostsvc::ResourceMgr, public Corvax::LockableObjectImpl {
public:
   LinuxResourceMgr(const std::string& root, const Inventory::Inventory& inventory,
                    const LinuxVms& vms, const SnapshotSource& snapshots,
                    const GroupWatcher& groupWatcher, Corvax::Logger* logger)
      : _inventory(inventory), _vms(vms), _snapshots(snapshots), _groupWatcher(groupWatcher),
        _logger(logger), _groups(root), _cpu(root)
   {
   }

   Ref<MoRef> GetRootResourcePool() override
   {
      const std::lock_guard guard(_readersMutex);
      // Once in a run: the collector's walk over the pools starts here.
      _groups.BeginReading();
      return _inventory.GetRootPool();
   }

   CpuStats* GetPoolCpuStats(MoRef* pool) override
   {
      return NewIfAny(Read<CpuStats>([&] { return ReadGroup(GetPoolPath(*pool)); }));
   }

   MemoryStats* GetPoolMemoryStats(MoRef* pool) override
   {
      return NewIfAny(Read<MemoryStats>([&] { return ReadPoolMemory(*pool); }));
   }

   CpuLoadHistory* GetPoolCpuLoadHistory(MoRef* pool) override
   {
      return NewIfAny(_groupWatcher.GetLoad(pool->GetId()));
   }

   Ref<Quen::Host::SystemResourceInfo> GetSystemResourceInfo() override
   {
      SystemGroups found;
      const std::lock_guard guard(_readersMutex);
      found = FindSystemGroups(_groups);
      _systemGroupPaths = std::move(found.pathByKey);
      return found.root;
   }

   CpuStats* GetSystemGroupCpuStats(const std::string& key) override
   {
      return NewIfAny(Read<CpuStats>([&] {
         const auto found = _systemGroupPaths.find(key);
         return found == _systemGroupPaths.end() ? std::nullopt : ReadGroup(found->second);
      }));
   }

   CpuStats* GetVmCpuStats(MoRef* vm) override
   {
      const auto figures = FindFigures(*vm);
      const std::lock_guard guard(_readersMutex);
      return figures ? new CpuStats{figures->usedUs, GetPerCpuCorrectionUs(vm->GetId(), *figures)}
                     : nullptr;
   }

   std::vector<CpuTimes> GetVmCpuTimes(MoRef* vm) override
   {
      const auto figures = FindFigures(*vm);
      const auto times = Read<std::vector<CpuTimes>>([&] { return ReadVcpus(*vm, figures.get()); });
      return times.value_or(std::vector<CpuTimes>());
   }

   MemoryStats* GetVmMemoryStats(MoRef* vm) override
   {
      // The first of the three memory records that a run reads; the other two are from this
      // reading.
      const auto memory = Read<MemoryRecords>([&] { return ReadVmMemory(*vm); });
      return memory ? new MemoryStats(memory->stats) : nullptr;
   }

   SwapInfo* GetVmSwapInfo(MoRef* vm) override
   {
      const auto memory = Read<MemoryRecords>([&] { return FindVmMemory(vm->GetId()); });
      return memory ? new SwapInfo(memory->swap) : nullptr;
   }

   MemoryClientStats* GetVmMemoryClientStats(MoRef* vm) override
   {
      const auto memory = Read<MemoryRecords>([&] { return FindVmMemory(vm->GetId()); });
      return memory ? new MemoryClientStats(memory->client) : nullptr;
   }

   CpuLoadHistory* GetVmCpuLoadHistory(MoRef* vm) override
   {
      return NewIfAny(_groupWatcher.GetLoad(vm->GetId()));
   }

private:
   /// Runs the operation under the readers' lock. A group or process that cannot be read counts as
   /// gone, so that all other figures are read.
   template <class T, class Operation>
   std::optional<T> Read(const Operation& operation)
   {
      const std::lock_guard guard(_readersMutex);
      try {
         return operation();
      } catch (const std::exception& e) {
         _logger->Log(Corvax::kLogDebug, "Cannot read a figure: %1", e.what());
         return std::nullopt;
      }
   }

   /// The machine's part of the newest snapshot; null when it is missing there.
   std::shared_ptr<const VmFigures> FindFigures(const MoRef& vm) const
   {
      const auto snapshot = _snapshots.GetSnapshot();
      if (!snapshot) {
         return nullptr;
      }
      const auto found = snapshot->vms.find(vm.GetId());
      return found == snapshot->vms.end()
                ? nullptr
                : std::shared_ptr<const VmFigures>(snapshot, &found->second);
   }

   /// The quotient's growth is that of the CPU time / the larger number of virtual CPUs before and
   /// after, so that it never exceeds the time that has passed.
   int64_t GetPerCpuCorrectionUs(const std::string& vmId, const VmFigures& figures)
   {
      if (figures.vcpus.empty()) {
         return 0; // no quotient is made
      }
      PerCpuUse& use = _perCpuUse[vmId];
      const uint64_t vcpus = figures.vcpus.size();
      const uint64_t quotientUs = figures.usedUs / vcpus;
      if (use.startId != figures.startId || figures.usedUs < use.usedUs) {
         use = {figures.startId, vcpus, figures.usedUs, quotientUs};
      }
      use.correctedUs += vcpus == use.vcpus
                            ? quotientUs - use.usedUs / vcpus
                            : (figures.usedUs - use.usedUs) / std::max(vcpus, use.vcpus);
      use.vcpus = vcpus;
      use.usedUs = figures.usedUs;
      return static_cast<int64_t>(use.correctedUs - quotientUs);
   }

   std::string GetPoolPath(const MoRef& pool) const
   {
      return _groupWatcher.GetPoolPath(pool.GetId());
   }

   std::optional<CpuStats> ReadGroup(const std::string& path)
   {
      const std::optional<GroupCpu> cpu = path.empty() ? std::nullopt : _groups.ReadCpu(path);
      return cpu ? std::optional(CpuStats{cpu->usedUs}) : std::nullopt;
   }

   std::vector<CpuTimes> ReadVcpus(const MoRef& vmRef, const VmFigures* figures)
   {
      std::vector<CpuTimes> times;
      const Ref<LinuxVm> vm = _vms.Find(vmRef.GetId());
      if (!vm || figures == nullptr) {
         return times;
      }
      const auto places = vm->GetPlaces();
      const uint64_t uptimeUs =
         places->startUs > 0 ? SaturatingSubtract(_cpu.ReadUptimeUs(), places->startUs) : kUnknown;
      for (size_t i = 0; i < figures->vcpus.size(); ++i) {
         const VcpuFigures& vcpu = figures->vcpus[i];
         CpuTimes& record = times.emplace_back();
         record.usedUs = vcpu.usedUs;
         record.waitUs = vcpu.waitUs;
         record.readyUs = vcpu.readyUs;
         record.uptimeUs = uptimeUs;
         const auto systemUs =
            places->groupPath.empty()
               ? std::nullopt
               : _groups.ReadVcpuSystemUs(places->groupPath, static_cast<uint32_t>(i));
         record.systemUs = systemUs.value_or(kUnknown);
      }
      return times;
   }

   std::optional<MemoryRecords> ReadVmMemory(const MoRef& vmRef)
   {
      const auto figures = FindFigures(vmRef);
      const Ref<LinuxVm> vm = _vms.Find(vmRef.GetId());
      if (!vm || !figures || !figures->memory) {
         _vmMemory.erase(vmRef.GetId());
         return std::nullopt;
      }
      const auto places = vm->GetPlaces();
      const auto group =
         places->groupPath.empty() ? std::nullopt : _groups.ReadMemory(places->groupPath);
      MergedMemory merged;
      uint64_t hugeKb = 0;
      if (places->process) {
         merged = places->process->ReadMergedMemory();
      }
      if (places->hasHugePages) {
         const auto read = places->process ? places->process->ReadHugeKb() : std::nullopt;
         // Unless it can be read: QEMU takes all huge pages when it starts.
         hugeKb = read.value_or(figures->memory->balloonMaximumKb);
      }
      MemoryRecords& memory = _vmMemory[vmRef.GetId()];
      memory = Combine(*figures->memory, group, merged, hugeKb);
      return memory;
   }

   static MemoryRecords Combine(const VmMemory& figures, const std::optional<GroupMemory>& group,
                                const MergedMemory& merged, uint64_t hugeKb)
   {
      MemoryRecords memory;
      MemoryStats& stats = memory.stats;
      // The resident memory consists of the guest memory that was used, and the process's own;
      // huge pages are guest memory beside it.
      stats.grantedKb = std::min(hugeKb > 0 ? hugeKb : figures.rssKb, figures.balloonCurrentKb);
      stats.overheadKb = SaturatingAdd(figures.rssKb, hugeKb) - stats.grantedKb;
      stats.activeKb = GetActiveKb(figures, group, stats.grantedKb);
      stats.sharedKb = merged.sharedKb;
      stats.zeroKb = merged.zeroKb;
      stats.swappedKb = group ? group->swappedKb : kUnknown;
      stats.balloonKb = SaturatingSubtract(figures.balloonMaximumKb, figures.balloonCurrentKb);
      memory.swap.inKb = group ? To32(group->swapInKb) : kUnknown32;
      memory.swap.outKb = group ? To32(group->swapOutKb) : kUnknown32;
      memory.client.grantedKb = stats.grantedKb;
      memory.client.activeKb = stats.activeKb;
      memory.client.savedBySharingKb = merged.sharedKb;
      memory.client.balloonTargetKb = stats.balloonKb;
      return memory;
   }

   /// Memory that the guest itself has in use, where its balloon driver reports that. The kernel's
   /// active list is far below it on a host that is not short of memory.
   static uint64_t GetActiveKb(const VmMemory& figures, const std::optional<GroupMemory>& group,
                               uint64_t grantedKb)
   {
      if (figures.guestAvailableKb && figures.guestUsableKb) {
         return std::min(SaturatingSubtract(*figures.guestAvailableKb, *figures.guestUsableKb),
                         grantedKb);
      }
      return group ? std::min(group->activeKb, grantedKb) : kUnknown;
   }

   std::optional<MemoryRecords> FindVmMemory(const std::string& id) const
   {
      const auto found = _vmMemory.find(id);
      return found == _vmMemory.end() ? std::nullopt : std::optional(found->second);
   }

   /// Figures that the kernel counts by group come from the pool's group; the others are the sum
   /// over the virtual machines in the pool and below it, as read in this run.
   std::optional<MemoryStats> ReadPoolMemory(const MoRef& pool)
   {
      const std::string path = GetPoolPath(pool);
      const auto group = path.empty() ? std::nullopt : _groups.ReadMemory(path);
      if (!group) {
         return std::nullopt;
      }
      MemoryStats stats;
      stats.grantedKb = group->grantedKb;
      stats.activeKb = group->activeKb;
      stats.swappedKb = group->swappedKb;
      const auto isGone = [this](const auto& entry) { return !_vms.Find(entry.first); };
      std::erase_if(_vmMemory, isGone);
      std::erase_if(_perCpuUse, isGone);
      for (const auto& [id, memory] : _vmMemory) {
         const Ref<LinuxVm> vm = _vms.Find(id);
         if (FindFigures(*vm->GetMoRef()) && IsIn(*vm, pool, path)) {
            stats.sharedKb += memory.stats.sharedKb;
            stats.zeroKb += memory.stats.zeroKb;
            stats.balloonKb += memory.stats.balloonKb;
            stats.overheadKb += memory.stats.overheadKb;
         }
      }
      return stats;
   }

   /// By the machine's group, as the group's own figures: one in a slice outside the machine group
   /// is in no pool's group, although the root pool is its parent.
   bool IsIn(LinuxVm& vm, const MoRef& pool, const std::string& poolPath) const
   {
      const std::string groupPath = vm.GetPlaces()->groupPath;
      return groupPath.empty() ? IsBelow(vm.GetParent(), pool.GetId())
                               : IsBelowGroup(groupPath, poolPath);
   }

   bool IsBelow(Ref<MoRef> pool, const std::string& ancestorId) const
   {
      while (pool && pool->GetId() != ancestorId) {
         const Ref<Inventory::PoolObject> object = _inventory.FindPool(pool->GetId());
         pool = object ? object->GetParent() : nullptr;
      }
      return static_cast<bool>(pool);
   }

   const Inventory::Inventory& _inventory;
   const LinuxVms& _vms;
   const SnapshotSource& _snapshots;
   const GroupWatcher& _groupWatcher;
   const Ref<Corvax::Logger> _logger;
   std::mutex _readersMutex; // protects everything below
   ControlGroups _groups;
   CpuReader _cpu;
   std::map<std::string, std::string> _systemGroupPaths; // by key
   std::map<std::string, PerCpuUse> _perCpuUse;          // by id
   std::map<std::string, MemoryRecords> _vmMemory;       // by id, from the latest run
};

} // namespace

Ref<Hostsvc::ResourceMgr> NewLinuxResourceMgr(const std::string& root,
                                              const Inventory::Inventory& inventory,
                                              const LinuxVms& vms, const SnapshotSource& snapshots,
                                              const GroupWatcher& groups, Corvax::Logger* logger)
{
   return Corvax::MakeRef<LinuxResourceMgr>(root, inventory, vms, snapshots, groups, logger);
}

} // namespace LinuxHost
