#include "linuxHost/kernel/procParsers.h"

#include "linuxHost/kernel/saturate.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <limits>
#include <system_error>

namespace LinuxHost {

namespace {

constexpr std::string_view kBlanks = " \t";
constexpr size_t kMaxCounts = 17; // of a line of /proc/diskstats, the longest of all
using Counts = std::array<uint64_t, kMaxCounts>;

/// Takes the next line, without its end, off the text. False at the text's end.
bool NextLine(std::string_view& text, std::string_view& line)
{
   if (text.empty()) {
      return false;
   }
   line = text.substr(0, text.find('\n'));
   text.remove_prefix(std::min(text.size(), line.size() + 1));
   return true;
}

/// Takes the next word off the line; empty at the line's end.
std::string_view NextWord(std::string_view& line)
{
   line.remove_prefix(std::min(line.size(), line.find_first_not_of(kBlanks)));
   const std::string_view word = line.substr(0, line.find_first_of(kBlanks));
   line.remove_prefix(word.size());
   return word;
}

/// The first word of a text of one line.
std::string_view FirstWord(std::string_view text)
{
   std::string_view line;
   NextLine(text, line);
   return NextWord(line);
}

std::optional<uint64_t> ParseNumber(std::string_view word, int base = 10)
{
   uint64_t number = 0;
   const char* const end = word.data() + word.size();
   const auto result = std::from_chars(word.data(), end, number, base);
   if (result.ptr != end || result.ec == std::errc::invalid_argument) {
      return std::nullopt;
   }
   return result.ec == std::errc() ? number : std::numeric_limits<uint64_t>::max();
}

/// "1592.05" as 1592050000. Digits beyond the sixth after the point are cut off.
std::optional<uint64_t> ParseMillionths(std::string_view word)
{
   constexpr size_t kFractionDigits = 6;
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
   return SaturatingAdd(SaturatingMultiply(*whole, 1'000'000), fraction);
}

/// Reads numbers up to the line's end or the first word that is none; returns how many. The counts
/// after them are 0.
size_t ParseCounts(std::string_view line, Counts& counts)
{
   counts.fill(0);
   for (size_t i = 0; i < counts.size(); ++i) {
      const std::optional<uint64_t> number = ParseNumber(NextWord(line));
      if (!number) {
         return i;
      }
      counts[i] = *number;
   }
   return counts.size();
}

struct MemInfoField {
   std::string_view key;
   std::optional<uint64_t> MemInfo::* value;
};

constexpr MemInfoField kMemInfoFields[] = {
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

/// Takes "8" and "0-3".
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
   for (std::string_view line; NextLine(procStat, line);) {
      if (!line.starts_with("cpu")) {
         continue;
      }
      const std::optional<uint64_t> number = ParseNumber(NextWord(line).substr(3));
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
   MemInfo info;
   for (std::string_view line; NextLine(procMeminfo, line);) {
      const std::string_view key = NextWord(line);
      for (const MemInfoField& field : kMemInfoFields) {
         if (field.key == key) {
            info.*field.value = ParseNumber(NextWord(line));
            break;
         }
      }
   }
   return info;
}

SwapTraffic ParseSwapTraffic(std::string_view procVmstat)
{
   SwapTraffic traffic;
   for (std::string_view line; NextLine(procVmstat, line);) {
      if (!line.starts_with("pswp")) {
         continue;
      }
      const std::string_view key = NextWord(line);
      const uint64_t pages = ParseNumber(NextWord(line)).value_or(0);
      if (key == "pswpin") {
         traffic.in = pages;
      } else if (key == "pswpout") {
         traffic.out = pages;
      }
   }
   return traffic;
}

std::vector<DiskCounts> ParseDiskStats(std::string_view procDiskstats)
{
   constexpr size_t kLeastCounts = 11;
   std::vector<DiskCounts> disks;
   Counts counts;
   for (std::string_view line; NextLine(procDiskstats, line);) {
      NextWord(line); // the device's major number
      NextWord(line); // and its minor
      const std::string_view name = NextWord(line);
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
   for (std::string_view line; NextLine(procNetDev, line);) {
      // The last colon: an alias has one in its name. The numbers may follow it without a blank.
      const size_t colon = line.rfind(':');
      if (colon == std::string_view::npos) {
         continue;
      }
      std::string_view head = line.substr(0, colon);
      const std::string_view name = NextWord(head);
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
      const std::string_view part = list.substr(0, list.find(','));
      list.remove_prefix(std::min(list.size(), part.size() + 1));
      const std::optional<CpuList> range = ParseCpuRange(part);
      if (!range) {
         return std::nullopt;
      }
      cpus = cpus ? CpuList{SaturatingAdd(cpus->count, range->count), cpus->first} : *range;
   }
   return cpus;
}

std::optional<uint64_t> ParseCpuInfoHz(std::string_view procCpuinfo)
{
   for (std::string_view line; NextLine(procCpuinfo, line);) {
      const size_t colon = line.find(':');
      if (line.starts_with("cpu MHz") && colon != std::string_view::npos) {
         line.remove_prefix(colon + 1);
         return ParseMillionths(NextWord(line));
      }
   }
   return std::nullopt;
}

} // namespace LinuxHost
