#pragma once

#include "linuxHost/kernel/controlGroups.h"
#include "quen/inventory.h"

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

/// The tree of control groups as resource pools and the host's other groups.
///
/// The machine group, "/machine.slice" or "/machine", is the root pool. The groups of partitions
/// below it are pools, whether libvirt created them ("gold.partition") or systemd
/// ("machine-gold.slice"). Virtual machines' groups and those inside them are not.
namespace LinuxHost {

constexpr char kRootPoolId[] = "ha-root-pool";

/// Leaves room for the prefix of the key in a stat name.
constexpr size_t kMaxGroupKeyBytes = 200;

struct PoolGroup {
   std::string id;   ///< "pool:gold/web", bounded
   std::string name; ///< "web"
   std::string parentId;
   std::string path; ///< "/machine/gold.partition/web.partition"
};

/// Parents before their children, without the root pool. Where two groups have the same id, the
/// first is the pool. Groups more than 16 levels deep are left out. Errors:
/// HostCtl::Lib::HostCtlException when one cannot be listed.
std::vector<PoolGroup> FindPools(const ControlGroups& groups);

/// The pools of the host over several lookups. A pool is gone when two lookups in a row find that
/// its own group does not exist; one that merely was not listed stays.
///
/// Errors: HostCtl::Lib::HostCtlException when something cannot be looked up; nothing has changed
/// then. Locking: none; one thread at a time.
class PoolTracker {
public:
   struct Changes {
      std::vector<PoolGroup> present; ///< parents before their children
      std::vector<std::string> gone;  ///< ids
   };

   Changes LookUp(const ControlGroups& groups);

   /// Path of each pool's group by the pool's id; the root pool's is empty while it has none.
   const std::map<std::string, std::string>& GetPaths() const { return _paths; }

private:
   std::map<std::string, std::string> _paths{{kRootPoolId, ""}};
   std::set<std::string> _missing; // ids of those that the last lookup did not find
};

/// Id of the pool that FindPools finds for a virtual machine's partition, "/machine/gold/web" or
/// "/machine.slice/machine-gold.slice/machine-gold-web.slice". The root pool's for an empty
/// partition and for one outside the machine group.
std::string PoolIdOfPartition(std::string_view partition);

/// Path of the root pool's group; empty when there is none.
std::string FindMachinePath(const ControlGroups& groups);

struct SystemGroups {
   Corvax::Ref<Quen::Host::SystemResourceInfo> root;
   std::map<std::string, std::string> pathByKey; ///< including the root, "/"
};

/// The host's groups except the machine group, two levels deep. A key is the group's path, bounded
/// to kMaxGroupKeyBytes. Errors: HostCtl::Lib::HostCtlException when one cannot be listed.
SystemGroups FindSystemGroups(const ControlGroups& groups);

} // namespace LinuxHost
