#include "linuxHost/imageLocator.h"

#include "corvax/format.h"
#include "linuxHost/kernel/kernelFile.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <string_view>
#include <system_error>
#include <utility>

namespace LinuxHost {

namespace {

namespace fs = std::filesystem;

constexpr char kNetworkDisk[] = "network";
constexpr char kOtherDisk[] = "other";

constexpr std::string_view kNetworkFileSystems[] = {"nfs",  "nfs4",           "cifs", "smb3",
                                                    "ceph", "fuse.glusterfs", "9p",   "virtiofs"};

bool IsNetworkFileSystem(std::string_view type)
{
   return std::find(std::begin(kNetworkFileSystems), std::end(kNetworkFileSystems), type) !=
          std::end(kNetworkFileSystems);
}

/// One of those that the device is made of, the same at each call; empty for a device that is not
/// made of others.
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

/// In /sys a "!" stands for the "/" of a name.
std::string KernelName(const fs::path& device)
{
   std::string name = device.filename().string();
   std::replace(name.begin(), name.end(), '!', '/');
   return name;
}

} // namespace

std::optional<FileIdentity> IdentifyFile(const std::string& path)
{
   struct statx status = {};
   // Only what does not change is asked for: no need to wait for a server.
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

ImageLocator::ImageLocator(std::string root, Identify identify)
   : _root(std::move(root)), _identify(std::move(identify))
{
}

std::string ImageLocator::FindDisk(const VmDisk& disk) const
{
   if (disk.image == VmDisk::Image::NETWORK) {
      return kNetworkDisk;
   }
   if (disk.image == VmDisk::Image::NONE) {
      return kOtherDisk;
   }
   const std::optional<FileIdentity> identity = _identify(_root + disk.path);
   if (!identity) {
      return kOtherDisk;
   }
   if (identity->device) {
      return FindDiskOfDevice(*identity->device);
   }
   // A node that is not a block device's has no place to look for.
   return disk.image == VmDisk::Image::FILE ? FindDiskOfFileSystem(*identity) : kOtherDisk;
}

std::string ImageLocator::FindDiskOfFileSystem(const FileIdentity& identity) const
{
   if (identity.fileSystem.majorNumber != 0) {
      return FindDiskOfDevice(identity.fileSystem);
   }
   KernelFile file(_root + "/proc/self/mountinfo");
   const std::vector<MountedFileSystem> mounts = ParseMountInfo(file.ReadIfPresent().value_or(""));
   // Files of btrfs have a device number for each subvolume, which no mount shows: only the mount's
   // own number finds it.
   const auto mount = std::find_if(mounts.begin(), mounts.end(), [&identity](const auto& one) {
      return identity.mountId ? one.mountId == *identity.mountId
                              : one.device == identity.fileSystem;
   });
   if (mount == mounts.end()) {
      return kOtherDisk;
   }
   if (IsNetworkFileSystem(mount->type)) {
      return kNetworkDisk;
   }
   const std::optional<FileIdentity> source =
      mount->source.starts_with("/dev/") ? _identify(_root + mount->source) : std::nullopt;
   return source && source->device ? FindDiskOfDevice(*source->device) : kOtherDisk;
}

std::string ImageLocator::FindDiskOfDevice(DeviceNumber device) const
{
   constexpr size_t kMaxDepth = 16;
   std::error_code failure;
   fs::path directory = fs::canonical(
      Corvax::Format("%1/sys/dev/block/%2:%3", _root, device.majorNumber, device.minorNumber),
      failure);
   for (size_t depth = 0; !failure && depth < kMaxDepth; ++depth) {
      std::error_code ignored;
      if (fs::exists(directory / "partition", ignored)) {
         directory = directory.parent_path();
      }
      const fs::path member = FindMember(directory);
      if (member.empty()) {
         return KernelName(directory);
      }
      directory = fs::canonical(member, failure);
   }
   return kOtherDisk;
}

} // namespace LinuxHost
