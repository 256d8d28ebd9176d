#pragma once

#include "linuxHost/hypervisor.h"

#include <libvirt/libvirt.h>

#include <optional>
#include <span>

namespace LinuxHost {

/// Far above the limit of any hypervisor. Keeps a wrong number from becoming a vector's size.
constexpr uint32_t kHighestVcpuNumber = 16383;

/// Parses one domain's record of libvirt's bulk statistics, with the groups state, cpu, balloon,
/// vcpu, interface and block. Unset for a domain that is not running and for a record that libvirt
/// made without the domain's monitor.
///
/// A field that is missing, not an integer or negative is 0. A NIC or disk without a name is left
/// out, and so is a disk without any counter.
std::optional<VmFigures> ParseDomainStats(std::span<const virTypedParameter> record);

} // namespace LinuxHost
