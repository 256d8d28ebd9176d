#include "linuxHost/rights.h"

#include "corvax/format.h"
#include "hostctl/lib.h"
#include "linuxHost/kernel/blockDevices.h"
#include "linuxHost/kernel/directory.h"
#include "linuxHost/kernel/kernelFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <system_error>

namespace LinuxHost {

const std::vector<std::string> kImageDirectories = {"/home", "/var/lib/libvirt/images"};

namespace {

namespace fs = std::filesystem;

bool Exists(const fs::path& path)
{
   std::error_code ignored;
   return fs::exists(path, ignored);
}

bool IsRefused(const std::string& path, int mode)
{
   return ::faccessat(AT_FDCWD, path.c_str(), mode, AT_EACCESS) != 0 &&
          (errno == EACCES || errno == EPERM);
}

/// True when the host has disks with data, and none of them has a node.
bool LacksDiskNodes(const std::string& root)
{
   bool hasDisk = false;
   std::error_code failure;
   for (fs::directory_iterator entry(root + "/sys/block", failure), end; !failure && entry != end;
        entry.increment(failure)) {
      // Loop devices, RAM disks and the like are not attached to anything.
      if (!Exists(entry->path() / "device")) {
         continue;
      }
      std::string name = entry->path().filename().string();
      std::ranges::replace(name, '!', '/');
      if (Exists(root + "/dev/" + name)) {
         return false;
      }
      hasDisk = hasDisk || KernelFile(entry->path() / "size").ReadNumberIfPresent().value_or(0) > 0;
   }
   return hasDisk;
}

bool CanListGroups(const std::string& root)
{
   try {
      ListDirectory(root + "/sys/fs/cgroup", Entries::DIRECTORIES);
      return true;
   } catch (const HostCtl::Lib::HostCtlException&) {
      return false;
   }
}

} // namespace

std::vector<std::string> FindMissingRights(const std::string& root,
                                           const std::vector<std::string>& imageDirectories)
{
   std::vector<std::string> lines;
   const std::string init = root + "/proc/1";
   if (Exists(root + "/proc/self") && !Exists(init)) {
      lines.emplace_back(
         "The processes of other users are hidden: virtual machines have no cpu.system, "
         "mem.active, mem.usage, mem.swapped, mem.swapin, mem.swapout, sys.uptime "
         "and rescpu.*; set ProtectProc=default in the agent's unit, or mount /proc "
         "without hidepid");
   } else if (IsRefused(init + "/ksm_merging_pages", R_OK)) {
      lines.emplace_back("Merged pages of other users' processes cannot be read: mem.shared and "
                         "mem.zero of virtual machines and pools are 0; set "
                         "AmbientCapabilities=CAP_DAC_READ_SEARCH in the agent's unit");
   }
   if (!CanListGroups(root)) {
      lines.emplace_back("/sys/fs/cgroup cannot be listed: the figures of control groups are "
                         "missing, those of resource pools and rescpu.* of virtual machines "
                         "among them; remove it from InaccessiblePaths of the agent's unit");
   }
   if (LacksDiskNodes(root)) {
      lines.emplace_back("/dev has no nodes of the disks: disk.* of images on block devices and on "
                         "btrfs count under \"other\"; set PrivateDevices=no in the agent's unit");
   }
   for (const std::string& directory : imageDirectories) {
      if (IsRefused(root + directory, X_OK)) {
         lines.push_back(Corvax::Format("%1 cannot be searched: disk.* of images below it count "
                                        "under \"other\"; set ProtectHome=no in the agent's unit, "
                                        "or give its user the right to search it",
                                        directory));
      }
   }
   return lines;
}

} // namespace LinuxHost
