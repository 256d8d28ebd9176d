#include "linuxHost/imageLocator.h"

#include "corvax/format.h"
#include "linuxHost/kernel/kernelFile.h"
#include "linuxHost/kernel/textParts.h"

#include <algorithm>
#include <iterator>
#include <string_view>
#include <utility>
#include <vector>

namespace LinuxHost {

namespace {

constexpr char kNetworkDisk[] = "network";
constexpr char kOtherDisk[] = "other";

constexpr std::string_view kNetworkFileSystems[] = {"nfs",  "nfs4",           "cifs", "smb3",
                                                    "ceph", "fuse.glusterfs", "9p",   "virtiofs"};

bool IsNetworkFileSystem(std::string_view type)
{
   return std::find(std::begin(kNetworkFileSystems), std::end(kNetworkFileSystems), type) !=
          std::end(kNetworkFileSystems);
}

} // namespace

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
      return FindDiskOfDevice(*identity->device, 0);
   }
   // A block device's path that leads to anything else has no disk.
   return disk.image == VmDisk::Image::FILE ? FindDiskOfFileSystem(*identity, 0) : kOtherDisk;
}

std::string ImageLocator::FindDiskOfFileSystem(const FileIdentity& identity, size_t depth) const
{
   if (identity.fileSystem.majorNumber != 0) {
      return FindDiskOfDevice(identity.fileSystem, depth);
   }
   KernelFile file(_root + "/proc/self/mountinfo");
   const std::vector<MountedFileSystem> mounts = ParseMountInfo(file.ReadIfPresent().value_or(""));
   // Files of btrfs have a device number for each subvolume, which is in no mount's line: only the
   // mount's id finds it.
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
   return source && source->device ? FindDiskOfDevice(*source->device, depth) : kOtherDisk;
}

std::string ImageLocator::FindDiskOfDevice(DeviceNumber device, size_t depth) const
{
   const std::vector<std::string> disks = FindWholeDisks(_root, device);
   if (disks.empty() || IsNumbered(disks.front(), "zram")) {
      return kOtherDisk;
   }
   return IsNumbered(disks.front(), "loop") ? FindDiskOfLoop(disks.front(), depth) : disks.front();
}

std::string ImageLocator::FindDiskOfLoop(const std::string& name, size_t depth) const
{
   constexpr size_t kMaxDepth = 8;
   KernelFile file(Corvax::Format("%1/sys/block/%2/loop/backing_file", _root, name));
   std::string_view text = file.ReadIfPresent().value_or("");
   const std::string path(TakePart(text, '\n'));
   const auto identity =
      path.empty() || depth == kMaxDepth ? std::nullopt : _identify(_root + path);
   if (!identity) {
      return kOtherDisk;
   }
   return identity->device ? FindDiskOfDevice(*identity->device, depth + 1)
                           : FindDiskOfFileSystem(*identity, depth + 1);
}

} // namespace LinuxHost
