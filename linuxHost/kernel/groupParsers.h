#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// Texts of control groups, processes and mounts, taken apart. Pure functions, as tolerant as those
/// of procParsers.h: what is missing or malformed is missing in the result, and a number of more
/// than 64 bits comes out as the largest one. Views in results are into the text.
namespace LinuxHost {

/// cpu.stat of a group, children included.
struct GroupCpuStat {
   std::optional<uint64_t> usageUs;
   std::optional<uint64_t> systemUs;
   std::optional<uint64_t> throttledUs; ///< where version 2 has the cpu controller
   std::optional<uint64_t> throttledNs; ///< the only one of these in version 1
};

GroupCpuStat ParseGroupCpuStat(std::string_view cpuStat);

/// memory.stat of a group, children included.
struct GroupMemoryStat {
   std::optional<uint64_t> anonBytes;
   std::optional<uint64_t> shmemBytes;
   std::optional<uint64_t> activeAnonBytes;
   std::optional<uint64_t> activeFileBytes;
   std::optional<uint64_t> swapBytes;    ///< version 1 only; version 2 has a file of its own
   std::optional<uint64_t> swapInPages;  ///< version 2 of newer kernels only
   std::optional<uint64_t> swapOutPages; ///< likewise
};

GroupMemoryStat ParseGroupMemoryStat(std::string_view memoryStat);
/// Version 1, whose figures with the children have names of their own.
GroupMemoryStat ParseGroupMemoryStatV1(std::string_view memoryStat);

/// Microseconds during which some task had to wait, from a group's cpu.pressure or
/// /proc/pressure/cpu.
std::optional<uint64_t> ParsePressureUs(std::string_view cpuPressure);

/// One group that a process is in.
struct GroupMembership {
   std::string_view controller; ///< empty: version 2, which has one tree for all
   std::string_view path;
};

/// /proc/PID/cgroup; a line of several controllers gives as many elements.
std::vector<GroupMembership> ParseMemberships(std::string_view procCgroup);

/// The start of a process since the host's, in clock ticks, from /proc/PID/stat.
std::optional<uint64_t> ParseStartTicks(std::string_view procStat);

/// Pages merged into the zero page, from /proc/PID/ksm_stat.
std::optional<uint64_t> ParseZeroPages(std::string_view ksmStat);

/// The value of the argument "-uuid" in lower case, from /proc/PID/cmdline; nothing when it is not
/// a UUID.
std::optional<std::string> ParseUuidArgument(std::string_view procCmdline);

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
   std::string source; ///< free text; mostly a device node where there is one
};

std::vector<MountedFileSystem> ParseMountInfo(std::string_view mountInfo);

} // namespace LinuxHost
