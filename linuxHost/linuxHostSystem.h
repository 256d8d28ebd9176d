#pragma once

#include "quen/inventory.h"

#include <string>

namespace LinuxHost {

/// This machine as a managed object with the given id; its name is the host name.
Corvax::Ref<Quen::HostSystem> NewLinuxHostSystem(const std::string& id);

} // namespace LinuxHost
