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
/// Locking: its own, taken before the inventory's and the objects'. Replace, Update and Remove are
/// one thread's; any thread may call the rest.
class LinuxVms {
public:
   /// All but the options outlive it; `root` goes before the path of every kernel file.
   LinuxVms(const std::string& root, Inventory::Inventory& inventory,
            const SnapshotSource& snapshots, Corvax::Logger* logger);

   /// These are all there are: what is not among them is unregistered.
   void Replace(const std::vector<VmDescription>& descriptions);
   /// One that is new or has changed.
   void Update(const VmDescription& description);
   void Remove(const std::string& id);

   /// Null when there is none.
   Corvax::Ref<LinuxVm> Find(const std::string& id) const;
   std::vector<Corvax::Ref<LinuxVm>> GetAll() const;

   /// Counted from the guest's side, the low 32 bits. Nothing for an unknown port and one of a
   /// machine that is not in the newest snapshot.
   std::optional<HostCtl::Network::PortStatistics> GetPort(uint32_t portId) const;

   /// Traffic of each virtual machine by the host's disk that holds its images, one record a
   /// machine and disk, in blocks of kBlockSizeBytes. "network" and "other" stand for images that
   /// no disk of the host holds.
   std::map<std::string, std::vector<HostCtl::Storage::WorldStatistics>> GetDiskWorlds() const;

private:
   struct PortPlace {
      std::string vmId;
      std::string tap;
   };
   using Processes = std::map<std::string, int32_t>;

   void Update(const VmDescription& description, const Processes& processes);
   std::shared_ptr<VmPlaces> FindPlaces(const VmDescription& description,
                                        const Processes& processes) const;
   void AssignPorts(const VmDescription& description, VmPlaces& places);
   void FindProcess(VmPlaces& places, int32_t pid) const;
   void ForgetPorts(const std::string& vmId);

   const std::string _root;
   Inventory::Inventory& _inventory;
   const SnapshotSource& _snapshots;
   const Corvax::Ref<Corvax::Logger> _logger;
   const ImageLocator _locator;
   mutable std::mutex _mutex;
   std::map<std::string, Corvax::Ref<LinuxVm>> _vms;
   std::map<uint32_t, PortPlace> _ports;
   uint32_t _lastPortId = 0;
};

} // namespace LinuxHost
