#include "linuxHost/kernel/groupParsers.h"

#include "linuxHost/kernel/textParts.h"

namespace LinuxHost {

namespace {

constexpr KeyedNumber<GroupCpuStat> kCpuFields[] = {
   {"usage_usec", &GroupCpuStat::usageUs},
   {"system_usec", &GroupCpuStat::systemUs},
   {"throttled_usec", &GroupCpuStat::throttledUs},
   {"throttled_time", &GroupCpuStat::throttledNs},
};

constexpr KeyedNumber<GroupMemoryStat> kMemoryFields[] = {
   {"anon", &GroupMemoryStat::anonBytes},
   {"shmem", &GroupMemoryStat::shmemBytes},
   {"active_anon", &GroupMemoryStat::activeAnonBytes},
   {"active_file", &GroupMemoryStat::activeFileBytes},
   {"pswpin", &GroupMemoryStat::swapInPages},
   {"pswpout", &GroupMemoryStat::swapOutPages},
};

constexpr KeyedNumber<GroupMemoryStat> kMemoryFieldsV1[] = {
   {"total_rss", &GroupMemoryStat::anonBytes},
   {"total_shmem", &GroupMemoryStat::shmemBytes},
   {"total_active_anon", &GroupMemoryStat::activeAnonBytes},
   {"total_active_file", &GroupMemoryStat::activeFileBytes},
   {"total_swap", &GroupMemoryStat::swapBytes},
};

} // namespace

GroupCpuStat ParseGroupCpuStat(std::string_view cpuStat)
{
   return ParseKeyedNumbers(cpuStat, kCpuFields);
}

GroupMemoryStat ParseGroupMemoryStat(std::string_view memoryStat)
{
   return ParseKeyedNumbers(memoryStat, kMemoryFields);
}

GroupMemoryStat ParseGroupMemoryStatV1(std::string_view memoryStat)
{
   return ParseKeyedNumbers(memoryStat, kMemoryFieldsV1);
}

std::optional<uint64_t> ParsePressureUs(std::string_view cpuPressure)
{
   constexpr std::string_view kTotal = "total=";
   while (!cpuPressure.empty()) {
      std::string_view line = TakePart(cpuPressure, '\n');
      if (TakeWord(line) != "some") {
         continue;
      }
      for (std::string_view word = TakeWord(line); !word.empty(); word = TakeWord(line)) {
         if (word.starts_with(kTotal)) {
            return ParseNumber(word.substr(kTotal.size()));
         }
      }
   }
   return std::nullopt;
}

} // namespace LinuxHost
