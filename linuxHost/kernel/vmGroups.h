#pragma once

#include <string_view>

/// The paths of control groups as libvirt names them for virtual machines. Pure functions.
namespace LinuxHost {

/// Whether a name is that of a group that libvirt creates inside a virtual machine's.
bool IsInnerVmGroup(std::string_view name);

/// The path up to the virtual machine's own group.
std::string_view GetVmGroup(std::string_view path);

/// Whether a path is that of a virtual machine's own group: "machine-qemu...scope", in any slice
/// but the users', where anyone may create groups; without systemd "qemu-1-NAME.libvirt-qemu".
bool IsVmGroup(std::string_view path);

/// Whether a group is another one or inside it. False for an empty path.
bool IsBelowGroup(std::string_view path, std::string_view ancestorPath);

} // namespace LinuxHost
