#include "metrix/hykStatsCollector.h"

#include "agentdCommon/wellKnown.h"
#include "corvax/application.h"
#include "metrix/counterIds.h"
#include "metrix/ptrObj.h"

namespace Metrix {

namespace {

using AgentdCommon::moid_hostsystem;
using Corvax::Ref;
using HostCtl::Resource::CpuLoad;
using HostCtl::Resource::CpuLoadHistory;
using HostCtl::Resource::CpuStats;
using HostCtl::Resource::MemoryStats;

Corvax::ObjectRegistry& Registry()
{
   return *Corvax::Service::GetApp()->GetObjectRegistry();
}

} // namespace

void HykStatsCollector::CollectResourcePoolStats(ResourceMgr* resourceMgr, TimeStamp ts)
{
   const Ref<MoRef> root = resourceMgr->GetRootResourcePool();
   CollectResourcePoolStats(resourceMgr, root.Get(), ts);
}

void HykStatsCollector::CollectResourcePoolStats(ResourceMgr* resourceMgr, MoRef* pool,
                                                 TimeStamp ts)
{
   Ref<Quen::ResourcePool> object;
   if (!Registry().TryLookupObject(pool->GetId(), object)) {
      return;
   }
   const PtrObj<CpuStats> cpu(resourceMgr->GetPoolCpuStats(pool));
   const PtrObj<MemoryStats> memory(resourceMgr->GetPoolMemoryStats(pool));
   AddResourcePoolStats(pool->GetId(), cpu, memory, ts);
   Ref<Plexa::DataArray<MoRef>> children;
   object->GetChildPools(children);
   if (!children) {
      return;
   }
   for (const Ref<MoRef>& child : *children) {
      CollectResourcePoolStats(resourceMgr, child.Get(), ts);
   }
}

void HykStatsCollector::AddResourcePoolStats(const std::string& poolId, CpuStats* cpu,
                                             MemoryStats* mem, TimeStamp ts)
{
   AssertCpuCache();
   if (cpu) {
      Add(poolId, kCpuUsageMhz, ts, ToMhz(cpu->usedUs));
   }
   if (mem) {
      Add(poolId, kMemGranted, ts, mem->grantedKb);
      Add(poolId, kMemActive, ts, mem->activeKb);
      Add(poolId, kMemShared, ts, mem->sharedKb);
      Add(poolId, kMemZero, ts, mem->zeroKb);
      Add(poolId, kMemSwapped, ts, mem->swappedKb);
      Add(poolId, kMemVmmemctl, ts, mem->balloonKb);
      Add(poolId, kMemOverhead, ts, mem->overheadKb);
   }
}

/// Called once per start: groups created later are not sampled until the next one, on purpose.
void HykStatsCollector::PopulateSystemResGroupList()
{
   const Ref<ResourceMgr> resourceMgr =
      Registry().LookupObject<ResourceMgr>(AgentdCommon::moid_resourcemgr);
   _systemResGroupList.clear();
   Ref<Quen::Host::SystemResourceInfo> root;
   {
      const Corvax::Locker lock(resourceMgr.Get());
      root = resourceMgr->GetSystemResourceInfo();
   }
   if (root) {
      AddSystemResGroupTree(root.Get(), _systemResGroupList);
   }
}

void HykStatsCollector::AddSystemResGroupTree(const Quen::Host::SystemResourceInfo* node,
                                              std::vector<std::string>& list)
{
   list.push_back(node->GetKey());
   if (node->GetChild() == nullptr) {
      return;
   }
   for (const Ref<Quen::Host::SystemResourceInfo>& child : *node->GetChild()) {
      AddSystemResGroupTree(child.Get(), list);
   }
}

void HykStatsCollector::CollectSystemResGroupStats(ResourceMgr* resourceMgr, TimeStamp ts)
{
   AssertCpuCache();
   for (const std::string& key : _systemResGroupList) {
      const PtrObj<CpuStats> cpu(resourceMgr->GetSystemGroupCpuStats(key));
      if (cpu != nullptr) {
         Add(moid_hostsystem, kSysResourceCpuUsage, ts, ToMhz(cpu->usedUs), key);
      }
   }
}

void HykStatsCollector::CollectCpuLoadStats(HostCtl::Resource::ResourceGroup* group,
                                            const std::string& entity, TimeStamp ts)
{
   const PtrObj<CpuLoadHistory> history(group->GetCpuLoadHistory());
   if (history != nullptr) {
      AddCpuLoadStats(entity, ts, *history);
   }
}

void HykStatsCollector::AddCpuLoadStats(const std::string& entity, TimeStamp ts,
                                        const CpuLoadHistory& history)
{
   struct Period {
      const CpuLoad& load;
      int counterIds[5]; // in the order of `percents`
   };
   const Period periods[] = {
      {history.oneMinute,
       {kRescpuActav1, kRescpuActpk1, kRescpuRunav1, kRescpuRunpk1, kRescpuMaxLimited1}},
      {history.fiveMinutes,
       {kRescpuActav5, kRescpuActpk5, kRescpuRunav5, kRescpuRunpk5, kRescpuMaxLimited5}},
      {history.fifteenMinutes,
       {kRescpuActav15, kRescpuActpk15, kRescpuRunav15, kRescpuRunpk15, kRescpuMaxLimited15}},
   };
   for (const auto& [load, counterIds] : periods) {
      const uint32_t percents[] = {load.activeAverage, load.activePeak, load.runAverage,
                                   load.runPeak, load.maxLimited};
      for (size_t i = 0; i < std::size(percents); ++i) {
         const uint32_t hundredths = percents[i] * 100; // 32 bits, before it is widened
         Add(entity, counterIds[i], ts, hundredths);
      }
   }
   Add(entity, kRescpuSampleCount, ts, history.sampleCount);
   Add(entity, kRescpuSamplePeriod, ts, history.samplePeriodMs);
}

} // namespace Metrix
