#pragma once

#include "corvax/logger.h"
#include "inventory/inventory.h"
#include "linuxHost/hypervisor.h"
#include "linuxHost/kernel/qemuProcess.h"
#include "linuxHost/steadySum.h"
#include "linuxHost/vmHistory.h"

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace LinuxHost {

/// The parts of this host that belong to a running virtual machine. Immutable.
struct VmPlaces {
   struct Disk {
      std::string target;   ///< name on the VM's bus
      std::string path;     ///< of the image; empty for one that is no file and no device
      std::string hostDisk; ///< the host's disk that holds the image
   };
   struct Card {
      int32_t key = 0; ///< the device key
      uint32_t portId = 0;
      std::string tap;
   };

   std::shared_ptr<QemuProcess> process; ///< null when it was not found
   int32_t pid = -1;
   bool hasHugePages = false; ///< the guest's memory is in huge pages
   std::string groupPath;     ///< its control group; empty for none
   uint64_t startUs = 0;      ///< time from the host's start to the process's; 0: unknown
   std::vector<Disk> disks;
   std::vector<Card> cards; ///< those with a tap
};

/// A virtual machine of the hypervisor in the agent's inventory.
///
/// Locking: as in the base class; its own members have a leaf lock, too.
class LinuxVm : public Inventory::VmObject {
public:
   /// Inventory and snapshots outlive it.
   LinuxVm(const std::string& id, int32_t worldId, const Inventory::Inventory& inventory,
           const SnapshotSource& snapshots, Corvax::Logger* logger);

   /// The pool of its partition; the root pool while the host has no such group.
   Corvax::Ref<Plexa::MoRef> GetParent() override;

   Quen::Vm::Freshness GetFreshness() override;

   /// Powered on and in the collection's snapshot. Logs when a running machine is missing there in
   /// three consecutive runs, and when it is back.
   bool IsStatsAvailable() override;
   /// Number of reports of the guest's balloon driver that were seen.
   uint64_t GetHeartbeatCount() override;
   /// A number that is this machine's alone while the agent runs. Not the process's id, which not
   /// every agent may see.
   int32_t GetWorldId() override { return _worldId; }
   /// 0 for a NIC without a port.
   uint32_t GetPortId(Quen::Vm::Device::VirtualEthernetCard* card) override;

   int64_t GetNetworkSumCorrectionKb() override;

   void SetPoolId(const std::string& poolId);
   void SetPlaces(std::shared_ptr<const VmPlaces> places);
   std::shared_ptr<const VmPlaces> GetPlaces() const;

private:
   const int32_t _worldId;
   const Inventory::Inventory& _inventory;
   const SnapshotSource& _snapshots;
   const Corvax::Ref<Corvax::Logger> _logger;
   mutable std::mutex _placesMutex;
   std::string _poolId;
   std::shared_ptr<const VmPlaces> _places;
   // Used by the collector, under the object's lock.
   uint64_t _runsMissed = 0;
   uint64_t _heartbeatCount = 0;
   uint64_t _lastReportSec = 0;
   SteadySum _networkSum;
};

} // namespace LinuxHost
