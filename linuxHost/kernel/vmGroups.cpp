#include "linuxHost/kernel/vmGroups.h"

#include "linuxHost/kernel/textParts.h"

namespace LinuxHost {

namespace {

/// systemd escapes the dashes of the machine's name.
bool IsScopeOfVm(std::string_view name)
{
   return name.starts_with("machine-qemu\\x2d") && name.ends_with(".scope");
}

/// "qemu-1-NAME.libvirt-qemu".
bool IsPlainGroupOfVm(std::string_view name)
{
   constexpr std::string_view kStem = "qemu-";
   const size_t dash = name.find('-', kStem.size());
   return dash != std::string_view::npos && IsNumbered(name.substr(0, dash), kStem) &&
          name.ends_with(".libvirt-qemu");
}

} // namespace

bool IsInnerVmGroup(std::string_view name)
{
   return name == "emulator" || name == "libvirt" || IsNumbered(name, "vcpu") ||
          IsNumbered(name, "iothread");
}

std::string_view GetVmGroup(std::string_view path)
{
   for (size_t slash = path.rfind('/'); slash != 0 && slash != std::string_view::npos;
        slash = path.rfind('/')) {
      if (!IsInnerVmGroup(path.substr(slash + 1))) {
         break;
      }
      path = path.substr(0, slash);
   }
   return path;
}

bool IsVmGroup(std::string_view path)
{
   if (IsBelowGroup(path, "/user.slice") || IsBelowGroup(path, "/user")) {
      return false;
   }
   const std::string_view name = path.substr(path.rfind('/') + 1);
   return IsScopeOfVm(name) || IsPlainGroupOfVm(name);
}

bool IsBelowGroup(std::string_view path, std::string_view ancestorPath)
{
   if (ancestorPath == "/") {
      return !path.empty();
   }
   return !ancestorPath.empty() && path.starts_with(ancestorPath) &&
          (path.size() == ancestorPath.size() || path[ancestorPath.size()] == '/');
}

} // namespace LinuxHost
