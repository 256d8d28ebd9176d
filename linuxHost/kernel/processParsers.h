#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// Parsers of the files in /proc/PID. Pure functions, as tolerant as those of groupParsers.h. Views
/// in results point into the text.
namespace LinuxHost {

/// The process id that a directory of /proc is named after; unset for any other name.
std::optional<int32_t> ParsePid(std::string_view name);

/// One group that a process is in.
struct GroupMembership {
   std::string_view controller; ///< empty: version 2, which has one tree for all
   std::string_view path;
};

/// /proc/PID/cgroup; a line with several controllers becomes several elements.
std::vector<GroupMembership> ParseMemberships(std::string_view procCgroup);

/// Time from the host's start to the process's, in clock ticks, from /proc/PID/stat.
std::optional<uint64_t> ParseStartTicks(std::string_view procStat);

/// Pages merged into the zero page, from /proc/PID/ksm_stat.
std::optional<uint64_t> ParseZeroPages(std::string_view ksmStat);

/// Memory in huge pages, in KB, from /proc/PID/status.
std::optional<uint64_t> ParseHugeKb(std::string_view procStatus);

/// The value of the argument "-uuid" in lower case, from /proc/PID/cmdline; unset when it is not a
/// UUID.
std::optional<std::string> ParseUuidArgument(std::string_view procCmdline);

} // namespace LinuxHost
