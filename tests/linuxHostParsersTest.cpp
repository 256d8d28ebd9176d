#include "linuxHost/procParsers.h"

#include "corvax/format.h"

#include <gtest/gtest.h>

#include <limits>
#include <random>
#include <string>
#include <string_view>

namespace {

using Corvax::Format;

constexpr uint64_t kLargest = std::numeric_limits<uint64_t>::max();

std::string CpuText(std::string_view text)
{
   std::string result;
   for (const auto& cpu : LinuxHost::ParseCpuTicks(text)) {
      result += Format("%1:%2/%3 ", cpu.number, cpu.used, cpu.idle);
   }
   return result;
}

std::string DiskText(std::string_view text)
{
   std::string result;
   for (const auto& disk : LinuxHost::ParseDiskStats(text)) {
      result += Format("%1:%2/%3/%4/%5/%6/%7 ", disk.name, disk.reads, disk.sectorsRead,
                       disk.writes, disk.sectorsWritten, disk.discards, disk.flushes);
   }
   return result;
}

std::string InterfaceText(std::string_view text)
{
   std::string result;
   for (const auto& one : LinuxHost::ParseNetDev(text)) {
      result += Format("%1:%2/%3/%4/%5 ", one.name, one.bytesReceived, one.packetsReceived,
                       one.bytesSent, one.packetsSent);
   }
   return result;
}

std::string NumberText(const std::optional<uint64_t>& number)
{
   return number ? std::to_string(*number) : "none";
}

std::string UptimeText(std::string_view text)
{
   return NumberText(LinuxHost::ParseUptimeUs(text));
}

std::string NumberFileText(std::string_view text)
{
   return NumberText(LinuxHost::ParseNumberFile(text));
}

std::string CpuListText(std::string_view text)
{
   const auto cpus = LinuxHost::ParseCpuList(text);
   return cpus ? Format("%1 from %2", cpus->count, cpus->first) : "none";
}

std::string SpeedText(std::string_view text)
{
   return NumberText(LinuxHost::ParseCpuInfoHz(text));
}

std::string MemoryText(std::string_view text)
{
   const LinuxHost::MemInfo info = LinuxHost::ParseMemInfo(text);
   return NumberText(info.memFree) + " " + NumberText(info.active);
}

std::string SwapText(std::string_view text)
{
   const LinuxHost::SwapTraffic traffic = LinuxHost::ParseSwapTraffic(text);
   return Format("%1 %2", traffic.in, traffic.out);
}

struct ParserCase {
   const char* name;
   std::string (*parse)(std::string_view);
   const char* text;
   const char* expected;
};

class ProcParsersTest : public testing::TestWithParam<ParserCase> {};

TEST_P(ProcParsersTest, TextGivesTheseFigures)
{
   EXPECT_EQ(GetParam().expected, GetParam().parse(GetParam().text));
}

const ParserCase kParserCases[] = {
   {"CpuGuestIsNotCountedTwiceAndStealNotAtAll", CpuText,
    "cpu 9 9 9 9 9 9 9 9 9 9\ncpu0 1 20 300 4000 50000 600000 7000000 8 16 32\nintr 5\n",
    "0:7600321/54000 "},
   {"CpuNumbersMayHaveGaps", CpuText, "cpu0 1 1 1 1\ncpu7 2 2 2 2\n", "0:3/1 7:6/2 "},
   {"CpuLineOfAnOldKernelAndNoFinalNewline", CpuText, "cpu0 1 2 3 4", "0:6/4 "},
   {"CpuLinesCutShortOrMalformed", CpuText,
    "cpu0 1 2 3\ncpu1\ncpux 1 2 3 4\ncpu-1 1 2 3 4\ncpu2 1 2 x 4\ncpu\n", ""},
   {"CpuTimesStopAtTheLargest", CpuText,
    "cpu0 18446744073709551615 1 0 99999999999999999999999 1\n",
    "0:18446744073709551615/18446744073709551615 "},
   {"CpuNumberBeyondAllKernels", CpuText, "cpu65536 1 1 1 1\ncpu65535 1 1 1 1\n", "65535:3/1 "},
   {"CpuEmptyFile", CpuText, "", ""},
   {"DiskWithAllSeventeenCounts", DiskText,
    " 8 0 sda 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17\n", "sda:1/3/5/7/12/16 "},
   {"DiskWithMoreCountsThanKnown", DiskText,
    " 8 0 sda 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18\n", "sda:1/3/5/7/12/16 "},
   {"DiskOfOlderKernels", DiskText,
    "8 0 sda 1 2 3 4 5 6 7 8 9 10 11\n8 1 sdb 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15",
    "sda:1/3/5/7/0/0 sdb:1/3/5/7/12/0 "},
   {"DiskLinesCutShortOrMalformed", DiskText,
    "8 0 sda 1 2 3 4 5 6 7 8 9 10\n8 1 sda1 1 2 3 4\n8\n\n8 2 sdb 1 2 3 x 5 6 7 8 9 10 11\n", ""},
   {"DiskCountBeyondSixtyFourBits", DiskText, "8 0 sda 18446744073709551616 0 3 0 0 0 0 0 0 0 0",
    "sda:18446744073709551615/3/0/0/0/0 "},
   {"InterfaceWithoutBlankAfterTheColon", InterfaceText,
    "Inter-| Receive | Transmit\n face |bytes |bytes\n  eth0:123 4 0 0 0 0 0 0 56 7 0 0 0 0 0 0\n",
    "eth0:123/4/56/7 "},
   {"InterfaceAliasHasAColonInItsName", InterfaceText, "eth0:1: 1 2 0 0 0 0 0 0 9 10 0 0",
    "eth0:1:1/2/9/10 "},
   {"InterfaceLinesCutShortOrMalformed", InterfaceText,
    "eth0: 1 2 3 4 5 6 7 8 9\n: 1 2 3 4 5 6 7 8 9 10\neth1:\neth2: a\n:", ""},
   {"UptimeInHundredths", UptimeText, "1592.05 3143.55\n", "1592050000"},
   {"UptimeWithoutFraction", UptimeText, "7", "7000000"},
   {"UptimeBelowAMicrosecondIsCut", UptimeText, "0.1234567\n", "123456"},
   {"UptimeNoNumber", UptimeText, "1.x2\n", "none"},
   {"UptimeEmptyFile", UptimeText, "", "none"},
   {"UptimeStopsAtTheLargest", UptimeText, "18446744073709551615.9", "18446744073709551615"},
   {"MemoryKeysAreWholeWords", MemoryText,
    "MemFree:   12 kB\nActive:  34 kB\nActive(anon): 5 kB\nHighMemFree: 9 kB\n", "12 34"},
   {"MemoryWithoutValuesOrNewline", MemoryText, "MemFree:\nActive: kB", "none none"},
   {"SwapKeysAreWholeWords", SwapText, "pswpinx 9\npswpin 3\nzswpin 8\npswpout 4", "3 4"},
   {"SwapNotCounted", SwapText, "nr_free_pages 1\n", "0 0"},
   {"NumberInHexadecimal", NumberFileText, "0x1f\n", "31"},
   {"NumberInDecimal", NumberFileText, "31\n", "31"},
   {"NumberWithoutDigits", NumberFileText, "0x\n", "none"},
   {"NumberNegative", NumberFileText, "-1\n", "none"},
   {"CpuListOfRangesAndSingles", CpuListText, "2-3,8,10-11\n", "5 from 2"},
   {"CpuListOfOne", CpuListText, "0", "1 from 0"},
   {"CpuListReversedRange", CpuListText, "0,5-2\n", "none"},
   {"CpuListOpenRange", CpuListText, "0-\n", "none"},
   {"CpuListEmptyPart", CpuListText, "0,,1\n", "none"},
   {"CpuListEmpty", CpuListText, "\n", "none"},
   {"CpuListOfEverything", CpuListText, "0-18446744073709551615",
    "18446744073709551615 from 0"},
   {"SpeedWithDecimals", SpeedText, "processor\t: 0\ncpu MHz\t\t: 2593.905\ncpu MHz\t\t: 1.0\n",
    "2593905000"},
   {"SpeedNotGiven", SpeedText, "processor : 0\ncpu MHz\n", "none"},
};

INSTANTIATE_TEST_SUITE_P(Texts, ProcParsersTest, testing::ValuesIn(kParserCases),
                         [](const auto& info) { return std::string(info.param.name); });

// Run under the address and undefined-behaviour sanitizers, this is where a parser that reads past
// its text or overflows is caught.
TEST(ProcParsersRandomTest, DamagedTextsAreTaken)
{
   const char* const seedText = std::getenv("METRIX_TEST_SEED");
   const auto seed = seedText ? static_cast<uint32_t>(std::stoul(seedText)) : std::random_device{}();
   SCOPED_TRACE(Format("METRIX_TEST_SEED=%1", seed));
   std::mt19937 random(seed);
   constexpr std::string_view kBytes("\n\n :-,.09ax\0\xff", 13);
   for (int round = 0; round < 20000; ++round) {
      const ParserCase& original = kParserCases[random() % std::size(kParserCases)];
      std::string text(original.text);
      for (uint32_t damage = random() % 6; damage > 0 && !text.empty(); --damage) {
         text[random() % text.size()] = kBytes[random() % kBytes.size()];
      }
      text.resize(random() % (text.size() + 1));
      text.shrink_to_fit(); // so that reading past the end is seen
      for (const auto& cpu : LinuxHost::ParseCpuTicks(text)) {
         ASSERT_LE(cpu.number, LinuxHost::kHighestCpuNumber) << text;
      }
      ASSERT_NO_THROW(original.parse(text)) << text;
   }
}

} // namespace
