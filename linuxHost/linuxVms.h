#pragma once

#include "hostctl/network.h"
#include "hostctl/storage.h"
#include "inventory/inventory.h"
#include "linuxHost/imageLocator.h"
#include "linuxHost/linuxVm.h"

#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace LinuxHost {

/// The hypervisor's virtual machines: keeps the inventory as the hypervisor describes them, and
/// finds their processes, ports and images on this host.
///
/// Locking: its own, taken after a machine's and before the inventory's. One thread at a time may
/// call Replace, Update and Remove; any thread may call the others.
class LinuxVms {
public:
   /// Inventory and snapshots outlive it; `root` goes before the path of every kernel file.
   LinuxVms(const std::string& root, Inventory::Inventory& inventory,
            const SnapshotSource& snapshots, Corvax::Logger* logger);

   /// Updates all of these and unregisters all others except `kept`.
   void Replace(const std::vector<VmDescription>& descriptions,
                const std::set<std::string>& kept = {});
   /// For a virtual machine that is new or may have changed. What is known of its process and its
   /// images is not looked for again.
   void Update(const VmDescription& description);
   void Remove(const std::string& id);

   /// Null when there is no such VM.
   Corvax::Ref<LinuxVm> Find(const std::string& id) const;
   std::vector<Corvax::Ref<LinuxVm>> GetAll() const;

   /// Directions as seen by the VM. Unset for an unknown port and for that of a VM
   /// that is not in the newest snapshot.
   std::optional<HostCtl::Network::PortStatistics> GetPort(uint32_t portId) const;

   /// Traffic of the virtual machines by the host's disk that holds their images, with one record
   /// for a VM on a disk, in blocks of kBlockSizeBytes. Images that are not on a disk of the host
   /// count under "network" and "other".
   ///
   /// A record grows by the traffic of the images alone: one that moves to another disk, or appears
   /// or vanishes, does not change it otherwise. It stays for as long as the VM runs.
   std::map<std::string, std::vector<HostCtl::Storage::WorldStatistics>> GetDiskWorlds();

private:
   struct PortPlace {
      std::string vmId;
      std::string tap;
   };
   /// The traffic of a VM's disks since it started.
   struct DiskTraffic {
      int32_t startId = -1;
      std::vector<VmDiskFigures> last;
      std::map<std::string, VmDiskFigures> byHostDisk;
   };
   /// The processes of virtual machines, looked for when one is asked for.
   using Processes = std::optional<std::map<std::string, int32_t>>;

   void Update(const VmDescription& description, Processes& processes);
   std::shared_ptr<VmPlaces> FindPlaces(const VmDescription& description,
                                        Processes& processes) const;
   std::map<std::string, int32_t> FindProcesses() const;
   void FindProcess(VmPlaces& places, const VmPlaces& before, const std::string& id,
                    Processes& processes) const;
   void AssignPorts(const VmDescription& description, VmPlaces& places);
   void ForgetPorts(const std::string& vmId);
   static void AddTraffic(DiskTraffic& traffic, const VmFigures& figures, const VmPlaces& places);

   const std::string _root;
   Inventory::Inventory& _inventory;
   const SnapshotSource& _snapshots;
   const Corvax::Ref<Corvax::Logger> _logger;
   const ImageLocator _locator;
   mutable std::mutex _mutex;
   std::map<std::string, Corvax::Ref<LinuxVm>> _vms;
   std::map<uint32_t, PortPlace> _ports;
   uint32_t _lastPortId = 0;
   int32_t _lastWorldId = 0;
   std::mutex _trafficMutex;
   std::map<std::string, DiskTraffic> _traffic; // by VM
};

} // namespace LinuxHost
