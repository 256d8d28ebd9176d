#pragma once

#include "linuxHost/hypervisor.h"

#include <string_view>

namespace LinuxHost {

/// Parses libvirt's XML of a domain: the whole description except the power state, which is not in
/// the XML.
///
/// Anything but the UUID may be missing or malformed; it is then left out or 0. A memory size of
/// more than 64 bits becomes the largest. Throws HostCtl::Lib::HostCtlException when the text is
/// not XML, is not a domain or has no UUID.
VmDescription ParseDomainXml(std::string_view xml);

} // namespace LinuxHost
