#pragma once

#include "quen/inventory.h"

#include <string>

namespace LinuxHost {

/// This machine in the inventory, under the given id; its name is the machine's host name.
Corvax::Ref<Quen::HostSystem> NewLinuxHostSystem(const std::string& id);

} // namespace LinuxHost
