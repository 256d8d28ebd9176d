#pragma once

#include "linuxHost/hypervisor.h"
#include "linuxHost/kernel/blockDevices.h"

#include <functional>
#include <optional>
#include <string>

namespace LinuxHost {

/// Finds the disk of the host that holds a VM's image, under the name that DiskReader counts it by.
/// The answer is valid for as long as the image is in use. Not to be repeated in every run: access
/// to a file of a network file system that hangs may hang, too.
///
/// Cost: some links of /sys; /proc/self/mountinfo as well for a file system without a device.
/// Errors: HostCtl::Lib::HostCtlException when the mounts cannot be read.
/// Locking: none needed; it has no state.
class ImageLocator {
public:
   using Identify = std::function<std::optional<FileIdentity>(const std::string& path)>;

   /// `root` goes before the path of every file, images and device nodes too.
   explicit ImageLocator(std::string root, Identify identify = IdentifyFile);

   /// The kernel's name of the disk, "vda"; for a device made of several disks the first one's;
   /// "network" for an image on no disk of this host; "other" for everything else.
   std::string FindDisk(const VmDisk& disk) const;

private:
   std::string FindDiskOfFileSystem(const FileIdentity& identity) const;
   std::string FindDiskOfDevice(DeviceNumber device) const;

   const std::string _root;
   const Identify _identify;
};

} // namespace LinuxHost
