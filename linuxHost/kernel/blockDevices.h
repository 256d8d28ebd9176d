#pragma once

#include "linuxHost/kernel/mountInfo.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

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

/// Name of the whole disk below a device, "vda": through partitions, and for a device made of
/// several the disk of the first one by name. Unset for an unknown device. `root` goes before the
/// path of every file.
std::optional<std::string> FindWholeDisk(const std::string& root, DeviceNumber device);

} // namespace LinuxHost
