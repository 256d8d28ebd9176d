#pragma once

#include "linuxHost/hypervisor.h"

#include <libvirt/libvirt.h>

#include <optional>
#include <span>

namespace LinuxHost {

/// Far above the limit of any hypervisor. Keeps a wrong number from becoming a vector's size.
constexpr uint32_t kHighestVcpuNumber = 16383;

/// Parses one domain's record of libvirt's bulk statistics, with the groups of `parts` (VmParts):
/// of VM_BASICS state, cpu and interface, of VM_VCPUS state and vcpu, of VM_MONITOR state, balloon
/// and block. Unset for a domain that is not running. The basics are unset without a CPU time, the
/// monitor's part in a record that libvirt made without the domain's monitor. Id and times are the
/// caller's to add.
///
/// A field that is missing, not an integer or negative is 0. A NIC or disk without a name is left
/// out, and so is a disk without any counter.
std::optional<VmRecord> ParseDomainStats(std::span<const virTypedParameter> record, unsigned parts);

} // namespace LinuxHost
