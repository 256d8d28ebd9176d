#include "metrix/hykStatsCollector.h"

#include "agentdCommon/wellKnown.h"
#include "corvax/application.h"
#include "corvax/exception.h"
#include "metrix/ptrObj.h"

#include <algorithm>

// Steps of a collection run beyond the host itself: virtual machines, resource pools, system groups
// and CPU load.

namespace Metrix {

namespace {

using AgentdCommon::moid_hostsystem;
using Corvax::Format;
using Corvax::kLogDebug;
using Corvax::kLogNotice;
using Corvax::Ref;
using HostCtl::Lib::HostCtlException;
using HostCtl::Resource::CpuLoad;
using HostCtl::Resource::CpuLoadHistory;
using HostCtl::Resource::CpuStats;
using HostCtl::Resource::CpuTimes;
using HostCtl::Resource::MemoryClientStats;
using HostCtl::Resource::MemoryStats;
using HostCtl::Resource::SwapInfo;
using Quen::Vm::Device::VirtualEthernetCard;

constexpr StatVal kFullPercent = 10000; // hundredths

void GetVirtualEthernetCards(Guestsvc::HaVirtualMachine* /*vm*/, Quen::Vm::ConfigInfo* config,
                             Corvax::RefVector<VirtualEthernetCard>& cards)
{
   const auto* const devices = config->GetHardware().GetDevice();
   if (devices == nullptr) {
      return;
   }
   for (const Ref<Quen::Vm::Device::VirtualDevice>& device : *devices) {
      if (const auto card = Corvax::RefCast<VirtualEthernetCard>(device)) {
         cards.push_back(card);
      }
   }
}

/// Whether the card is attached to a network of the host and plugged in.
bool IsConnected(const VirtualEthernetCard& card)
{
   const auto* const backing =
      dynamic_cast<VirtualEthernetCard::NetworkBackingInfo*>(card.GetBacking());
   return backing && card.GetConnectable() && card.GetConnectable()->IsConnected();
}

} // namespace

bool HykStatsCollector::CollectVmStats(ResourceMgr* resourceMgr, Vm* vm, TimeStamp ts)
{
   const Corvax::Locker lock(vm);
   if (!vm->IsStatsAvailable()) {
      return false;
   }
   const Ref<Quen::Vm::ConfigInfo> config = vm->GetConfig();
   CollectVmCpuStats(resourceMgr, vm, ts);
   CollectVmMemStats(resourceMgr, vm, config->GetHardware().GetMemoryMB(), ts);
   CollectVmNetworkStats(vm, config.Get(), ts);
   return true;
}

void HykStatsCollector::CollectVmCpuStats(ResourceMgr* resourceMgr, Vm* vm, TimeStamp ts)
{
   const std::string& entity = vm->GetMoRef()->GetId();
   Add(entity, 0x40001, ts, vm->GetHeartbeatCount()); // sys.heartbeat
   const PtrObj<CpuStats> total(resourceMgr->GetVmCpuStats(vm->GetMoRef()));
   const std::vector<CpuTimes> vcpus = resourceMgr->GetVmCpuTimes(vm->GetMoRef());
   if (total == nullptr || vcpus.empty()) {
      return;
   }
   AssertCpuCache();
   for (size_t i = 0; i < vcpus.size(); ++i) {
      const CpuTimes& vcpu = vcpus[i];
      const std::string instance = Format("%1", i);
      Add(entity, 0x4, ts, ToMhz(vcpu.usedUs), instance);   // cpu.usagemhz
      Add(entity, 0x9, ts, vcpu.systemUs / 1000, instance); // cpu.system
      Add(entity, 0xA, ts, vcpu.waitUs / 1000, instance);   // cpu.wait
      Add(entity, 0xB, ts, vcpu.readyUs / 1000, instance);  // cpu.ready
      Add(entity, 0xC, ts, vcpu.extraUs / 1000, instance);  // cpu.extra
      Add(entity, 0xD, ts, vcpu.guaranteedMs, instance);    // cpu.guaranteed
      Add(entity, 0xE, ts, vcpu.usedUs / 1000, instance);   // cpu.used
      if (i == 0) {
         Add(entity, 0x40000, ts, vcpu.uptimeUs / 1000000); // sys.uptime
      }
   }
   AddSample(entity, 0x0, ts, total->usedUs / (vcpus.size() * 100),
             StatsMetadata::AggregateInstanceId, kFullPercent); // cpu.usage
   Add(entity, 0x4, ts, ToMhz(total->usedUs));                  // cpu.usagemhz
   CollectVmCpuLoadStats(resourceMgr, vm, ts);
}

void HykStatsCollector::CollectVmMemStats(ResourceMgr* resourceMgr, Vm* vm, int64_t memoryMb,
                                          TimeStamp ts)
{
   const std::string& entity = vm->GetMoRef()->GetId();
   const PtrObj<MemoryStats> memory(resourceMgr->GetVmMemoryStats(vm->GetMoRef()));
   const PtrObj<SwapInfo> swap(resourceMgr->GetVmSwapInfo(vm->GetMoRef()));
   const PtrObj<MemoryClientStats> client(resourceMgr->GetVmMemoryClientStats(vm->GetMoRef()));
   if (memory == nullptr || swap == nullptr || client == nullptr) {
      _logger->Log(kLogDebug, "Unable to collect memory stats for Vm %1", entity);
      return;
   }
   if (memoryMb > 0) {
      const uint64_t configuredKb = static_cast<uint64_t>(memoryMb) * 1024;
      Add(entity, 0x10000, ts, client->activeKb * kFullPercent / configuredKb); // mem.usage
   }
   const uint64_t consumedKb =
      client->grantedKb - std::min(client->savedBySharingKb, client->grantedKb);
   Add(entity, 0x1004A, ts, consumedKb);              // mem.consumed
   Add(entity, 0x10004, ts, client->grantedKb);       // mem.granted
   Add(entity, 0x10008, ts, client->activeKb);        // mem.active
   Add(entity, 0x1000C, ts, memory->sharedKb);        // mem.shared
   Add(entity, 0x10010, ts, memory->zeroKb);          // mem.zero
   Add(entity, 0x10036, ts, memory->swappedKb);       // mem.swapped
   Add(entity, 0x1003A, ts, swap->targetKb);          // mem.swaptarget
   Add(entity, 0x1003E, ts, swap->inKb);              // mem.swapin
   Add(entity, 0x10042, ts, swap->outKb);             // mem.swapout
   Add(entity, 0x1002D, ts, memory->balloonKb);       // mem.vmmemctl
   Add(entity, 0x10046, ts, client->balloonTargetKb); // mem.vmmemctltarget
   Add(entity, 0x10031, ts, memory->overheadKb);      // mem.overhead
}

void HykStatsCollector::CollectVmNetworkStats(Vm* vm, Quen::Vm::ConfigInfo* config, TimeStamp ts)
{
   const std::string& entity = vm->GetMoRef()->GetId();
   try {
      Corvax::RefVector<EthernetCard> cards;
      GetVirtualEthernetCards(vm, config, cards);
      CollectVmCards(vm, cards, ts);
   } catch (const Corvax::Exception& e) {
      _logger->Log(kLogNotice, "Corvax Exception during network stats collection for vm %1 : %2",
                   entity, e.GetMessage());
   } catch (const HostCtlException& e) {
      _logger->Log(kLogNotice, "HostCtl Exception during network stats collection for vm %1 : %2",
                   entity, e.GetMessage());
   }
}

void HykStatsCollector::CollectVmCards(Vm* vm, const Corvax::RefVector<EthernetCard>& cards,
                                       TimeStamp ts)
{
   const std::string& entity = vm->GetMoRef()->GetId();
   uint64_t totalKb = 0;
   int connected = 0;
   for (const Ref<EthernetCard>& card : cards) {
      if (!IsConnected(*card)) {
         continue;
      }
      ++connected;
      const PtrObj<HostCtl::Network::Port> port(
         HostCtl::Network::NetworkFactory::GetPort(vm->GetPortId(card.Get())));
      if (port != nullptr) {
         totalKb += AddPortStats(entity, Format("%1", card->GetKey()), port, ts);
      }
   }
   if (connected > 0) {
      Add(entity, 0x30000, ts, totalKb); // net.usage
   }
}

void HykStatsCollector::CollectAllVmDiskStats(const Corvax::RefVector<Vm>& vms,
                                              const LunVector& luns, TimeStamp ts)
{
   constexpr int32_t kNoWorld = -1;
   constexpr int64_t kNoData = -1;
   std::vector<int32_t> worldIds;
   for (const Ref<Vm>& vm : vms) {
      worldIds.push_back(vm->GetWorldId());
   }
   std::vector<int64_t> totalsKb(vms.size(), kNoData);
   for (HostCtl::Storage::DiskLun* const lun : luns) {
      const std::string instance = lun->GetScsiName();
      const auto worlds = lun->GetWorldStatistics();
      const uint64_t blockSizeBytes = lun->GetBlockSizeBytes();
      for (const HostCtl::Storage::WorldStatistics& world : worlds) {
         for (size_t k = 0; k < vms.size(); ++k) {
            if (worldIds[k] == kNoWorld || worldIds[k] != world.worldId) {
               continue;
            }
            const uint64_t kb = AddDiskStats(vms[k]->GetMoRef()->GetId(), instance,
                                             world.statistics, blockSizeBytes, ts);
            totalsKb[k] = std::max<int64_t>(totalsKb[k], 0) + static_cast<int64_t>(kb);
         }
      }
   }
   for (size_t k = 0; k < vms.size(); ++k) {
      if (totalsKb[k] != kNoData) {
         Add(vms[k]->GetMoRef()->GetId(), 0x20000, ts,
             static_cast<uint64_t>(totalsKb[k])); // disk.usage
      }
   }
}

void HykStatsCollector::CollectResourcePoolStats(ResourceMgr* resourceMgr, TimeStamp ts)
{
   const Ref<MoRef> root = resourceMgr->GetRootResourcePool();
   CollectResourcePoolStats(resourceMgr, root.Get(), ts);
}

void HykStatsCollector::CollectResourcePoolStats(ResourceMgr* resourceMgr, MoRef* pool,
                                                 TimeStamp ts)
{
   Ref<Quen::ResourcePool> object;
   if (!Corvax::Service::GetApp()->GetObjectRegistry()->TryLookupObject(pool->GetId(), object)) {
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
      Add(poolId, 0x4, ts, ToMhz(cpu->usedUs)); // cpu.usagemhz
   }
   if (mem) {
      Add(poolId, 0x10004, ts, mem->grantedKb);  // mem.granted
      Add(poolId, 0x10008, ts, mem->activeKb);   // mem.active
      Add(poolId, 0x1000C, ts, mem->sharedKb);   // mem.shared
      Add(poolId, 0x10010, ts, mem->zeroKb);     // mem.zero
      Add(poolId, 0x10036, ts, mem->swappedKb);  // mem.swapped
      Add(poolId, 0x1002D, ts, mem->balloonKb);  // mem.vmmemctl
      Add(poolId, 0x10031, ts, mem->overheadKb); // mem.overhead
   }
}

/// Called when the cache is filled: groups created later are not sampled until the next start, on
/// purpose.
void HykStatsCollector::PopulateSystemResGroupList()
{
   const Ref<ResourceMgr> resourceMgr =
      Corvax::Service::GetApp()->GetObjectRegistry()->LookupObject<ResourceMgr>(
         AgentdCommon::moid_resourcemgr);
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
         Add(moid_hostsystem, 0x40002, ts, ToMhz(cpu->usedUs), key); // sys.resourceCpuUsage
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

void HykStatsCollector::CollectVmCpuLoadStats(ResourceMgr* resourceMgr, Vm* vm, TimeStamp ts)
{
   const PtrObj<CpuLoadHistory> history(resourceMgr->GetVmCpuLoadHistory(vm->GetMoRef()));
   if (history != nullptr) {
      AddCpuLoadStats(vm->GetMoRef()->GetId(), ts, *history);
   }
}

void HykStatsCollector::AddCpuLoadStats(const std::string& entity, TimeStamp ts,
                                        const CpuLoadHistory& history)
{
   // rescpu: active average and peak, run average and peak, time limited, for each period.
   struct Period {
      const CpuLoad& load;
      int counterIds[5];
   };
   const Period periods[] = {
      {history.oneMinute, {0x50000, 0x50001, 0x50002, 0x50009, 0x5000A}},
      {history.fiveMinutes, {0x50003, 0x50004, 0x50005, 0x5000B, 0x5000C}},
      {history.fifteenMinutes, {0x50006, 0x50007, 0x50008, 0x5000D, 0x5000E}},
   };
   for (const auto& [load, counterIds] : periods) {
      const uint32_t percents[] = {load.activeAverage, load.activePeak, load.runAverage,
                                   load.runPeak, load.maxLimited};
      for (size_t i = 0; i < std::size(percents); ++i) {
         Add(entity, counterIds[i], ts, percents[i] * 100U); // hundredths, a 32-bit product
      }
   }
   Add(entity, 0x5000F, ts, history.sampleCount);    // rescpu.sampleCount
   Add(entity, 0x50010, ts, history.samplePeriodMs); // rescpu.samplePeriod
}

} // namespace Metrix
