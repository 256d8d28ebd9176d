#pragma once

#include "inventory/inventory.h"
#include "linuxHost/hypervisor.h"
#include "linuxHost/kernel/qemuProcess.h"
#include "linuxHost/snapshotPoller.h"

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace LinuxHost {

/// Where on this host the parts of a running virtual machine are. Immutable.
struct VmPlaces {
   struct Disk {
      std::string target;   ///< as the guest's bus has it
      std::string hostDisk; ///< the host's disk that holds the image
   };
   struct Card {
      int32_t key = 0; ///< the device key
      uint32_t portId = 0;
      std::string tap;
   };

   std::shared_ptr<QemuProcess> process; ///< null when there is none to be found
   int32_t pid = -1;
   std::string groupPath; ///< its control group; empty for none
   uint64_t startUs = 0;  ///< of the process, since the host's start; 0: not known
   std::vector<Disk> disks;
   std::vector<Card> cards; ///< those that are on a tap
};

/// A virtual machine of the hypervisor in the agent's inventory.
///
/// Locking: as the base class; what it keeps itself is behind a leaf lock too.
class LinuxVm : public Inventory::VmObject {
public:
   /// Inventory and snapshots outlive it.
   LinuxVm(const std::string& id, const Inventory::Inventory& inventory,
           const SnapshotSource& snapshots, Corvax::Logger* logger);

   /// The pool of its partition; the root pool for as long as the host has no such group.
   Corvax::Ref<Plexa::MoRef> GetParent() override;

   /// Powered on and in the newest snapshot. Says so in the log when a running machine is missing
   /// there twice in a row, and when it is back.
   bool IsStatsAvailable() override;
   /// How often the guest's balloon driver has reported, as far as it was seen.
   uint64_t GetHeartbeatCount() override;
   /// The process that runs it.
   int32_t GetWorldId() override;
   /// 0, which is no port, for a card without one.
   uint32_t GetPortId(Quen::Vm::Device::VirtualEthernetCard* card) override;

   void SetPoolId(const std::string& poolId);
   void SetPlaces(std::shared_ptr<const VmPlaces> places);
   std::shared_ptr<const VmPlaces> GetPlaces() const;

private:
   const Inventory::Inventory& _inventory;
   const SnapshotSource& _snapshots;
   const Corvax::Ref<Corvax::Logger> _logger;
   mutable std::mutex _placesMutex;
   std::string _poolId;
   std::shared_ptr<const VmPlaces> _places;
   // Of the thread that samples it, under the object's lock.
   uint64_t _runsMissed = 0;
   uint64_t _heartbeatCount = 0;
   uint64_t _lastReportSec = 0;
};

} // namespace LinuxHost
