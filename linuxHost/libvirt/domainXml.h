#pragma once

#include "linuxHost/hypervisor.h"

#include <string_view>

namespace LinuxHost {

/// Reads libvirt's XML of a domain: all of the description but the power state, which the XML does
/// not have.
///
/// What is missing or malformed beside the UUID is left out or 0; memory of more than 64 bits of
/// bytes comes out as the largest that fits. Throws HostCtl::Lib::HostCtlException when the text is
/// no XML, no domain or has no UUID.
VmDescription ParseDomainXml(std::string_view xml);

} // namespace LinuxHost
