#include "metrix/baseStatsCollector.h"

#include "corvax/exception.h"
#include "metrix/counterIds.h"
#include "tests/metrix/collectorFixture.h"

namespace {

using namespace Metrix;
using Corvax::MakeRef;
using Corvax::Ref;

/// A collector whose runs call `collect`.
class ScriptedCollector : public BaseStatsCollector {
public:
   using BaseStatsCollector::AddSample;
   using BaseStatsCollector::BaseStatsCollector;

   std::function<void(int64_t ts)> collect = [](int64_t) {};
   int started = 0;
   int stopped = 0;

protected:
   void CollectStats(int64_t ts) override { collect(ts); }
   void StartInt() override { ++started; }
   void StopInt() override { ++stopped; }
};

class ScheduleTest : public CollectorTest {
protected:
   const Ref<ScriptedCollector> _collector =
      MakeRef<ScriptedCollector>(_agent.logger.Get(), _metadata.Get(), _depot.Get(), 20);
};

TEST_F(ScheduleTest, RunsStartOnBoundariesAndSkipThoseTheyOverran)
{
   std::vector<int64_t> runs;
   int64_t runTakesUs = 30000;
   _collector->collect = [&](int64_t ts) {
      runs.push_back(ts);
      _clock.nowUs += runTakesUs;
   };
   _clock.nowUs = 1000007600000; // within a second
   _collector->Start();
   _scheduler.RunNext();
   EXPECT_EQ(_scheduler.GetDueUs(), 1000040000000);
   runTakesUs = 25000000;
   _scheduler.RunNext(); // ends at 1000065
   runTakesUs = 20000000;
   _scheduler.RunNext(); // ends at 1000100, on a boundary
   _scheduler.RunNext();
   EXPECT_EQ(runs, (std::vector<int64_t>{1000020, 1000040, 1000080, 1000120}));
   _collector->SetCollectionInterval(50); // the pending run keeps its time
   EXPECT_EQ(_scheduler.GetDueUs(), 1000160000000);
   _scheduler.RunNext();
   EXPECT_EQ(_scheduler.GetDueUs(), 1000200000000);
   EXPECT_THROW(_collector->SetCollectionInterval(0), Corvax::InvalidArgumentException);
   _collector->Stop();
}

TEST_F(ScheduleTest, OneRunIsPendingAfterStartAndNoneAfterStop)
{
   _collector->Start();
   _collector->Start();
   EXPECT_EQ(_scheduler.GetWaiting(), 1u);
   EXPECT_EQ(_collector->started, 2);
   _collector->Stop();
   EXPECT_EQ(_scheduler.GetWaiting(), 0u);
   _collector->Stop();

   // Stopped by its own run.
   _collector->collect = [this](int64_t) { _collector->Stop(); };
   _collector->Start();
   _scheduler.RunNext();
   EXPECT_EQ(_scheduler.GetWaiting(), 0u);

   // Stopped and started again before a run that was due got the lock.
   _collector->collect = [](int64_t) {};
   _collector->Start();
   const auto late = _scheduler.TakeNext();
   _collector->Stop();
   _collector->Start();
   (*late)();
   EXPECT_EQ(_scheduler.GetWaiting(), 1u);
   _collector->Stop();
}

TEST_F(ScheduleTest, FailedAssertionEndsTheFlushAndTheNextRunStartsEmpty)
{
   _collector->collect = [this](int64_t ts) {
      const auto time = static_cast<TimeStamp>(ts);
      _collector->AddSample("e", kMemActive, time, 5, "", 0);
      _collector->AddSample("e", kMemActive, time, 6, "x", 0);
      if (time == 1000020) {
         _collector->AddSample("e", 0x7FFF, time, 7, "", 0);
         _collector->AddSample("e", kMemShared, time, 8, "", 0);
      }
   };
   _collector->Start();
   _scheduler.RunNext();
   EXPECT_EQ(_agent.logger->Count("3 Failed to add sample to statsDepot : "), 1);
   EXPECT_EQ(_agent.logger->Count("3 2 of the 4 samples of the newest collection are lost"), 1);
   EXPECT_EQ(Names("e"), (std::set<std::string>{"mem-active", "mem-active#x"}));
   EXPECT_EQ(Raw("e", "mem-active"), 5u);
   EXPECT_FALSE(_depot->IsLocked());
   _scheduler.RunNext();
   EXPECT_EQ(_agent.logger->CountLevel(3), 2);
   _collector->Stop();
}

TEST_F(ScheduleTest, RefusedSampleCostsNoOther)
{
   const auto add = [this](int64_t ts, const std::string& entity, int counterId) {
      _collector->AddSample(entity, counterId, static_cast<TimeStamp>(ts), 5, "", 0);
   };
   _collector->collect = [&](int64_t ts) {
      add(ts, "e", kMemActive);
      if (ts == 1000020) {
         add(ts, "", kMemActive); // a stat that cannot be created
         add(ts, "", kMemShared);
         _files.failAt = 1;
      }
      add(ts, "e", kMemShared);
   };
   _collector->Start();
   _scheduler.RunNext();
   EXPECT_EQ(Names("e"), (std::set<std::string>{"mem-shared"}));
   EXPECT_EQ(_agent.logger->Count("3 Failed to add sample to statsDepot : "), 2);
   EXPECT_EQ(_agent.logger->Count("statsDepot : Invalid argument"), 1);
   EXPECT_EQ(_collector->GetTrouble(),
             "3 of the 4 samples of the newest collection are lost: Cannot access a file of the "
             "test: No space left on device");
   _scheduler.RunNext();
   EXPECT_EQ(Names("e").size(), 2u);
   EXPECT_EQ(_collector->GetTrouble(), "");

   _collector->collect = [&](int64_t ts) {
      add(ts, "e", kMemActive);
      _files.failAt = 1; // the write of the row, when the batch ends
      _files.failAll = true;
   };
   _scheduler.RunNext();
   EXPECT_NE(_collector->GetTrouble(), "");
   _files.Recover();
   _collector->Stop();
}

TEST_F(ScheduleTest, ExceptionEndsItsRunOnly)
{
   const std::pair<std::function<void()>, const char*> cases[] = {
      {[] { throw Corvax::OutOfMemoryException(); }, "emory"},
      {[] { throw std::runtime_error("of another family"); }, "of another family"},
      {[] { throw 42; }, "unknown exception"},
   };
   _collector->Start();
   for (const auto& [fail, text] : cases) {
      _agent.logger->Clear();
      _collector->collect = [&, &action = fail](int64_t ts) {
         _collector->AddSample("e", kMemActive, static_cast<TimeStamp>(ts), 5, "", 0);
         action();
      };
      _scheduler.RunNext();
      EXPECT_EQ(_agent.logger->Count("3 A collection failed: "), 1);
      EXPECT_EQ(_agent.logger->Count(text), 1) << text;
      EXPECT_FALSE(_collector->IsLocked());
      EXPECT_EQ(_scheduler.GetWaiting(), 1u);
   }
   EXPECT_EQ(Raw("e", "mem-active"), 5u);
   _collector->Stop();
}

/// Two hundred seconds with a step of the clock, timed as by a timer thread.
TEST_F(ScheduleTest, StepsOfTheClockCostFewRuns)
{
   constexpr int64_t kDaySec = 86400;
   struct Case {
      const char* name;
      double stepSec;
      double fromSec; ///< in real time after 1000000
      double untilSec;
      std::vector<int64_t> runs; ///< after 1000000 by the clock
      int givenUp;               ///< messages
   };
   const Case cases[] = {
      {"none", 0, 0, 0, {20, 40, 60, 80, 100, 120, 140, 160}, 0},
      {"back within a second", -0.5, 45, 999, {20, 40, 60, 80, 100, 120, 140, 160}, 0},
      {"back by seconds", -3, 45, 999, {20, 40, 60, 80, 100, 120, 140, 160}, 0},
      {"back over a boundary", -30, 45, 999, {20, 40, 60, 80, 100, 120}, 0},
      {"back by an hour", -3600, 45, 999, {20, 40, -3539, -3520, -3500, -3480, -3460, -3440}, 1},
      {"a day ahead for one run", kDaySec, 45, 65, {20, 40, 81, 100, 120, 140, 160}, 0},
      {"a day ahead before a boundary", kDaySec, 59, 61, {20, 40, 81, 100, 120, 140, 160}, 0},
      {"a day ahead",
       kDaySec,
       45,
       999,
       {20, 40, kDaySec + 80, kDaySec + 100, kDaySec + 120, kDaySec + 140, kDaySec + 160},
       0},
   };
   for (const auto& [name, stepSec, fromSec, untilSec, wanted, givenUp] : cases) {
      std::vector<int64_t> runs;
      _depot->GiveUpColumnsAfter(0);
      _collector->collect = [&, &list = runs](int64_t ts) {
         list.push_back(ts - 1000000);
         _collector->AddSample("e", kMemActive, static_cast<TimeStamp>(ts), 5, "", 0);
      };
      _agent.logger->Clear();
      _clock.SetSeconds(1000007);
      _collector->Start();
      for (double sec = 7; sec < 165; sec += 0.125) {
         const double offsetSec = sec >= fromSec && sec < untilSec ? stepSec : 0;
         _clock.nowUs = static_cast<int64_t>((1000000 + sec + offsetSec) * 1e6);
         _clock.monotonicUs += 125000;
         _scheduler.RunIfDue();
      }
      _collector->Stop();
      EXPECT_EQ(runs, wanted) << name;
      const int64_t newest = (1000000 + wanted.back()) / 20 * 20;
      EXPECT_EQ(_depot->GetLatestTimeStamp(), static_cast<TimeStamp>(newest)) << name;
      EXPECT_EQ(_agent.logger->Count("columns ahead of it are given up"), givenUp) << name;
      EXPECT_LE(_agent.logger->Count("The clock "), 1) << name;
   }
}

TEST_F(ScheduleTest, FirstRunWaitsForAColumnAheadOfTheClock)
{
   _depot->CreateStat("e", "s", StatsDepot::STATTYPE_ABSOLUTE, 1, {});
   _depot->AddSample("e", "s", 1000060, 1, 0);
   std::vector<int64_t> runs;
   _collector->collect = [&](int64_t ts) { runs.push_back(ts); };
   _collector->Start();
   for (int i = 0; i < 4; ++i) {
      _scheduler.RunNext();
   }
   EXPECT_EQ(runs, (std::vector<int64_t>{1000080}));
   EXPECT_EQ(_agent.logger->Count("5 The clock was set back; "), 1);
   _collector->Stop();
}

TEST_F(ScheduleTest, FirstFlushAddsRollupsThatStatsLack)
{
   for (const std::string name : {"mem-active", "of an older catalogue"}) {
      _depot->CreateStat("e", name, StatsDepot::STATTYPE_ABSOLUTE, 1, {});
   }
   _depot->AddSample("e", "mem-active", 1000000, 1, 0);
   const auto hasRollup = [this] {
      std::vector<StatVal> values;
      _depot->GetSamples("e", "mem-active", 0, 2000000, values, nullptr, "",
                         StatsDepot::ROLLUP_AVERAGE);
      return !values.empty();
   };
   EXPECT_FALSE(hasRollup());
   _collector->Start();
   _scheduler.RunNext();
   EXPECT_TRUE(hasRollup());
   EXPECT_EQ(_agent.logger->CountLevel(3), 0);
   _collector->Stop();
}

} // namespace
