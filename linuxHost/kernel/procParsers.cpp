#include "linuxHost/kernel/procParsers.h"

#include "linuxHost/kernel/saturate.h"
#include "linuxHost/kernel/textParts.h"

#include <algorithm>
#include <array>
#include <cstddef>

namespace LinuxHost {

namespace {

constexpr size_t kMaxCounts = 17; // of a line of /proc/diskstats, the longest
using Counts = std::array<uint64_t, kMaxCounts>;

/// The first word of a text of one line.
std::string_view FirstWord(std::string_view text)
{
   std::string_view line = TakePart(text, '\n');
   return TakeWord(line);
}

/// "1592.05" as 1592050000. Digits beyond the sixth after the point are dropped.
std::optional<uint64_t> ParseMillionths(std::string_view word)
{
   constexpr size_t kFractionDigits = 6;
   constexpr uint64_t kMillion = 1'000'000;
   const size_t point = std::min(word.size(), word.find('.'));
   const std::optional<uint64_t> whole = ParseNumber(word.substr(0, point));
   if (!whole) {
      return std::nullopt;
   }
   uint64_t fraction = 0;
   const std::string_view digits = word.substr(std::min(word.size(), point + 1));
   for (size_t i = 0; i < kFractionDigits; ++i) {
      const char digit = i < digits.size() ? digits[i] : '0';
      if (digit < '0' || digit > '9') {
         return std::nullopt;
      }
      fraction = fraction * 10 + static_cast<uint64_t>(digit - '0');
   }
   return SaturatingAdd(SaturatingMultiply(*whole, kMillion), fraction);
}

/// Reads numbers up to the line's end or the first word that is not a number; returns how many. The
/// remaining counts are 0.
size_t ParseCounts(std::string_view line, Counts& counts)
{
   counts.fill(0);
   for (size_t i = 0; i < counts.size(); ++i) {
      const std::optional<uint64_t> number = ParseNumber(TakeWord(line));
      if (!number) {
         return i;
      }
      counts[i] = *number;
   }
   return counts.size();
}

constexpr KeyedNumber<MemInfo> kMemInfoFields[] = {
   {"MemTotal:", &MemInfo::memTotal},
   {"MemFree:", &MemInfo::memFree},
   {"MemAvailable:", &MemInfo::memAvailable},
   {"Active:", &MemInfo::active},
   {"AnonPages:", &MemInfo::anonPages},
   {"Shmem:", &MemInfo::shmem},
   {"SwapTotal:", &MemInfo::swapTotal},
   {"SwapFree:", &MemInfo::swapFree},
   {"Slab:", &MemInfo::slab},
   {"SReclaimable:", &MemInfo::sReclaimable},
   {"KernelStack:", &MemInfo::kernelStack},
   {"PageTables:", &MemInfo::pageTables},
   {"SecPageTables:", &MemInfo::secPageTables},
   {"VmallocUsed:", &MemInfo::vmallocUsed},
   {"Percpu:", &MemInfo::percpu},
   {"Hugetlb:", &MemInfo::hugetlb},
};

constexpr KeyedNumber<SwapTraffic> kSwapFields[] = {
   {"pswpin", &SwapTraffic::inPages},
   {"pswpout", &SwapTraffic::outPages},
};

/// Accepts "8" and "0-3".
std::optional<CpuList> ParseCpuRange(std::string_view range)
{
   const size_t dash = std::min(range.size(), range.find('-'));
   const std::optional<uint64_t> first = ParseNumber(range.substr(0, dash));
   const std::optional<uint64_t> last =
      dash < range.size() ? ParseNumber(range.substr(dash + 1)) : first;
   if (!first || !last || *last < *first) {
      return std::nullopt;
   }
   return CpuList{SaturatingAdd(*last - *first, 1), *first};
}

} // namespace

std::vector<CpuTicks> ParseCpuTicks(std::string_view procStat)
{
   enum { USER, NICE, SYSTEM, IDLE, IOWAIT, IRQ, SOFTIRQ };
   std::vector<CpuTicks> cpus;
   Counts ticks;
   while (!procStat.empty()) {
      std::string_view line = TakePart(procStat, '\n');
      if (!line.starts_with("cpu")) {
         continue;
      }
      const std::optional<uint64_t> number = ParseNumber(TakeWord(line).substr(3));
      if (!number || *number > kHighestCpuNumber || ParseCounts(line, ticks) <= IDLE) {
         continue;
      }
      CpuTicks cpu{static_cast<uint32_t>(*number), 0, SaturatingAdd(ticks[IDLE], ticks[IOWAIT])};
      for (const auto field : {USER, NICE, SYSTEM, IRQ, SOFTIRQ}) {
         cpu.used = SaturatingAdd(cpu.used, ticks[field]);
      }
      cpus.push_back(cpu);
   }
   return cpus;
}

std::optional<uint64_t> ParseUptimeUs(std::string_view procUptime)
{
   return ParseMillionths(FirstWord(procUptime));
}

MemInfo ParseMemInfo(std::string_view procMeminfo)
{
   return ParseKeyedNumbers(procMeminfo, kMemInfoFields);
}

SwapTraffic ParseSwapTraffic(std::string_view procVmstat)
{
   return ParseKeyedNumbers(procVmstat, kSwapFields);
}

std::vector<DiskCounts> ParseDiskStats(std::string_view procDiskstats)
{
   constexpr size_t kLeastCounts = 11;
   std::vector<DiskCounts> disks;
   Counts counts;
   while (!procDiskstats.empty()) {
      std::string_view line = TakePart(procDiskstats, '\n');
      TakeWord(line); // the device's major number
      TakeWord(line); // its minor number
      const std::string_view name = TakeWord(line);
      if (ParseCounts(line, counts) >= kLeastCounts) {
         disks.push_back(
            {name, counts[0], counts[2], counts[4], counts[6], counts[11], counts[15]});
      }
   }
   return disks;
}

std::vector<InterfaceCounts> ParseNetDev(std::string_view procNetDev)
{
   constexpr size_t kLeastCounts = 10;
   std::vector<InterfaceCounts> interfaces;
   Counts counts;
   while (!procNetDev.empty()) {
      std::string_view line = TakePart(procNetDev, '\n');
      // The last colon: an alias has one in its name. Numbers may follow without a blank.
      const size_t colon = line.rfind(':');
      if (colon == std::string_view::npos) {
         continue;
      }
      std::string_view head = line.substr(0, colon);
      const std::string_view name = TakeWord(head);
      if (!name.empty() && ParseCounts(line.substr(colon + 1), counts) >= kLeastCounts) {
         interfaces.push_back({name, counts[0], counts[1], counts[8], counts[9]});
      }
   }
   return interfaces;
}

std::optional<uint64_t> ParseNumberFile(std::string_view text)
{
   const std::string_view word = FirstWord(text);
   return word.starts_with("0x") ? ParseNumber(word.substr(2), 16) : ParseNumber(word);
}

std::optional<CpuList> ParseCpuList(std::string_view text)
{
   std::string_view list = FirstWord(text);
   std::optional<CpuList> cpus;
   while (!list.empty()) {
      const std::optional<CpuList> range = ParseCpuRange(TakePart(list, ','));
      if (!range) {
         return std::nullopt;
      }
      cpus = cpus ? CpuList{SaturatingAdd(cpus->count, range->count), cpus->first} : *range;
   }
   return cpus;
}

std::optional<uint64_t> ParseCpuInfoHz(std::string_view procCpuinfo)
{
   while (!procCpuinfo.empty()) {
      std::string_view line = TakePart(procCpuinfo, '\n');
      const size_t colon = line.find(':');
      if (line.starts_with("cpu MHz") && colon != std::string_view::npos) {
         line.remove_prefix(colon + 1);
         return ParseMillionths(TakeWord(line));
      }
   }
   return std::nullopt;
}

} // namespace LinuxHost
