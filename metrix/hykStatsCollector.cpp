#include "metrix/hykStatsCollector.h"

#include "agentdCommon/messages.h"
#include "agentdCommon/wellKnown.h"
#include "corvax/application.h"
#include "corvax/exception.h"
#include "metrix/counterIds.h"
#include "metrix/ptrObj.h"

#include <algorithm>
#include <limits>

namespace Metrix {

namespace {

using AgentdCommon::moid_hostsystem;
using Corvax::Assert;
using Corvax::Format;
using Corvax::kLogDebug;
using Corvax::kLogError;
using Corvax::kLogInfo;
using Corvax::kLogWarning;
using Corvax::kMicrosecondsPerSecond;
using Corvax::MakeFunctor;
using Corvax::Ref;
using HostCtl::Lib::HostCtlException;

constexpr StatVal kFullPercent = 10000; // hundredths
constexpr uint64_t kHzPerMhz = 1000000;

constexpr size_t kSamplesPerVm = 50;
constexpr size_t kSamplesOfHost = 100;

Corvax::ObjectRegistry& Registry()
{
   return *Corvax::Service::GetApp()->GetObjectRegistry();
}

} // namespace

/// Owns the disks of one run; there are none if the kernel library cannot list them.
class HykStatsCollector::DiskLuns {
public:
   DiskLuns(HostCtl::Storage::StorageInfo* storageInfo, Corvax::Logger& logger)
   {
      try {
         _luns = storageInfo->GetDiskLuns();
         _sumCorrectionKb = storageInfo->GetSumCorrectionKb();
      } catch (const HostCtlException& e) {
         logger.Log(kLogInfo, "HostCtl Exception during call to GetDiskLuns: %1", e.GetMessage());
      }
   }
   ~DiskLuns()
   {
      for (const HostCtl::Storage::DiskLun* const lun : _luns) {
         delete lun;
      }
   }
   DiskLuns(const DiskLuns&) = delete;
   DiskLuns& operator=(const DiskLuns&) = delete;

   const LunVector& Get() const { return _luns; }
   int64_t GetSumCorrectionKb() const { return _sumCorrectionKb; }

private:
   LunVector _luns;
   int64_t _sumCorrectionKb = 0;
};

HykStatsCollector::HykStatsCollector(Corvax::Logger* logger, StatsMetadata* metadata,
                                     StatsDepot* depot, int interval, bool wideFigures)
   : BaseStatsCollector(logger, metadata, depot, interval), _wideFigures(wideFigures)
{
}

HykStatsCollector::~HykStatsCollector() = default;

void HykStatsCollector::CollectStats(int64_t timeStamp)
{
   Assert(IsLocked(), "a run holds the collector's lock");
   _collectedSamples.reserve(_poweredOnVms.size() * kSamplesPerVm + kSamplesOfHost);
   try {
      CollectAll(static_cast<TimeStamp>(timeStamp));
   } catch (const Corvax::Exception& e) {
      _logger->Log(kLogError, "Error in Statistics collection: %1", e.GetMessage());
   } catch (const HostCtlException& e) {
      _logger->Log(kLogError, "HostCtl Exception during stats collection: %1", e.GetMessage());
   } catch (...) {
      _logger->Log(kLogError, "Unknown exception during stats collection");
   }
   _resourceMgr = nullptr;
}

void HykStatsCollector::CollectAll(TimeStamp ts)
{
   const PtrObj<HostCtl::Host> host(HostCtl::HostFactory::GetHost());
   const PtrObj<HostCtl::Resource::ResourceInfo> resourceInfo(host->GetResourceInfo());
   const PtrObj<HostCtl::Storage::StorageInfo> storageInfo(host->GetStorageInfo());
   const DiskLuns luns(storageInfo, *_logger);
   if (!_isCacheInitialized) {
      InitCache(host);
   }
   _resourceMgr = Registry().LookupObject<ResourceMgr>(AgentdCommon::moid_resourcemgr);
   const HostCtl::Resource::HostCapacity capacity = resourceInfo->GetCapacity();

   CollectHostCpuStats(resourceInfo, ts);
   CollectHostMemStats(resourceInfo, ts);
   CollectHostDiskStats(luns.Get(), luns.GetSumCorrectionKb(), ts);
   CollectHostCapacityStats(capacity, ts);
   CollectHostNetworkStats(host, ts);

   Corvax::RefVector<Vm> vms;
   for (const std::string& vmId : _poweredOnVms) {
      Ref<Vm> vm;
      if (Registry().TryLookupObject(vmId, vm) &&
          CollectVmStats(_resourceMgr.Get(), vm.Get(), ts)) {
         vms.push_back(vm);
      }
   }
   CollectAllVmDiskStats(vms, luns.Get(), ts);
   CollectResourcePoolStats(_resourceMgr.Get(), ts);
   CollectSystemResGroupStats(_resourceMgr.Get(), ts);
}

void HykStatsCollector::AssertCpuCache() const
{
   Assert(_numCpuCores != 0, "the number of CPU cores is known");
   Assert(_totalCpuMHz != 0, "the CPU capacity is known");
}

/// used x MHz / (cores x 1000000). Quotient and remainder are multiplied separately, so that the
/// product does not overflow.
uint64_t HykStatsCollector::ToMhz(uint64_t usedUs) const
{
   const auto divisor = static_cast<uint64_t>(_numCpuCores) * kMicrosecondsPerSecond;
   const auto mhz = static_cast<uint64_t>(_totalCpuMHz);
   return usedUs / divisor * mhz + usedUs % divisor * mhz / divisor;
}

void HykStatsCollector::CollectHostCpuStats(HostCtl::Resource::ResourceInfo* resourceInfo,
                                            TimeStamp ts)
{
   uint64_t usedTotalUs = 0;
   int index = 0;
   for (const HostCtl::Resource::HostCpuStats& cpu : resourceInfo->GetCpuStats()) {
      const std::string instance = Format("%1", index++);
      AddSample(moid_hostsystem, kCpuUsage, ts, cpu.usedUs / 100, instance, kFullPercent);
      Add(moid_hostsystem, kCpuUsed, ts, cpu.usedUs / 1000, instance);
      Add(moid_hostsystem, kCpuIdle, ts, cpu.idleUs / 1000, instance);
      usedTotalUs += cpu.usedUs;
   }
   Assert(_numCpuCores != 0, "the number of CPU cores is known");
   const uint64_t usage = usedTotalUs / (static_cast<uint64_t>(_numCpuCores) * 100);
   AddSample(moid_hostsystem, kCpuUsage, ts, usage, StatsMetadata::AggregateInstanceId,
             kFullPercent);
   AssertCpuCache(); // only here: without the speed there is still the usage
   Add(moid_hostsystem, kCpuUsageMhz, ts, ToMhz(usedTotalUs));
   const PtrObj<HostCtl::Resource::ResourceGroup> rootGroup(resourceInfo->GetRootGroup());
   CollectCpuLoadStats(rootGroup, moid_hostsystem, ts);
   Add(moid_hostsystem, kSysUptime, ts, resourceInfo->GetUptimeUs() / kMicrosecondsPerSecond);
}

void HykStatsCollector::CollectHostCapacityStats(const HostCtl::Resource::HostCapacity& capacity,
                                                 TimeStamp ts)
{
   Add(moid_hostsystem, kCpuReservedCapacity, ts, capacity.reservedCpuMhz);
   Add(moid_hostsystem, kMemReservedCapacity, ts, capacity.reservedMemoryMb);
}

void HykStatsCollector::CollectHostMemStats(HostCtl::Resource::ResourceInfo* resourceInfo,
                                            TimeStamp ts)
{
   const HostCtl::Resource::HostMemoryStats memory = resourceInfo->GetMemoryStats();
   const auto physicalKb = static_cast<uint64_t>(_hostPhysicalMemoryKB);
   // With memory added since the start, more can be free than the cached total.
   const uint64_t consumedKb = physicalKb - std::min(memory.freeKb, physicalKb);
   if (physicalKb > 0) {
      Add(moid_hostsystem, kMemUsage, ts, consumedKb * kFullPercent / physicalKb);
   }
   Add(moid_hostsystem, kMemConsumed, ts, consumedKb);
   Add(moid_hostsystem, kMemGranted, ts, memory.grantedKb);
   Add(moid_hostsystem, kMemActive, ts, memory.activeKb);
   Add(moid_hostsystem, kMemShared, ts, memory.sharedKb);
   Add(moid_hostsystem, kMemUnreserved, ts, memory.unreservedKb);
   Add(moid_hostsystem, kMemSwapUsed, ts, memory.swapUsedKb);
   Add(moid_hostsystem, kMemSharedCommon, ts, memory.sharedCommonKb);
   Add(moid_hostsystem, kMemHeap, ts, memory.heapKb);
   Add(moid_hostsystem, kMemHeapFree, ts, memory.heapFreeKb);
   Add(moid_hostsystem, kMemState, ts, memory.state);
   Add(moid_hostsystem, kMemVmmemctl, ts, memory.balloonKb);
   Add(moid_hostsystem, kMemOverhead, ts, memory.overheadKb);
   Add(moid_hostsystem, kMemZero, ts, memory.zeroKb);
   Add(moid_hostsystem, kMemSwapIn, ts, memory.swapInKb);
   Add(moid_hostsystem, kMemSwapOut, ts, memory.swapOutKb);
   Add(moid_hostsystem, kMemSysUsage, ts, memory.sysUsageKb);
}

uint64_t HykStatsCollector::AddDiskStats(const std::string& entity, const std::string& instance,
                                         const HostCtl::Storage::StorageStatistics& statistics,
                                         uint64_t blockSizeBytes, TimeStamp ts)
{
   const uint64_t readKb = (statistics.blocksRead * blockSizeBytes) >> 10;
   const uint64_t writtenKb = (statistics.blocksWritten * blockSizeBytes) >> 10;
   Add(entity, kDiskRead, ts, readKb, instance);
   Add(entity, kDiskWrite, ts, writtenKb, instance);
   Add(entity, kDiskNumberRead, ts, statistics.readOperations, instance);
   Add(entity, kDiskNumberWrite, ts, statistics.writeOperations, instance);
   Add(entity, kDiskCommands, ts, statistics.commands, instance);
   Add(entity, kDiskCommandsAborted, ts, statistics.abortedCommands, instance);
   Add(entity, kDiskBusResets, ts, statistics.busResets, instance);
   return readKb + writtenKb;
}

void HykStatsCollector::CollectHostDiskStats(const LunVector& luns, int64_t sumCorrectionKb,
                                             TimeStamp ts)
{
   auto totalKb = static_cast<uint64_t>(sumCorrectionKb);
   for (HostCtl::Storage::DiskLun* const lun : luns) {
      totalKb += AddDiskStats(moid_hostsystem, lun->GetScsiName(), lun->GetStatistics(),
                              lun->GetBlockSizeBytes(), ts);
   }
   if (!luns.empty()) {
      Add(moid_hostsystem, kDiskUsage, ts, totalKb);
   }
}

uint64_t HykStatsCollector::AddPortStats(const std::string& entity, const std::string& instance,
                                         HostCtl::Network::Port* port, TimeStamp ts)
{
   // Of 32-bit figures the byte counters wrap at 4 GiB, before the shift.
   const uint64_t mask = _wideFigures ? ~uint64_t{0} : std::numeric_limits<uint32_t>::max();
   const HostCtl::Network::PortStatistics statistics = port->GetStatistics();
   const uint64_t receivedKb = (statistics.bytesReceived & mask) >> 10;
   const uint64_t sentKb = (statistics.bytesSent & mask) >> 10;
   Add(entity, kNetReceived, ts, receivedKb, instance);
   Add(entity, kNetTransmitted, ts, sentKb, instance);
   Add(entity, kNetPacketsRx, ts, statistics.packetsReceived & mask, instance);
   Add(entity, kNetPacketsTx, ts, statistics.packetsSent & mask, instance);
   return receivedKb + sentKb;
}

void HykStatsCollector::CollectHostNetworkStats(HostCtl::Host* host, TimeStamp ts)
{
   const PtrObj<HostCtl::Network::NetworkInfo> networkInfo(host->GetNetworkInfo());
   std::vector<std::unique_ptr<HostCtl::Network::PhysicalNic>> nics;
   for (HostCtl::Network::PhysicalNic* const nic : networkInfo->GetPhysicalNics()) {
      nics.emplace_back(nic);
   }
   // Not for sums that wrap: the correction is for counters that do not.
   uint64_t totalKb = _wideFigures ? static_cast<uint64_t>(networkInfo->GetSumCorrectionKb()) : 0;
   for (const auto& nic : nics) {
      const PtrObj<HostCtl::Network::Port> port(nic->GetUplinkPort());
      if (port != nullptr) {
         totalKb += AddPortStats(moid_hostsystem, nic->GetName(), port, ts);
      }
   }
   if (!nics.empty()) {
      Add(moid_hostsystem, kNetUsage, ts, totalKb);
   }
}

void HykStatsCollector::StartInt()
{
   StopInt(); // closes the readers of an earlier start
   Corvax::Application* const app = Corvax::Service::GetApp();
   _vmPowerStateListener = app->Subscribe(
      Guestsvc::MQ_VMEVENT_POWEROP, MakeFunctor(this, &HykStatsCollector::VmPowerStateListener));
   _vmUnregisterListener = app->Subscribe(
      Guestsvc::MQ_VM_UNREGISTER, MakeFunctor(this, &HykStatsCollector::EntityRemovedHandler));
   _resourcePoolDestroyedListener =
      app->Subscribe(AgentdCommon::MQ_RESOURCE_POOL_DESTROYED,
                     MakeFunctor(this, &HykStatsCollector::EntityRemovedHandler));
   _isCacheInitialized = false;
   _poweredOnVms.clear();
}

void HykStatsCollector::StopInt()
{
   for (Ref<Corvax::ChannelReader>* const reader :
        {&_vmPowerStateListener, &_vmUnregisterListener, &_resourcePoolDestroyedListener}) {
      if (*reader) {
         (*reader)->Close();
         *reader = nullptr;
      }
   }
}

void HykStatsCollector::InitCache(HostCtl::Host* host)
{
   const PtrObj<HostCtl::Hardware::HardwareInfo> hardware(host->GetHardwareInfo());
   const PtrObj<HostCtl::Hardware::CpuInfo> cpuInfo(hardware->GetCpuInfo());
   const PtrObj<HostCtl::Hardware::MemoryInfo> memoryInfo(hardware->GetMemoryInfo());
   std::vector<std::unique_ptr<HostCtl::Hardware::Cpu>> cpus;
   for (HostCtl::Hardware::Cpu* const cpu : cpuInfo->GetCpus()) {
      cpus.emplace_back(cpu);
   }
   if (cpus.empty()) {
      _logger->Log(kLogError,
                   "The kernel library reports no CPU of this host; the next run tries again");
      return;
   }
   // Without wide figures 8 bits on purpose: a host has at most 255 cores then.
   const uint32_t cores = cpuInfo->GetCoreCount();
   _numCpuCores = static_cast<int32_t>(
      _wideFigures ? cores : std::min<uint32_t>(cores, std::numeric_limits<uint8_t>::max()));
   _totalCpuMHz = static_cast<int64_t>(cpus.front()->GetSpeedHz() *
                                       static_cast<uint64_t>(_numCpuCores) / kHzPerMhz);
   _hostPhysicalMemoryKB = static_cast<int64_t>(memoryInfo->GetPhysicalBytes() >> 10);
   PopulateSystemResGroupList();
   PopulatePoweredOnVmList();
   _isCacheInitialized = true;
}

void HykStatsCollector::PopulatePoweredOnVmList()
{
   _poweredOnVms.clear();
   Ref<Guestsvc::Guestsvc> guestsvc;
   if (!Registry().TryLookupObject(AgentdCommon::moid_guestsvc, guestsvc)) {
      _logger->Log(kLogWarning,
                   "Unable to lookup guestsvc object. Failed to populate powered on VMs list");
      return;
   }
   Ref<Plexa::DataArray<MoRef>> vms;
   guestsvc->GetPoweredOnVms(vms);
   if (!vms) {
      return;
   }
   for (const Ref<MoRef>& vm : *vms) {
      AddPoweredOnVm(vm->GetId());
   }
}

void HykStatsCollector::AddPoweredOnVm(const std::string& vmId)
{
   _logger->Log(kLogInfo, "Adding vm %1 to poweredOnVms list", vmId);
   _poweredOnVms.insert(vmId);
}

void HykStatsCollector::RemovePoweredOnVm(const std::string& vmId)
{
   _logger->Log(kLogInfo, "Removing vm %1 from poweredOnVms list", vmId);
   _poweredOnVms.erase(vmId);
}

void HykStatsCollector::VmPowerStateListener(Corvax::ChannelReader* reader, Corvax::Object* object)
{
   const Corvax::Locker lock(this);
   const auto* const message = dynamic_cast<Guestsvc::VmPowerOpMsg*>(object);
   if (reader != _vmPowerStateListener.Get() || message == nullptr) {
      return;
   }
   _logger->Log(kLogDebug, "Received notification %1 %2", message->operation, message->result);
   const std::string& vmId = message->vm->GetId();
   Ref<Vm> vm;
   if (Registry().TryLookupObject(vmId, vm) &&
       vm->GetRuntime()->GetPowerState() == Quen::Vm::PowerState::POWERED_ON) {
      AddPoweredOnVm(vmId);
   } else {
      RemovePoweredOnVm(vmId);
   }
}

/// Keeps the id of an unregistered virtual machine in _poweredOnVms until a power notification or
/// the next start, on purpose: runs skip it because its lookup fails.
void HykStatsCollector::EntityRemovedHandler(Corvax::ChannelReader* reader, Corvax::Object* object)
{
   const Corvax::Locker lock(this);
   std::string entityId;
   if (const auto* const vmGone = dynamic_cast<Guestsvc::VmUnregisterMsg*>(object);
       vmGone && reader == _vmUnregisterListener.Get()) {
      entityId = vmGone->vm->GetId();
   } else if (const auto* const poolGone =
                 dynamic_cast<AgentdCommon::ResourcePoolDestroyedMsg*>(object);
              poolGone && reader == _resourcePoolDestroyedListener.Get()) {
      entityId = poolGone->poolId;
   }
   if (entityId.empty()) {
      return;
   }
   const Corvax::Locker depotLock(_statsDepot.Get());
   _logger->Log(kLogInfo, "EntityRemovedListener: Deleting stats for entity %1", entityId);
   _statsDepot->DeleteEntityStats(entityId);
}

} // namespace Metrix
