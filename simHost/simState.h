#pragma once

#include "corvax/object.h"
#include "simHost/simOptions.h"
#include "simHost/simParts.h"

#include <array>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace SimHost {

constexpr char kRootPoolId[] = "ha-root-pool";

/// VMs and pools are numbered from 1 ("vm-0001", "pool-01"), disks and NICs from 0.
std::string GetVmId(uint64_t number);
std::string GetPoolId(uint64_t number);
std::string GetDiskName(uint64_t index);
std::string GetNicName(uint64_t index);

/// The keys of the tree of system groups, parents before children. A key is the parent's key, "/"
/// and a name.
constexpr auto kSystemGroups = std::to_array<std::string_view>({
   "host",
   "host/kernel",
   "host/kernel/drivers",
   "host/kernel/network",
   "host/kernel/storage",
   "host/services",
   "host/services/agent",
   "host/services/log",
   "host/services/time",
   "host/user",
   "host/user/shell",
   "host/user/sessions",
});

/// Images of a virtual machine on disks of the host.
constexpr uint64_t kMostImages = 2;

/// The entities of a simulated host, registered or not, and the time of its figures.
///
/// Locking: none. Time, shapes and the host's parts change between runs only, on the thread of the
/// runs, which alone reads them; the rest never changes.
class SimState : public Corvax::ObjectImpl {
public:
   explicit SimState(SimOptions options);

   struct Vm {
      VmShape shape;
      uint64_t memoryKb = 0;
   };
   struct Pool {
      EntityKey key;
      uint64_t memoryKb = 0;
   };
   struct Device {
      std::string name;
      EntityKey key;
   };
   /// A virtual machine's image on a disk.
   struct Image {
      uint64_t vmIndex;
      uint64_t index; ///< among the images of the VM
   };
   struct Disk : Device {
      std::vector<Image> images; ///< of all VMs that ever have one on the disk
   };

   /// Sets the time of the figures to the current second.
   void UpdateTime();
   int64_t GetTimeSec() const { return _timeSec; }
   /// Of the virtual machines' figures: those may be late.
   int64_t GetVmTimeSec() const { return _vmTimeSec; }

   const SimOptions& GetOptions() const { return _options; }
   EntityKey GetHostKey() const { return _hostKey; }
   /// Those that the host ever has; GetDiskParts and GetNicParts say which are there.
   const std::vector<Disk>& GetDisks() const { return _disks; }
   const std::vector<Device>& GetNics() const { return _nics; }
   const SimParts& GetDiskParts() const { return _diskParts; }
   const SimParts& GetNicParts() const { return _nicParts; }
   /// Traffic of the disks and NICs that have left the host.
   int64_t GetRemovedDisksKb() const { return _removedDisksKb; }
   int64_t GetRemovedNicsKb() const { return _removedNicsKb; }
   /// `count` is at most the number at the start.
   void SetDisks(uint64_t count, int64_t timeSec);
   void SetNics(uint64_t count, int64_t timeSec);

   Vm& GetVm(uint64_t index) const { return _vms[index]; }
   /// Null for an id that no VM of this host ever has.
   Vm* FindVm(std::string_view id) const;
   /// The VM's index, or the number of VMs for an unknown id.
   uint64_t FindVmIndex(std::string_view id) const;
   /// Finds the root pool, too. Null for an id that no pool of this host ever has.
   const Pool* FindPool(std::string_view id) const;
   /// Null for an unknown key.
   const EntityKey* FindSystemGroup(std::string_view key) const;

   static int32_t GetWorldId(uint64_t vmIndex);
   static uint32_t GetPortId(uint64_t vmIndex, int32_t cardKey);
   static int32_t GetCardKey(uint64_t card);
   struct Card {
      const VmShape* vm = nullptr; ///< null: there is no such NIC at present
      uint64_t index = 0;
   };
   Card FindCard(uint32_t portId) const;

private:
   void PlaceImages();

   const SimOptions _options;
   const EntityKey _hostKey;
   const std::unique_ptr<Vm[]> _vms;
   std::vector<Pool> _pools; ///< the root pool first
   std::vector<Disk> _disks;
   std::vector<Device> _nics;
   SimParts _diskParts;
   SimParts _nicParts;
   int64_t _removedDisksKb = 0;
   int64_t _removedNicsKb = 0;
   std::array<EntityKey, kSystemGroups.size()> _systemGroups;
   int64_t _timeSec;
   int64_t _vmTimeSec;
};

} // namespace SimHost
