#pragma once

#include "linuxHost/hypervisor.h"

#include <libvirt/libvirt.h>

#include <optional>
#include <span>

namespace LinuxHost {

/// Beyond what any hypervisor starts. Keeps a wrong number from becoming a vector's size.
constexpr uint32_t kHighestVcpuNumber = 16383;

/// Reads one domain's record of libvirt's bulk statistics, of the groups state, cpu, balloon, vcpu,
/// interface and block. Nothing for a domain that is not running and for a record that libvirt made
/// without asking the domain's monitor.
///
/// A field that is missing or no integer is 0, and so is a negative one. A card or disk without a
/// name is left out, and so is a disk without a single counter.
std::optional<VmFigures> ParseDomainStats(std::span<const virTypedParameter> record);

} // namespace LinuxHost
