#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

/// Parsers of control group files. Pure functions.
///
/// Any text is accepted: what is missing or malformed is unset in the result, and a number of more
/// than 64 bits becomes the largest one.
namespace LinuxHost {

/// cpu.stat of a group, including the groups below it.
struct GroupCpuStat {
   std::optional<uint64_t> usageUs;
   std::optional<uint64_t> systemUs;
   std::optional<uint64_t> throttledUs; ///< version 2, where it has the cpu controller
   std::optional<uint64_t> throttledNs; ///< version 1, which has none of the others
};

GroupCpuStat ParseGroupCpuStat(std::string_view cpuStat);

/// memory.stat of a group, including the groups below it.
struct GroupMemoryStat {
   std::optional<uint64_t> anonBytes;
   std::optional<uint64_t> shmemBytes;
   std::optional<uint64_t> activeAnonBytes;
   std::optional<uint64_t> activeFileBytes;
   std::optional<uint64_t> swapBytes;    ///< version 1; version 2 has a file of its own for it
   std::optional<uint64_t> swapInPages;  ///< version 2 of newer kernels
   std::optional<uint64_t> swapOutPages; ///< likewise
};

GroupMemoryStat ParseGroupMemoryStat(std::string_view memoryStat);
/// Version 1, where the figures that include the groups below have other names.
GroupMemoryStat ParseGroupMemoryStatV1(std::string_view memoryStat);

/// Microseconds during which at least one task had to wait, from a group's cpu.pressure or
/// /proc/pressure/cpu.
std::optional<uint64_t> ParsePressureUs(std::string_view cpuPressure);

} // namespace LinuxHost
