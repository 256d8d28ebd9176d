#include "linuxHost/kernel/groupParsers.h"

#include "linuxHost/kernel/procParsers.h"
#include "linuxHost/kernel/takePart.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace LinuxHost {

namespace {

template <class Stat>
struct Field {
   std::string_view key;
   std::optional<uint64_t> Stat::* value;
};

constexpr Field<GroupCpuStat> kCpuFields[] = {
   {"usage_usec", &GroupCpuStat::usageUs},
   {"system_usec", &GroupCpuStat::systemUs},
   {"throttled_usec", &GroupCpuStat::throttledUs},
   {"throttled_time", &GroupCpuStat::throttledNs},
};

constexpr Field<GroupMemoryStat> kMemoryFields[] = {
   {"anon", &GroupMemoryStat::anonBytes},
   {"shmem", &GroupMemoryStat::shmemBytes},
   {"active_anon", &GroupMemoryStat::activeAnonBytes},
   {"active_file", &GroupMemoryStat::activeFileBytes},
   {"pswpin", &GroupMemoryStat::swapInPages},
   {"pswpout", &GroupMemoryStat::swapOutPages},
};

constexpr Field<GroupMemoryStat> kMemoryFieldsV1[] = {
   {"total_rss", &GroupMemoryStat::anonBytes},
   {"total_shmem", &GroupMemoryStat::shmemBytes},
   {"total_active_anon", &GroupMemoryStat::activeAnonBytes},
   {"total_active_file", &GroupMemoryStat::activeFileBytes},
   {"total_swap", &GroupMemoryStat::swapBytes},
};

/// Lines of a key, a blank and a number.
template <class Stat, size_t Count>
Stat ParseFields(std::string_view text, const Field<Stat> (&fields)[Count])
{
   Stat stat;
   while (!text.empty()) {
      std::string_view line = TakePart(text, '\n');
      const std::string_view key = TakePart(line, ' ');
      for (const Field<Stat>& field : fields) {
         if (field.key == key) {
            stat.*field.value = ParseNumberFile(line);
            break;
         }
      }
   }
   return stat;
}

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

/// Takes "254:1".
std::optional<DeviceNumber> ParseDeviceNumber(std::string_view text)
{
   constexpr uint64_t kLargest = std::numeric_limits<uint32_t>::max();
   const std::optional<uint64_t> majorNumber = ParseNumberFile(TakePart(text, ':'));
   const std::optional<uint64_t> minorNumber = ParseNumberFile(text);
   if (!majorNumber || !minorNumber || *majorNumber > kLargest || *minorNumber > kLargest) {
      return std::nullopt;
   }
   return DeviceNumber{static_cast<uint32_t>(*majorNumber), static_cast<uint32_t>(*minorNumber)};
}

/// The kernel writes blanks, line ends and backslashes of a mount's texts as three octal digits.
std::string UnescapeOctal(std::string_view text)
{
   constexpr size_t kDigits = 3;
   std::string plain;
   while (!text.empty()) {
      const std::string_view digits = text.substr(1, kDigits);
      if (text[0] == '\\' && digits.size() == kDigits && digits[0] <= '3' &&
          digits.find_first_not_of("01234567") == std::string_view::npos) {
         plain +=
            static_cast<char>((digits[0] - '0') * 64 + (digits[1] - '0') * 8 + digits[2] - '0');
         text.remove_prefix(1 + kDigits);
      } else {
         plain += text[0];
         text.remove_prefix(1);
      }
   }
   return plain;
}

/// Fields: mount, its parent, device, root, mount point, options, as many more as the kernel likes,
/// a dash, type, source, options.
std::optional<MountedFileSystem> ParseMount(std::string_view line)
{
   const std::optional<uint64_t> mountId = ParseNumberFile(TakePart(line, ' '));
   TakePart(line, ' ');
   const std::optional<DeviceNumber> device = ParseDeviceNumber(TakePart(line, ' '));
   const size_t dash = line.find(" - ");
   if (!mountId || !device || dash == std::string_view::npos) {
      return std::nullopt;
   }
   line.remove_prefix(dash + 3);
   const std::string_view type = TakePart(line, ' ');
   return MountedFileSystem{*mountId, *device, type, UnescapeOctal(TakePart(line, ' '))};
}

} // namespace

GroupCpuStat ParseGroupCpuStat(std::string_view cpuStat)
{
   return ParseFields(cpuStat, kCpuFields);
}

GroupMemoryStat ParseGroupMemoryStat(std::string_view memoryStat)
{
   return ParseFields(memoryStat, kMemoryFields);
}

GroupMemoryStat ParseGroupMemoryStatV1(std::string_view memoryStat)
{
   return ParseFields(memoryStat, kMemoryFieldsV1);
}

std::optional<uint64_t> ParsePressureUs(std::string_view cpuPressure)
{
   constexpr std::string_view kTotal = "total=";
   while (!cpuPressure.empty()) {
      std::string_view line = TakePart(cpuPressure, '\n');
      if (TakePart(line, ' ') != "some") {
         continue;
      }
      while (!line.empty()) {
         const std::string_view word = TakePart(line, ' ');
         if (word.starts_with(kTotal)) {
            return ParseNumberFile(word.substr(kTotal.size()));
         }
      }
   }
   return std::nullopt;
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
   // The 2nd is the program's name in parentheses, which may hold blanks and parentheses.
   const size_t nameEnd = procStat.rfind(") ");
   if (nameEnd == std::string_view::npos) {
      return std::nullopt;
   }
   procStat.remove_prefix(nameEnd + 2);
   for (size_t i = 0; i < kFieldsBetween; ++i) {
      TakePart(procStat, ' ');
   }
   return ParseNumberFile(TakePart(procStat, ' '));
}

std::optional<uint64_t> ParseZeroPages(std::string_view ksmStat)
{
   while (!ksmStat.empty()) {
      std::string_view line = TakePart(ksmStat, '\n');
      if (TakePart(line, ' ') == "ksm_zero_pages") {
         return ParseNumberFile(line);
      }
   }
   return std::nullopt;
}

std::optional<std::string> ParseUuidArgument(std::string_view procCmdline)
{
   while (!procCmdline.empty()) {
      if (TakePart(procCmdline, '\0') != "-uuid") {
         continue;
      }
      std::string uuid(TakePart(procCmdline, '\0'));
      std::transform(uuid.begin(), uuid.end(), uuid.begin(), [](char c) {
         return c >= 'A' && c <= 'F' ? static_cast<char>(c - 'A' + 'a') : c;
      });
      return IsUuid(uuid) ? std::optional(uuid) : std::nullopt;
   }
   return std::nullopt;
}

std::vector<MountedFileSystem> ParseMountInfo(std::string_view mountInfo)
{
   std::vector<MountedFileSystem> fileSystems;
   while (!mountInfo.empty()) {
      if (std::optional<MountedFileSystem> one = ParseMount(TakePart(mountInfo, '\n'))) {
         fileSystems.push_back(std::move(*one));
      }
   }
   return fileSystems;
}

} // namespace LinuxHost
