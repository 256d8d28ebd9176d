#pragma once

#include "hostsvc/resourceMgr.h"

namespace LinuxHost {

/// The resource manager of a machine whose groups and virtual machines are not read: there are no
/// pools below its root, no system groups and no virtual machines, and no figures of any.
Corvax::Ref<Hostsvc::ResourceMgr> NewLinuxResourceMgr();

} // namespace LinuxHost
