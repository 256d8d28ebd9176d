#include "corvax/format.h"
#include "linuxHost/kernel/groupParsers.h"
#include "linuxHost/kernel/mountInfo.h"
#include "linuxHost/kernel/procParsers.h"
#include "linuxHost/kernel/processParsers.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <iterator>
#include <random>
#include <string>
#include <string_view>

namespace {

using Corvax::Format;

std::string Cpus(std::string_view text)
{
   std::string result;
   for (const auto& cpu : LinuxHost::ParseCpuTicks(text)) {
      result += Format("%1:%2/%3 ", cpu.number, cpu.used, cpu.idle);
   }
   return result;
}

std::string Disks(std::string_view text)
{
   std::string result;
   for (const auto& disk : LinuxHost::ParseDiskStats(text)) {
      result += Format("%1:%2/%3/%4/%5/%6/%7 ", disk.name, disk.reads, disk.sectorsRead,
                       disk.writes, disk.sectorsWritten, disk.discards, disk.flushes);
   }
   return result;
}

std::string Interfaces(std::string_view text)
{
   std::string result;
   for (const auto& one : LinuxHost::ParseNetDev(text)) {
      result += Format("%1:%2/%3/%4/%5 ", one.name, one.bytesReceived, one.packetsReceived,
                       one.bytesSent, one.packetsSent);
   }
   return result;
}

std::string Text(const std::optional<uint64_t>& number)
{
   return number ? std::to_string(*number) : "none";
}

std::string GroupCpu(std::string_view text)
{
   const auto stat = LinuxHost::ParseGroupCpuStat(text);
   return Format("%1 %2 %3 %4", Text(stat.usageUs), Text(stat.systemUs), Text(stat.throttledUs),
                 Text(stat.throttledNs));
}

template <auto Parse>
std::string Number(std::string_view text)
{
   return Text(Parse(text));
}
constexpr auto kUptime = Number<LinuxHost::ParseUptimeUs>;
constexpr auto kNumberFile = Number<LinuxHost::ParseNumberFile>;
constexpr auto kSpeed = Number<LinuxHost::ParseCpuInfoHz>;
constexpr auto kPressure = Number<LinuxHost::ParsePressureUs>;
constexpr auto kStart = Number<LinuxHost::ParseStartTicks>;

std::string CpuList(std::string_view text)
{
   const auto cpus = LinuxHost::ParseCpuList(text);
   return cpus ? Format("%1 from %2", cpus->count, cpus->first) : "none";
}

const struct {
   const char* name;
   std::string (*parse)(std::string_view);
   const char* text;
   const char* expected;
} kCases[] = {
   {"guest time is not counted twice, steal not at all", Cpus,
    "cpu 9 9 9 9 9 9 9 9 9 9\ncpu0 1 20 300 4000 50000 600000 7000000 8 16 32\nintr 5\n",
    "0:7600321/54000 "},
   {"old kernel, gap, no final newline", Cpus, "cpu0 1 1 1 1\ncpu7 1 2 3 4", "0:3/1 7:6/4 "},
   {"truncated or malformed", Cpus, "cpu0 1 2 3\ncpu1\ncpux 1 2 3 4\ncpu-1 1 2 3 4\ncpu2 1 2 x 4\n",
    ""},
   {"times saturate", Cpus, "cpu0 18446744073709551615 1 0 99999999999999999999999 1\n",
    "0:18446744073709551615/18446744073709551615 "},
   {"number above the limit", Cpus, "cpu65536 1 1 1 1\ncpu65535 1 1 1 1\n", "65535:3/1 "},
   {"all counts and one unknown", Disks, " 8 0 sda 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18\n",
    "sda:1/3/5/7/12/16 "},
   {"older kernels", Disks,
    "8 0 sda 1 2 3 4 5 6 7 8 9 10 11\n8 1 sdb 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15",
    "sda:1/3/5/7/0/0 sdb:1/3/5/7/12/0 "},
   {"truncated or malformed", Disks,
    "8 0 sda 1 2 3 4 5 6 7 8 9 10\n8 1 sda1 1 2 3 4\n8\n\n8 2 sdb 1 2 3 x 5 6 7 8 9 10 11\n", ""},
   {"beyond 64 bits", Disks, "8 0 sda 18446744073709551616 0 3 0 0 0 0 0 0 0 0",
    "sda:18446744073709551615/3/0/0/0/0 "},
   {"no blank after the colon", Interfaces,
    "Inter-| Receive | Transmit\n face |bytes |bytes\n  eth0:123 4 0 0 0 0 0 0 56 7 0 0 0 0 0 0\n",
    "eth0:123/4/56/7 "},
   {"colon in the name", Interfaces, "eth0:1: 1 2 0 0 0 0 0 0 9 10 0", "eth0:1:1/2/9/10 "},
   {"truncated or malformed", Interfaces,
    "eth0: 1 2 3 4 5 6 7 8 9\n: 1 2 3 4 5 6 7 8 9 10\neth1:\neth2: a\n:", ""},
   {"hundredths", kUptime, "1592.05 3143.55\n", "1592050000"},
   {"not a number", kUptime, "1.x2\n", "none"},
   {"empty", kUptime, "", "none"},
   {"saturates", kUptime, "18446744073709551615.9", "18446744073709551615"},
   {"hexadecimal", kNumberFile, "0x1f\n", "31"},
   {"no digits", kNumberFile, "0x\n", "none"},
   {"more than digits", kNumberFile, "12a\n", "none"},
   {"ranges and singles", CpuList, "2-3,8,10-11\n", "5 from 2"},
   {"reversed range", CpuList, "0,5-2\n", "none"},
   {"open range", CpuList, "0-\n", "none"},
   {"empty", CpuList, "\n", "none"},
   {"everything", CpuList, "0-18446744073709551615", "18446744073709551615 from 0"},
   {"decimals", kSpeed, "cpu family : 6\ncpu MHz\t\t: 2593.905\ncpu MHz\t\t: 1.0\n", "2593905000"},
   {"no colon", kSpeed, "processor : 0\ncpu MHz\n", "none"},
   {"longer key, word for a number", GroupCpu,
    "usage_usec 5\nusage_usecs 6\nsystem_usec x\nthrottled_time 7", "5 none none 7"},
   {"key alone, beyond 64 bits", GroupCpu, "\nusage_usec\nthrottled_usec 99999999999999999999",
    "none none 18446744073709551615 none"},
   {"some, not full", kPressure, "full avg10=0 total=9\nsome avg10=0.00 total=8\n", "8"},
   {"empty value", kPressure, "some total=\nsome total=7", "none"},
   {"parentheses in the name", kStart,
    "7 (a) b) c) S 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21 22 23\n", "22"},
   {"last field", kStart, "7 (a) S 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21 22\n", "22"},
   {"truncated", kStart, "7 (a) S 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21", "none"},
};

TEST(ParsersTest, TextsYieldTheseFigures)
{
   for (const auto& [name, parse, text, expected] : kCases) {
      EXPECT_EQ(expected, parse(text)) << name << ":\n" << text;
   }
}

// Under the address and undefined-behaviour sanitizers this catches a parser that reads past its
// text or overflows.
TEST(ParsersTest, DamagedTextsAreAccepted)
{
   const char* const fixedSeed = std::getenv("METRIX_SEED");
   const auto seed =
      fixedSeed ? static_cast<uint32_t>(std::stoul(fixedSeed)) : std::random_device{}();
   SCOPED_TRACE(Format("METRIX_SEED=%1", seed));
   std::mt19937 random(seed);
   constexpr std::string_view kBytes("\n\n :-,.09ax\0\xff", 13);
   for (int i = 0; i < 20000; ++i) {
      const auto& original = kCases[random() % std::size(kCases)];
      std::string text(original.text);
      for (auto damage = random() % 6; damage > 0 && !text.empty(); --damage) {
         text[random() % text.size()] = kBytes[random() % kBytes.size()];
      }
      text.resize(random() % (text.size() + 1));
      text.shrink_to_fit(); // so that reading past the end is detected
      ASSERT_NO_THROW(original.parse(text)) << text;
      ASSERT_NO_THROW(LinuxHost::ParseMemInfo(text)) << text;
      ASSERT_NO_THROW(LinuxHost::ParseMountInfo(text)) << text;
   }
}

} // namespace
