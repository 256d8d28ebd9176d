#include "linuxHost/kernel/blockDevices.h"

#include "corvax/format.h"
#include "linuxHost/kernel/directory.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <system_error>

namespace LinuxHost {

namespace {

namespace fs = std::filesystem;

/// The opposite of GetDeviceDirectory.
std::string GetDeviceName(const fs::path& directory)
{
   std::string name = directory.filename().string();
   std::replace(name.begin(), name.end(), '!', '/');
   return name;
}

/// `link` leads to the device's directory; nothing is added when it is gone, or was visited before.
void AddDisks(const fs::path& link, std::set<fs::path>& visited, std::vector<std::string>& disks)
{
   std::error_code failure;
   fs::path directory = fs::canonical(link, failure);
   if (failure) {
      return;
   }
   if (fs::exists(directory / "partition", failure)) {
      directory = directory.parent_path();
   }
   if (!visited.insert(directory).second) {
      return;
   }
   const fs::path slaves = directory / "slaves";
   const auto members = ListDirectory(slaves.string(), Entries::ALL);
   if (!members || members->empty()) {
      disks.push_back(GetDeviceName(directory));
      return;
   }
   for (const std::string& member : *members) {
      AddDisks(slaves / member, visited, disks);
   }
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

std::vector<std::string> FindWholeDisks(const std::string& root, DeviceNumber device)
{
   std::vector<std::string> disks;
   std::set<fs::path> visited;
   AddDisks(Corvax::Format("%1/sys/dev/block/%2:%3", root, device.majorNumber, device.minorNumber),
            visited, disks);
   return disks;
}

} // namespace LinuxHost
