#pragma once

#include "corvax/object.h"
#include "simHost/simFigures.h"
#include "simHost/simOptions.h"

#include <array>
#include <atomic>
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

/// The entities of a simulated host, registered or not, and the time of its figures. Only that time
/// and the two flags of a VM ever change.
///
/// Locking: none needed; what changes is atomic.
class SimState : public Corvax::ObjectImpl {
public:
   explicit SimState(SimOptions options);

   struct Vm {
      EntityKey key;
      uint64_t memoryKb = 0;
      std::atomic<bool> isStuck = false;   ///< cannot be sampled, as if its monitor hung
      std::atomic<bool> isFailing = false; ///< has no memory figures, and its ports cannot be read
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
      int32_t worldId;
      EntityKey key;
   };
   struct Disk : Device {
      std::vector<Image> images;
   };

   /// Sets the time of the figures to the current second.
   void UpdateTime();
   int64_t GetTimeSec() const { return _timeSec.load(std::memory_order_relaxed); }

   const SimOptions& GetOptions() const { return _options; }
   EntityKey GetHostKey() const { return _hostKey; }
   const std::vector<Disk>& GetDisks() const { return _disks; }
   const std::vector<Device>& GetNics() const { return _nics; }

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
      const Vm* vm = nullptr; ///< null: the port is not a VM's
      EntityKey key;
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
   std::array<EntityKey, kSystemGroups.size()> _systemGroups;
   std::atomic<int64_t> _timeSec;
};

} // namespace SimHost
