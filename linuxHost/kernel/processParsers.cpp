#include "linuxHost/kernel/processParsers.h"

#include "linuxHost/kernel/textParts.h"

#include <limits>

namespace LinuxHost {

namespace {

bool IsHexDigit(char c)
{
   return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
}

/// 32 digits in lower case, with dashes after the 8th, 12th, 16th and 20th.
bool IsUuid(std::string_view text)
{
   constexpr size_t kUuidBytes = 36;
   if (text.size() != kUuidBytes) {
      return false;
   }
   for (size_t i = 0; i < kUuidBytes; ++i) {
      const bool isDashPlace = i == 8 || i == 13 || i == 18 || i == 23;
      if (isDashPlace ? text[i] != '-' : !IsHexDigit(text[i])) {
         return false;
      }
   }
   return true;
}

} // namespace

std::optional<int32_t> ParsePid(std::string_view name)
{
   const std::optional<uint64_t> pid = ParseNumber(name);
   const bool isPid = pid && *pid > 0 && *pid <= std::numeric_limits<int32_t>::max();
   return isPid ? std::optional(static_cast<int32_t>(*pid)) : std::nullopt;
}

std::vector<GroupMembership> ParseMemberships(std::string_view procCgroup)
{
   std::vector<GroupMembership> memberships;
   while (!procCgroup.empty()) {
      std::string_view path = TakePart(procCgroup, '\n');
      const std::string_view hierarchy = TakePart(path, ':');
      std::string_view controllers = TakePart(path, ':');
      if (!path.starts_with('/')) {
         continue;
      }
      if (controllers.empty() && hierarchy == "0") {
         memberships.push_back({{}, path});
      }
      while (!controllers.empty()) {
         memberships.push_back({TakePart(controllers, ','), path});
      }
   }
   return memberships;
}

std::optional<uint64_t> ParseStartTicks(std::string_view procStat)
{
   constexpr size_t kFieldsBetween = 19; // the 3rd to the 21st; the start is the 22nd
   // The 2nd is the program's name in parentheses, which may contain anything.
   const size_t nameEnd = procStat.rfind(") ");
   if (nameEnd == std::string_view::npos) {
      return std::nullopt;
   }
   procStat.remove_prefix(nameEnd + 2);
   for (size_t i = 0; i < kFieldsBetween; ++i) {
      TakePart(procStat, ' ');
   }
   std::string_view start = TakePart(procStat, ' ');
   return ParseNumber(TakePart(start, '\n'));
}

std::optional<uint64_t> ParseZeroPages(std::string_view ksmStat)
{
   struct KsmStat {
      std::optional<uint64_t> zeroPages;
   };
   constexpr KeyedNumber<KsmStat> kFields[] = {{"ksm_zero_pages", &KsmStat::zeroPages}};
   return ParseKeyedNumbers(ksmStat, kFields).zeroPages;
}

std::optional<uint64_t> ParseHugeKb(std::string_view procStatus)
{
   struct Status {
      std::optional<uint64_t> hugeKb;
   };
   constexpr KeyedNumber<Status> kFields[] = {{"HugetlbPages:", &Status::hugeKb}};
   return ParseKeyedNumbers(procStatus, kFields).hugeKb;
}

std::optional<std::string> ParseUuidArgument(std::string_view procCmdline)
{
   while (!procCmdline.empty()) {
      if (TakePart(procCmdline, '\0') == "-uuid") {
         const std::string uuid = LowerCase(TakePart(procCmdline, '\0'));
         return IsUuid(uuid) ? std::optional(uuid) : std::nullopt;
      }
   }
   return std::nullopt;
}

} // namespace LinuxHost
