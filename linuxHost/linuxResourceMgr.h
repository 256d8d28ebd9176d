#pragma once

#include "hostsvc/resourceMgr.h"
#include "linuxHost/groupWatcher.h"
#include "linuxHost/linuxVms.h"

namespace LinuxHost {

/// The resource manager of this machine: resource pools and system groups from the kernel's control
/// groups, virtual machines from the hypervisor's newest snapshot, their processes and their
/// control groups. docs/operations.md has every figure with its source.
///
/// All arguments outlive it; `root` goes before the path of every kernel file.
/// Errors: a group or process that is gone or cannot be read has no record; this is not an
/// exception. Locking: besides the object's own lock one for the readers, which serialises the
/// calls.
Corvax::Ref<Hostsvc::ResourceMgr>
NewLinuxResourceMgr(const std::string& root, const Inventory::Inventory& inventory,
                    const LinuxVms& vms, const SnapshotSource& snapshots,
                    const GroupWatcher& groups, Corvax::Logger* logger);

} // namespace LinuxHost
