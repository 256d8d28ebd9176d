#pragma once

#include "linuxHost/kernel/controlGroups.h"
#include "quen/inventory.h"

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

/// What the tree of control groups stands for: resource pools, and the host's other groups.
///
/// The machine group, "/machine.slice" or "/machine", is the root pool. Groups below it that are
/// made for a partition are pools, whether libvirt made them ("gold.partition") or systemd
/// ("machine-gold.slice"); virtual machines' groups and what is inside them are none.
namespace LinuxHost {

constexpr char kRootPoolId[] = "ha-root-pool";

/// Leaves room for the prefix that a group's key gets in a stat's name.
constexpr size_t kMaxGroupKeyBytes = 200;

struct PoolGroup {
   std::string id;   ///< "pool:gold/web", bounded
   std::string name; ///< "web"
   std::string parentId;
   std::string path; ///< "/machine/gold.partition/web.partition"
};

/// Parents before their children, without the root pool; no id twice: where two groups have the
/// same id the first is the pool. Groups more than 16 deep are left out.
std::vector<PoolGroup> FindPools(const ControlGroups& groups);

/// Id of the pool that FindPools makes of a virtual machine's partition, "/machine/gold/web" or
/// "/machine.slice/machine-gold.slice/machine-gold-web.slice". The root pool's for an empty one and
/// for one outside the machine group.
std::string PoolIdOfPartition(std::string_view partition);

/// Whether a group lies below a machine group, as a virtual machine's does; one that somebody
/// started by hand is in that user's group.
bool IsInMachineGroup(std::string_view path);

/// Path of the group behind the root pool; empty when there is none.
std::string FindMachinePath(const ControlGroups& groups);

struct SystemGroups {
   Corvax::Ref<Quen::Host::SystemResourceInfo> root;
   std::map<std::string, std::string> pathByKey; ///< also of the root, "/"
};

/// The host's groups but the machine group, two levels deep. A key is the group's path, bounded to
/// kMaxGroupKeyBytes.
SystemGroups FindSystemGroups(const ControlGroups& groups);

} // namespace LinuxHost
