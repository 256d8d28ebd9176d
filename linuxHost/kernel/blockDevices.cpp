#include "linuxHost/kernel/blockDevices.h"

#include "corvax/format.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <system_error>

namespace LinuxHost {

namespace {

namespace fs = std::filesystem;

/// One of the devices that the device is made of, the same at each call; empty for a device that is
/// not made of others.
fs::path FindMember(const fs::path& device)
{
   fs::path first;
   std::error_code failure;
   for (fs::directory_iterator member(device / "slaves", failure), end; !failure && member != end;
        member.increment(failure)) {
      if (first.empty() || member->path() < first) {
         first = member->path();
      }
   }
   return first;
}

/// The opposite of GetDeviceDirectory.
std::string GetDeviceName(const fs::path& directory)
{
   std::string name = directory.filename().string();
   std::replace(name.begin(), name.end(), '!', '/');
   return name;
}

} // namespace

std::optional<FileIdentity> IdentifyFile(const std::string& path)
{
   struct statx status = {};
   // Only attributes that do not change: no need to wait for a file server.
   constexpr int kFlags = AT_STATX_DONT_SYNC | AT_NO_AUTOMOUNT;
   if (statx(AT_FDCWD, path.c_str(), kFlags, STATX_TYPE | STATX_MNT_ID, &status) != 0) {
      return std::nullopt;
   }
   FileIdentity identity{{status.stx_dev_major, status.stx_dev_minor}, {}, {}};
   if (status.stx_mask & STATX_MNT_ID) {
      identity.mountId = status.stx_mnt_id;
   }
   if (S_ISBLK(status.stx_mode)) {
      identity.device = DeviceNumber{status.stx_rdev_major, status.stx_rdev_minor};
   }
   return identity;
}

std::string GetDeviceDirectory(std::string_view name)
{
   std::string directory(name);
   std::replace(directory.begin(), directory.end(), '/', '!');
   return directory;
}

std::optional<std::string> FindWholeDisk(const std::string& root, DeviceNumber device)
{
   constexpr size_t kMaxDepth = 16;
   std::error_code failure;
   fs::path directory = fs::canonical(
      Corvax::Format("%1/sys/dev/block/%2:%3", root, device.majorNumber, device.minorNumber),
      failure);
   for (size_t depth = 0; !failure && depth < kMaxDepth; ++depth) {
      std::error_code ignored;
      if (fs::exists(directory / "partition", ignored)) {
         directory = directory.parent_path();
      }
      const fs::path member = FindMember(directory);
      if (member.empty()) {
         return GetDeviceName(directory);
      }
      directory = fs::canonical(member, failure);
   }
   return std::nullopt;
}

} // namespace LinuxHost
