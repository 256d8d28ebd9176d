#include "linuxHost/loadHistory.h"
#include "corvax/clock.h"
#include "corvax/format.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

namespace {

using Corvax::Format;
using LinuxHost::LoadHistory;

/// "activeAverage/activePeak/runAverage/runPeak/limited" of each period, then the sample count.
std::string Loads(const LoadHistory& history)
{
   const auto loads = history.Get();
   std::string text;
   for (const auto& load : {loads.oneMinute, loads.fiveMinutes, loads.fifteenMinutes}) {
      text += Format("%1/%2/%3/%4/%5 ", load.activeAverage, load.activePeak, load.runAverage,
                     load.runPeak, load.maxLimited);
   }
   EXPECT_EQ(loads.sampleCount == 0, history.IsEmpty());
   return text + std::to_string(loads.sampleCount);
}

TEST(LoadHistoryTest, PeriodsAndPeaksSurviveTheWrapOfTheRing)
{
   LoadHistory history;
   uint64_t activeUs = 1'000;
   EXPECT_EQ("0/0/0/0/0 0/0/0/0/0 0/0/0/0/0 0", Loads(history));
   // Sample n of 160 is n percent active, n percent waiting and 3.9 percent limited.
   for (int64_t n = 0; n <= 160; ++n) {
      activeUs += static_cast<uint64_t>(n * LoadHistory::kSamplePeriodUs / 100);
      history.Add(n * LoadHistory::kSamplePeriodUs, activeUs, activeUs,
                  static_cast<uint64_t>(n * 234'000));
   }
   // Samples 151, 111 and 11 to 160: active averages 155.5, 135.5 and 85.5, run averages twice
   // that.
   EXPECT_EQ("155/160/311/320/3 135/160/271/320/3 85/160/171/320/3 150", Loads(history));
}

TEST(LoadHistoryTest, UnusableReadingsAddNoSample)
{
   LoadHistory history;
   const auto add = [&history](int64_t sec, uint64_t active, uint64_t waiting, uint64_t limited) {
      history.Add(sec * Corvax::kMicrosecondsPerSecond, active, waiting, limited);
      return Loads(history);
   };
   const std::string none = "0/0/0/0/0 0/0/0/0/0 0/0/0/0/0 0";
   const std::string half = "50/50/50/50/0 ";
   EXPECT_EQ(none, add(100, 5'000'000, 9, 9));
   EXPECT_EQ(none, add(100, 6'000'000, 9, 9));                     // no time passed
   EXPECT_EQ(none, add(106, 1, 9, 9));                             // a restart
   EXPECT_EQ(half + half + half + "1", add(118, 6'000'001, 9, 9)); // two periods are not a gap
   EXPECT_EQ(half + half + half + "1",
             add(124, 6'000'002, 8, 9)); // each counter may decrease alone
   EXPECT_EQ(half + half + half + "1", add(130, 6'000'003, 8, 8));
   EXPECT_EQ("0/0/0/0/0 " + half + half + "1", add(178, 6'000'004, 8, 8)); // a gap, 60 s old
   EXPECT_EQ(none, add(1018, 6'000'005, 8, 8));                            // 900 s old
   const std::string most = Format("%1/%1/%1/%1/%1 ", UINT32_MAX);
   EXPECT_EQ(most + most + most + "1", add(1024, UINT64_MAX, UINT64_MAX, UINT64_MAX));
   EXPECT_EQ(none, add(10, UINT64_MAX, UINT64_MAX, UINT64_MAX)); // the clock went back
}

TEST(LoadHistoryTest, AveragesWeighByTimeAndAnEarlyReadingIsDropped)
{
   LoadHistory history;
   const std::tuple<int64_t, uint64_t, const char*> readings[] = {
      // ms, active ms, average/peak
      {0, 0, "0/0"},
      {12'000, 12'000, "100/100"},
      {18'000, 12'600, "70/100"},
      {20'999, 22'600, "70/100"}, // ten seconds' load caught up within three
      {24'000, 22'600, "94/166"},
      {27'000, 22'600, "83/166"},
      {33'000, 100, "0/0"}, // another life
      {39'000, 700, "10/10"},
   };
   for (const auto& [timeMs, activeMs, expected] : readings) {
      history.Add(timeMs * 1000, activeMs * 1000, 0, 0);
      const auto load = history.Get().fifteenMinutes;
      EXPECT_EQ(expected, Format("%1/%2", load.activeAverage, load.activePeak)) << timeMs;
   }
   EXPECT_FALSE(history.IsStale(51'000'000));
   EXPECT_TRUE(history.IsStale(51'000'001)) << "a reading now would add no sample";
}

} // namespace
