#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace LinuxHost {

struct DeviceNumber {
   uint32_t majorNumber = 0;
   uint32_t minorNumber = 0;

   bool operator==(const DeviceNumber&) const = default;
};

/// One line of /proc/self/mountinfo.
struct MountedFileSystem {
   uint64_t mountId = 0;
   DeviceNumber device; ///< major 0: the file system is on no device, or on several
   std::string_view type;
   std::string source; ///< free text; the device's node where there is a device
};

/// Any text is accepted: a malformed line is left out. Types point into the text.
std::vector<MountedFileSystem> ParseMountInfo(std::string_view mountInfo);

} // namespace LinuxHost
