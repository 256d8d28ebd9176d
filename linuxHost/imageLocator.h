#pragma once

#include "linuxHost/hypervisor.h"
#include "linuxHost/kernel/blockDevices.h"

#include <cstddef>
#include <functional>
#include <optional>
#include <string>

namespace LinuxHost {

/// Finds the disk of the host that holds a VM's image, under the name that DiskReader counts it by.
/// To be asked once for an image and not in every run: access to a file of a network file system
/// that hangs may hang, too. The caller keeps the answer while the VM has the image, so that its
/// traffic has one name even when a path of a multipath device fails.
///
/// Cost: some links of /sys; /proc/self/mountinfo as well for a file system without a device.
/// Errors: HostCtl::Lib::HostCtlException when mounts or a device's members cannot be read.
/// Locking: none needed; it has no state.
class ImageLocator {
public:
   using Identify = std::function<std::optional<FileIdentity>(const std::string& path)>;

   /// `root` goes before the path of every file, images and device nodes too.
   explicit ImageLocator(std::string root, Identify identify = IdentifyFile);

   /// The kernel's name of the disk, "vda"; for a device made of several disks and for a multipath
   /// device the first one's; for a loop device that of its file; "network" for an image on no disk
   /// of this host; "other" for everything else.
   std::string FindDisk(const VmDisk& disk) const;

private:
   std::string FindDiskOfFileSystem(const FileIdentity& identity, size_t depth) const;
   std::string FindDiskOfDevice(DeviceNumber device, size_t depth) const;
   std::string FindDiskOfLoop(const std::string& name, size_t depth) const;

   const std::string _root;
   const Identify _identify;
};

} // namespace LinuxHost
