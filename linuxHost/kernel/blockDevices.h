#pragma once

#include "linuxHost/kernel/mountInfo.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace LinuxHost {

/// Where a file is, or the device that a node stands for.
struct FileIdentity {
   DeviceNumber fileSystem;            ///< major 0: the file system is on no device, or on several
   std::optional<uint64_t> mountId;    ///< unset before Linux 5.8
   std::optional<DeviceNumber> device; ///< of a block device's node
};

/// Unset when the file does not exist or cannot be accessed.
std::optional<FileIdentity> IdentifyFile(const std::string& path);

/// Directory name in /sys of the block device that /proc/diskstats names: "cciss!c0d0" for
/// "cciss/c0d0".
std::string GetDeviceDirectory(std::string_view name);

/// Names of the whole disks below a device, "vda": through partitions, and for a device made of
/// several those of all of them, each once, in the order of their names: all disks of a volume, all
/// paths of a multipath device. Empty for an unknown device. `root` goes before the path of every
/// file. Errors: HostCtl::Lib::HostCtlException when the members cannot be listed.
std::vector<std::string> FindWholeDisks(const std::string& root, DeviceNumber device);

} // namespace LinuxHost
