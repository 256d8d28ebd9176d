#include "metrix/statsDepot.h"
#include "tests/fakes/captureLogger.h"
#include "tests/fakes/scratch.h"

#include <gtest/gtest.h>

#include <barrier>
#include <thread>

namespace {

using namespace Metrix;
using enum StatsDepot::RollupType;

constexpr TimeStamp kPeriod = 10, kEnd = 400, kEntities = 60;

class DepotThreadsTest : public testing::TestWithParam<unsigned> {
protected:
   void Open()
   {
      _depot = nullptr; // its lock, too
      const auto logger = Corvax::MakeRef<CaptureLogger>();
      GetStatsDepot(_scratch.Path(), "d", logger.Get(), 99, _depot, {2 * kPeriod, 1});
   }
   void Record(TimeStamp first, TimeStamp end, TimeStamp ts)
   {
      const Corvax::Locker lock(_depot.Get());
      for (TimeStamp entity = first; entity < end; ++entity) {
         const std::string id = std::to_string(entity);
         while (!_depot->AddSample(id, "stat", ts, ts + entity, 0)) {
            _depot->CreateStat(id, "stat", StatsDepot::STATTYPE_ABSOLUTE, 1, {ROLLUP_MAX});
         }
      }
   }
   void ExpectAll()
   {
      for (TimeStamp i = 0; i < 2 * kEntities; ++i) {
         const Corvax::Locker lock(_depot.Get());
         EXPECT_EQ(_depot->GetTrouble(), "");
         const bool isFine = i < kEntities;
         std::vector<StatVal> values;
         std::vector<TimeStamp> times;
         _depot->GetSamples(std::to_string(i % kEntities), "stat", kUnset, kUnset, values, &times,
                            isFine ? "fine" : "coarse", isFine ? ROLLUP_NONE : ROLLUP_MAX);
         EXPECT_TRUE(!isFine || times.back() == _depot->GetLatestTimeStamp());
         for (size_t column = 0; column < times.size(); ++column) {
            EXPECT_EQ(values[column], times[column] + i % kEntities) << "stamp " << times[column];
         }
      }
   }
   const Scratch _scratch;
   Corvax::Ref<StatsDepot> _depot;
};

/// Each thread that commits lays rows down afterwards, without the lock in between.
TEST_P(DepotThreadsTest, NothingIsLostOrInvented)
{
   Open();
   _depot->Create();
   _depot->AddInterval("fine", kPeriod, GetParam());
   _depot->AddInterval("coarse", 3 * kPeriod, 10);
   Record(0, kEntities, kPeriod);
   std::barrier round(3); // keeps the threads side by side
   const auto run = [&round](auto step) {
      for (TimeStamp ts = 2 * kPeriod; ts <= kEnd; ts += kPeriod) {
         round.arrive_and_wait();
         step(ts);
      }
   };
   std::thread records(run, [this](TimeStamp ts) { Record(0, kEntities, ts); });
   std::thread queries(run, [this](TimeStamp /*ts*/) { ExpectAll(); });
   run([this](TimeStamp ts) { // another entity comes, with a late sample, and the last one goes
      Record(1000 + ts, 1001 + ts, ts - kPeriod);
      const Corvax::Locker lock(_depot.Get());
      _depot->DeleteEntityStats(std::to_string(1000 + ts - kPeriod));
   });
   records.join();
   queries.join();
   Open();
   _depot->Load();
   EXPECT_EQ(_depot->GetLatestTimeStamp(), kEnd);
   ExpectAll();
   EXPECT_EQ(_depot->GetSample("1400", "stat", kEnd - kPeriod, "", ROLLUP_NONE), 1790u);
   EXPECT_FALSE(_depot->AddSample("1390", "stat", kEnd, 0, 0));
}

// Rows that are laid down whole, in a ring that wraps; long ones, in several slices.
INSTANTIATE_TEST_SUITE_P(RingSizes, DepotThreadsTest, testing::Values(20U, 3600U));

} // namespace
