#include "metrix/hykStatsCollector.h"

#include "corvax/exception.h"
#include "metrix/counterIds.h"
#include "metrix/ptrObj.h"

#include <algorithm>

namespace Metrix {

namespace {

using Corvax::Format;
using Corvax::kLogDebug;
using Corvax::kLogNotice;
using Corvax::Ref;
using HostCtl::Lib::HostCtlException;
using HostCtl::Resource::CpuLoadHistory;
using HostCtl::Resource::CpuStats;
using HostCtl::Resource::CpuTimes;
using HostCtl::Resource::kUnknown;
using HostCtl::Resource::kUnknown32;
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

/// Whether the NIC is on a network of the host and connected.
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
   Add(entity, kSysHeartbeat, ts, vm->GetHeartbeatCount());
   const PtrObj<CpuStats> total(resourceMgr->GetVmCpuStats(vm->GetMoRef()));
   const std::vector<CpuTimes> vcpus = resourceMgr->GetVmCpuTimes(vm->GetMoRef());
   if (total == nullptr || vcpus.empty()) {
      return;
   }
   AssertCpuCache();
   for (size_t i = 0; i < vcpus.size(); ++i) {
      const CpuTimes& vcpu = vcpus[i];
      const std::string instance = Format("%1", i);
      Add(entity, kCpuUsageMhz, ts, ToMhz(vcpu.usedUs), instance);
      if (vcpu.systemUs != kUnknown) {
         Add(entity, kCpuSystem, ts, vcpu.systemUs / 1000, instance);
      }
      Add(entity, kCpuWait, ts, vcpu.waitUs / 1000, instance);
      Add(entity, kCpuReady, ts, vcpu.readyUs / 1000, instance);
      Add(entity, kCpuExtra, ts, vcpu.extraUs / 1000, instance);
      Add(entity, kCpuGuaranteed, ts, vcpu.guaranteedMs, instance);
      Add(entity, kCpuUsed, ts, vcpu.usedUs / 1000, instance);
      if (i == 0 && vcpu.uptimeUs != kUnknown) {
         Add(entity, kSysUptime, ts, vcpu.uptimeUs / Corvax::kMicrosecondsPerSecond);
      }
   }
   const uint64_t perCpuUs =
      total->usedUs / vcpus.size() + static_cast<uint64_t>(total->perCpuCorrectionUs);
   AddSample(entity, kCpuUsage, ts, perCpuUs / 100, StatsMetadata::AggregateInstanceId,
             kFullPercent);
   Add(entity, kCpuUsageMhz, ts, ToMhz(total->usedUs));
   CollectVmCpuLoadStats(resourceMgr, vm, ts);
}

void HykStatsCollector::CollectVmCpuLoadStats(ResourceMgr* resourceMgr, Vm* vm, TimeStamp ts)
{
   const PtrObj<CpuLoadHistory> history(resourceMgr->GetVmCpuLoadHistory(vm->GetMoRef()));
   if (history != nullptr) {
      AddCpuLoadStats(vm->GetMoRef()->GetId(), ts, *history);
   }
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
   const bool isActiveKnown = client->activeKb != kUnknown;
   if (memoryMb > 0 && isActiveKnown) {
      const uint64_t configuredKb = static_cast<uint64_t>(memoryMb) * 1024;
      Add(entity, kMemUsage, ts, client->activeKb * kFullPercent / configuredKb);
   }
   const uint64_t consumedKb =
      client->grantedKb - std::min(client->savedBySharingKb, client->grantedKb);
   Add(entity, kMemConsumed, ts, consumedKb);
   Add(entity, kMemGranted, ts, client->grantedKb);
   if (isActiveKnown) {
      Add(entity, kMemActive, ts, client->activeKb);
   }
   Add(entity, kMemShared, ts, memory->sharedKb);
   Add(entity, kMemZero, ts, memory->zeroKb);
   if (memory->swappedKb != kUnknown) {
      Add(entity, kMemSwapped, ts, memory->swappedKb);
   }
   Add(entity, kMemSwapTarget, ts, swap->targetKb);
   if (swap->inKb != kUnknown32 && swap->outKb != kUnknown32) {
      Add(entity, kMemSwapIn, ts, swap->inKb);
      Add(entity, kMemSwapOut, ts, swap->outKb);
   }
   Add(entity, kMemVmmemctl, ts, memory->balloonKb);
   Add(entity, kMemVmmemctlTarget, ts, client->balloonTargetKb);
   Add(entity, kMemOverhead, ts, memory->overheadKb);
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
   uint64_t totalKb = _wideFigures ? static_cast<uint64_t>(vm->GetNetworkSumCorrectionKb()) : 0;
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
      Add(entity, kNetUsage, ts, totalKb);
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
         Add(vms[k]->GetMoRef()->GetId(), kDiskUsage, ts, static_cast<uint64_t>(totalsKb[k]));
      }
   }
}

} // namespace Metrix
