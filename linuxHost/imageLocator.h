#pragma once

#include "linuxHost/hypervisor.h"
#include "linuxHost/kernel/groupParsers.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace LinuxHost {

/// What the kernel says of a file, or of the device that a node stands for.
struct FileIdentity {
   DeviceNumber fileSystem;            ///< major 0: the file system has no one device
   std::optional<uint64_t> mountId;    ///< unset before Linux 5.8
   std::optional<DeviceNumber> device; ///< of a block device's node
};

/// Nothing when the file cannot be looked at.
std::optional<FileIdentity> IdentifyFile(const std::string& path);

/// Which of the host's disks, as DiskReader counts them, holds an image. The answer lasts as long
/// as the image is used, so it need not be asked at each pass; and that would not do, as looking at
/// a file of a network file system that hangs may hang too.
///
/// Cost: some links of /sys; /proc/self/mountinfo as well for a file system without a device.
/// Errors: HostCtl::Lib::HostCtlException when the mounts cannot be read.
/// Locking: none needed; it has no state.
class ImageLocator {
public:
   using Identify = std::function<std::optional<FileIdentity>(const std::string& path)>;

   /// `root` goes before the path of every file, images and device nodes too.
   explicit ImageLocator(std::string root, Identify identify = IdentifyFile);

   /// The kernel's name of the disk, "vda"; of a device made of several the first one's; "network"
   /// for an image on no disk of this host; "other" for all else.
   std::string FindDisk(const VmDisk& disk) const;

private:
   std::string FindDiskOfFileSystem(const FileIdentity& identity) const;
   std::string FindDiskOfDevice(DeviceNumber device) const;

   const std::string _root;
   const Identify _identify;
};

} // namespace LinuxHost
