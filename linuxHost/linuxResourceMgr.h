#pragma once

#include "hostsvc/resourceMgr.h"
#include "linuxHost/groupWatcher.h"
#include "linuxHost/linuxVms.h"

namespace LinuxHost {

/// The resource manager of this machine: resource pools and system groups from the kernel's control
/// groups, virtual machines from the hypervisor's newest snapshot, their processes and their
/// control groups. docs/operations.md has every figure with its source.
///
/// Everything given outlives it; `root` goes before the path of every kernel file.
/// Errors: what is gone or cannot be read has no record; no operation throws for it.
/// Locking: besides the object's own lock one for the readers; one at a time is served.
Corvax::Ref<Hostsvc::ResourceMgr>
NewLinuxResourceMgr(const std::string& root, const Inventory::Inventory& inventory,
                    const LinuxVms& vms, const SnapshotSource& snapshots,
                    const GroupWatcher& groups, Corvax::Logger* logger);

} // namespace LinuxHost
