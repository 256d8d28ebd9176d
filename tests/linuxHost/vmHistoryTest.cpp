#include "linuxHost/vmHistory.h"
#include "linuxHost/steadySum.h"
#include "tests/fakes/manualTime.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace {

using LinuxHost::VmRecord;
using Quen::Vm::Freshness;
using State = Freshness::State;

constexpr char kVm[] = "vm";
constexpr int64_t kIntervalUs = 20'000'000;

/// Readings at seconds of a VM that uses a tenth of a CPU all the time, unless told otherwise.
class VmHistoryTest : public testing::Test {
protected:
   void Read(double second, int32_t startId = 1, double started = 0)
   {
      const auto takenUs = static_cast<int64_t>(second * 1e6);
      const auto usedUs = static_cast<uint64_t>((second - started) * 1e5);
      VmRecord record{kVm, takenUs, startId, {}, {}, {}};
      record.basics = {usedUs, {{"tap", usedUs, usedUs * 2, 0, 0}}};
      record.vcpus = {{usedUs, 0, 0}};
      record.monitor = {{32, 64, 45, {}, {}, 0}, {{"vda", usedUs, 0, 0, 0, 0}}};
      _history.Add(record);
   }
   std::shared_ptr<const LinuxHost::VmSnapshot> Collect(double second)
   {
      _clock.monotonicUs = static_cast<int64_t>(second * 1e6);
      _clock.nowUs = _clock.monotonicUs + _wallUs;
      _history.BeginCollection();
      return _history.GetSnapshot();
   }
   /// CPU time in microseconds; -1 for no figures.
   int64_t CollectUsed(double second)
   {
      const auto snapshot = Collect(second);
      return snapshot && snapshot->vms.contains(kVm)
                ? static_cast<int64_t>(snapshot->vms.at(kVm).usedUs)
                : -1;
   }

   static constexpr int64_t kWallUs = 1'700'000'000'000'000;
   int64_t _wallUs = kWallUs;
   ManualClock _clock;
   LinuxHost::VmHistory _history{kIntervalUs / 1'000'000};
};

TEST_F(VmHistoryTest, ASteadyCounterHasASteadyRateWhateverItsReadingsTimes)
{
   const double lateness[] = {0, 7, 0.1, 9.9, 0, 3, 0};
   int64_t lastUs = -1;
   for (int run = 0; run < 7; ++run) {
      Read(run * 20 + 10 + lateness[run]);
      const int64_t usedUs = CollectUsed(run * 20 + 20 + (run == 4 ? 3.7 : 0.01));
      if (run == 0) {
         EXPECT_EQ(usedUs, -1) << "one reading encloses nothing";
      } else if (run > 1) {
         // The stamp is in whole seconds, so that run 4 is 3 s late and run 5 early by as much.
         const int64_t grownUs = run == 4 ? 2'300'000 : run == 5 ? 1'700'000 : 2'000'000;
         EXPECT_LE(std::abs(usedUs - lastUs - grownUs), 2);
      }
      lastUs = usedUs;
   }
}

TEST_F(VmHistoryTest, EveryPartIsInterpolated)
{
   Read(10);
   Read(30);
   const auto snapshot = Collect(40);
   const LinuxHost::VmFigures& figures = snapshot->vms.at(kVm);
   EXPECT_EQ(figures.usedUs, 2'500'000) << "of second 25";
   EXPECT_EQ(figures.vcpus.at(0).usedUs, 2'500'000);
   EXPECT_EQ(figures.cards.at(0).bytesSent, 5'000'000);
   EXPECT_EQ(figures.disks.at(0).bytesRead, 2'500'000);
   EXPECT_EQ(figures.memory->rssKb, 45) << "a gauge is the newest";
}

TEST_F(VmHistoryTest, ReadingsThatDoNotEncloseTheTimeYieldNothing)
{
   Read(10);
   Read(30);
   EXPECT_EQ(CollectUsed(60), -1) << "too late for the newest reading";
   Read(50);
   EXPECT_EQ(CollectUsed(60), 4'500'000);
   Read(70, 2, 65);
   EXPECT_EQ(CollectUsed(80), -1) << "started anew between the readings";
   Read(90, 2, 65);
   EXPECT_EQ(CollectUsed(100), 2'000'000) << "second 85, 20 s after the start";
   Read(110, 3);
   EXPECT_EQ(CollectUsed(120), -1) << "started anew, and has used more than before";
   EXPECT_EQ(Collect(145), nullptr) << "the hypervisor is silent";
   _history.KeepOnly({"another"});
   Read(150, 3);
   EXPECT_EQ(CollectUsed(160), -1);
}

TEST_F(VmHistoryTest, AWallClockThatIsSetBackChangesNoFigure)
{
   Read(10);
   Read(30);
   _wallUs -= 3'600'000'000;
   EXPECT_EQ(CollectUsed(40), 2'500'000);
   Read(50);
   EXPECT_EQ(CollectUsed(60), 4'500'000);
}

TEST_F(VmHistoryTest, SecondReadingsOfOnePollDoNotCostTheFirst)
{
   Read(10);
   Read(30);
   Read(30.2);
   EXPECT_EQ(CollectUsed(40), 2'500'000);
}

TEST_F(VmHistoryTest, AnUnpluggedVirtualCpuThatComesBackBeginsAtZero)
{
   VmRecord record{kVm, 10'000'000, 1, LinuxHost::VmBasics{}, {}, {}};
   record.vcpus = {{100, 0, 0}, {900, 0, 0}};
   _history.Add(record);
   record.takenUs = 30'000'000;
   record.vcpus = {{200, 0, 0}, {400, 0, 0}, {40, 0, 0}};
   _history.Add(record);
   const auto vcpus = Collect(40)->vms.at(kVm).vcpus;
   ASSERT_EQ(vcpus.size(), 3);
   EXPECT_EQ(vcpus[0].usedUs, 175);
   EXPECT_EQ(vcpus[1].usedUs, 300) << "unplugged and plugged in again";
   EXPECT_EQ(vcpus[2].usedUs, 30) << "new";
}

TEST_F(VmHistoryTest, FreshnessSaysSinceWhenAndWhy)
{
   const auto freshness = [this](double second) {
      Collect(second);
      const Freshness state = _history.GetFreshness(kVm);
      return std::tuple(state.state, state.sinceSec == 0 ? 0 : state.sinceSec - kWallUs / 1'000'000,
                        state.reason);
   };
   EXPECT_EQ(std::get<0>(freshness(1)), State::STALE) << "never seen";
   Read(10);
   Read(30);
   EXPECT_EQ(freshness(31), std::tuple(State::FRESH, 10, ""));
   for (const int second : {50, 70}) {
      _history.Add({kVm, second * 1'000'000, 1, LinuxHost::VmBasics{}, {}, {}}, "it hangs");
   }
   EXPECT_EQ(freshness(71), std::tuple(State::PARTLY, 30, "it hangs"));
   _history.SetSilent("no answer");
   EXPECT_EQ(freshness(120), std::tuple(State::STALE, 70, "no answer"));
   Read(130);
   EXPECT_EQ(freshness(131), std::tuple(State::FRESH, 130, ""));
}

TEST(SteadySumTest, MembersComeAndGoWithoutAJump)
{
   LinuxHost::SteadySum sum;
   const auto corrected = [&sum](const LinuxHost::SteadySum::Counters& readings) {
      uint64_t total = 0;
      for (const auto& [name, reading] : readings) {
         total += reading;
      }
      return total + static_cast<uint64_t>(sum.GetCorrection(readings));
   };
   EXPECT_EQ(corrected({{"a", 100}, {"b", 50}}), 150);
   EXPECT_EQ(corrected({{"a", 110}, {"b", 55}}), 165);
   EXPECT_EQ(corrected({{"a", 111}, {"b", 55}, {"c", 1'000'000}}), 166) << "one joins";
   EXPECT_EQ(corrected({{"b", 60}, {"c", 1'000'002}}), 173) << "one leaves";
   EXPECT_EQ(corrected({{"b", 7}, {"c", 1'000'003}}), 174) << "one begins anew";
   EXPECT_EQ(corrected({{"a", 111}, {"b", 8}, {"c", 1'000'003}}), 175) << "one is back";
   EXPECT_EQ(corrected({}), 175);
}

} // namespace
