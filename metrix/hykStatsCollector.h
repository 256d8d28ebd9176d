#pragma once

#include "corvax/channel.h"
#include "guestsvc/guestsvc.h"
#include "hostctl/host.h"
#include "hostsvc/resourceMgr.h"
#include "metrix/baseStatsCollector.h"

#include <set>
#include <string>
#include <vector>

namespace Metrix {

/// The production collector: samples the host, its powered-on virtual machines, resource pools and
/// system groups through the kernel library and the agent's services. Messages on the agent's
/// channels report power operations and removed entities.
///
/// Sources: hykStatsCollector.cpp has set-up, listeners and the host, hykStatsCollectorVm.cpp
/// virtual machines, hykStatsCollectorGroups.cpp resource pools, system groups and CPU load.
/// Locking: channel handlers and runs hold the collector's lock. Inside it, a virtual machine is
/// locked for its own steps, the resource manager to list its groups and the depot to write.
/// Errors: a failure that ends a run is logged, and the samples taken before it are kept.
class HykStatsCollector : public BaseStatsCollector {
public:
   /// Without `wideFigures` ports have counters of 32 bits and a host at most 255 cores, as the
   /// stored figures of older depots.
   HykStatsCollector(Corvax::Logger* logger, StatsMetadata* metadata, StatsDepot* depot,
                     int interval, bool wideFigures = false);

protected:
   ~HykStatsCollector() override;

   void CollectStats(int64_t timeStamp) override;
   void StartInt() override;
   void StopInt() override;

private:
   using MoRef = Plexa::MoRef;
   using ResourceMgr = Hostsvc::ResourceMgr;
   using Vm = Guestsvc::HaVirtualMachine;
   using LunVector = std::vector<HostCtl::Storage::DiskLun*>;
   using EthernetCard = Quen::Vm::Device::VirtualEthernetCard;
   class DiskLuns;

   void CollectAll(TimeStamp ts);
   void CollectHostCpuStats(HostCtl::Resource::ResourceInfo* resourceInfo, TimeStamp ts);
   void CollectHostCapacityStats(const HostCtl::Resource::HostCapacity& capacity, TimeStamp ts);
   void CollectHostMemStats(HostCtl::Resource::ResourceInfo* resourceInfo, TimeStamp ts);
   void CollectHostDiskStats(const LunVector& luns, int64_t sumCorrectionKb, TimeStamp ts);
   void CollectHostNetworkStats(HostCtl::Host* host, TimeStamp ts);

   /// Samples a virtual machine under its lock. False if its state does not permit sampling.
   bool CollectVmStats(ResourceMgr* resourceMgr, Vm* vm, TimeStamp ts);
   void CollectVmCpuStats(ResourceMgr* resourceMgr, Vm* vm, TimeStamp ts);
   void CollectVmMemStats(ResourceMgr* resourceMgr, Vm* vm, int64_t memoryMb, TimeStamp ts);
   void CollectVmNetworkStats(Vm* vm, Quen::Vm::ConfigInfo* config, TimeStamp ts);
   void CollectVmCards(Vm* vm, const Corvax::RefVector<EthernetCard>& cards, TimeStamp ts);
   void CollectAllVmDiskStats(const Corvax::RefVector<Vm>& vms, const LunVector& luns,
                              TimeStamp ts);

   void CollectResourcePoolStats(ResourceMgr* resourceMgr, TimeStamp ts);
   void CollectResourcePoolStats(ResourceMgr* resourceMgr, MoRef* pool, TimeStamp ts);
   void AddResourcePoolStats(const std::string& poolId, HostCtl::Resource::CpuStats* cpu,
                             HostCtl::Resource::MemoryStats* mem, TimeStamp ts);
   void PopulateSystemResGroupList();
   static void AddSystemResGroupTree(const Quen::Host::SystemResourceInfo* node,
                                     std::vector<std::string>& list);
   void CollectSystemResGroupStats(ResourceMgr* resourceMgr, TimeStamp ts);
   void CollectCpuLoadStats(HostCtl::Resource::ResourceGroup* group, const std::string& entity,
                            TimeStamp ts);
   void CollectVmCpuLoadStats(ResourceMgr* resourceMgr, Vm* vm, TimeStamp ts);
   void AddCpuLoadStats(const std::string& entity, TimeStamp ts,
                        const HostCtl::Resource::CpuLoadHistory& history);

   void InitCache(HostCtl::Host* host);
   void PopulatePoweredOnVmList();
   void AddPoweredOnVm(const std::string& vmId);
   void RemovePoweredOnVm(const std::string& vmId);
   void VmPowerStateListener(Corvax::ChannelReader* reader, Corvax::Object* object);
   void EntityRemovedHandler(Corvax::ChannelReader* reader, Corvax::Object* object);

   /// Adds a sample without an upper bound.
   void Add(const std::string& entity, int counterId, TimeStamp ts, StatVal value,
            const std::string& instance = StatsMetadata::AggregateInstanceId)
   {
      AddSample(entity, counterId, ts, value, instance, 0);
   }
   /// Adds the seven samples of a disk. Returns the sum of KB read and KB written.
   uint64_t AddDiskStats(const std::string& entity, const std::string& instance,
                         const HostCtl::Storage::StorageStatistics& statistics,
                         uint64_t blockSizeBytes, TimeStamp ts);
   /// Adds the four samples of a port. Returns the sum of KB received and KB sent.
   uint64_t AddPortStats(const std::string& entity, const std::string& instance,
                         HostCtl::Network::Port* port, TimeStamp ts);
   /// CPU time in MHz x seconds: its growth per second is the use in MHz.
   uint64_t ToMhz(uint64_t usedUs) const;
   void AssertCpuCache() const;

   const bool _wideFigures;
   std::set<std::string> _poweredOnVms;          ///< ids
   std::vector<std::string> _systemResGroupList; ///< keys, parents before children
   int32_t _numCpuCores = 0;
   int64_t _totalCpuMHz = 0;
   int64_t _hostPhysicalMemoryKB = 0;
   bool _isCacheInitialized = false; ///< the members above have been filled since Start
   Corvax::Ref<Corvax::ChannelReader> _vmPowerStateListener;
   Corvax::Ref<Corvax::ChannelReader> _vmUnregisterListener;
   Corvax::Ref<Corvax::ChannelReader> _resourcePoolDestroyedListener;
   Corvax::Ref<ResourceMgr> _resourceMgr; ///< set during a run
};

} // namespace Metrix
