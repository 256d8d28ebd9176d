// Applies random operations to a depot and to a naive model, and compares their answers.

#include "corvax/exception.h"
#include "metrix/statsDepot.h"
#include "tests/fakes/captureLogger.h"
#include "tests/fakes/diskModel.h"
#include "tests/fakes/seed.h"
#include "tests/metrix/modelDepot.h"

#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <set>

namespace {

using namespace Metrix;

class DepotModelTest : public testing::Test {
protected:
   using Shape = std::vector<std::pair<int, unsigned>>; ///< period and samples of each interval

   void Play(const Shape& shape, uint64_t seed, const JournalOptions& options)
   {
      SCOPED_TRACE("METRIX_SEED=" + std::to_string(seed) + " checkpointSec " +
                   std::to_string(options.checkpointSec));
      _options = options;
      _random.seed(seed);
      _model = {};
      _depot = nullptr;
      _files.disk = Disk();
      Open();
      _depot->Create();
      for (const auto& [period, samples] : shape) {
         const std::string name = "every" + std::to_string(period);
         _depot->AddInterval(name, period, samples);
         _model.intervals.push_back({name, static_cast<uint64_t>(period), {samples, {}, {}}});
      }
      _now = 1000000 + Below(1000);
      for (int step = 0; step < 600 && !HasFailure();) {
         if (Below(30) == 0) {
            Reload();
         }
         const uint64_t together = Below(2) == 0 ? 1 : Below(12); // as a run does it
         std::optional<Corvax::Locker> lock;
         if (together > 1) {
            lock.emplace(_depot.Get());
         }
         for (uint64_t i = 0; i <= together; ++i, ++step) {
            Step();
         }
         if (Below(4) == 0) {
            Compare();
         }
      }
      Compare();
   }

private:
   void Open() { GetStatsDepot("/stats/", "model", _logger.Get(), 1000000, _depot, _options); }

   uint64_t Below(uint64_t limit) { return _random() % limit; }

   ModelDepot::Name SomeName()
   {
      return {"entity" + std::to_string(Below(3)), "stat" + std::to_string(Below(4))};
   }

   void Step()
   {
      const uint64_t fine = _model.intervals[0].period;
      const uint64_t coarse = _model.intervals[1].period;
      const uint64_t dice = Below(100);
      if (dice < 70) {
         _now += Below(2 * fine);
         Add(SomeName(), _now);
      } else if (dice < 78) {
         Add(SomeName(), _now - Below(4 * fine)); // back in time
      } else if (dice < 86) {
         _now += Below(10) == 0 ? Below(40 * coarse) : Below(3 * coarse); // a gap
      } else if (dice < 94) {
         const ModelDepot::Name name = SomeName();
         _depot->DeleteStat(name.first, name.second);
         _model.Delete(name);
      } else {
         const std::string entity = "entity" + std::to_string(Below(3));
         _depot->DeleteEntityStats(entity);
         for (const auto& name : NamesOf(entity)) {
            _model.Delete({entity, name});
         }
      }
   }

   void Add(const ModelDepot::Name& name, TimeStamp ts)
   {
      StatVal& counter = _counters[name];
      // Sometimes a reset, also to values whose sums wrap.
      counter = Below(20) == 0 ? Below(10) - Below(2) * 2000000 : counter + Below(1000);
      const StatVal maxVal = Below(4) == 0 ? 50 : 0;
      if (!_model.stats.contains(name)) {
         ASSERT_FALSE(_depot->AddSample(name.first, name.second, ts, counter, maxVal));
         Create(name);
      }
      bool isStored = true;
      try {
         ASSERT_TRUE(_depot->AddSample(name.first, name.second, ts, counter, maxVal));
      } catch (const Corvax::InvalidArgumentException&) {
         isStored = false;
      }
      ASSERT_EQ(isStored, _model.Add(name, ts, counter, maxVal)) << "reading at " << ts;
   }

   void Create(const ModelDepot::Name& name)
   {
      const auto type = static_cast<StatsDepot::StatType>(Below(3));
      const int factor = static_cast<int>(Below(3)) + 1;
      std::vector<StatsDepot::RollupType> rollups;
      for (const auto rollup :
           {StatsDepot::ROLLUP_AVERAGE, StatsDepot::ROLLUP_MAX, StatsDepot::ROLLUP_MIN,
            StatsDepot::ROLLUP_LAST, StatsDepot::ROLLUP_SUM}) {
         if (Below(3) == 0) {
            rollups.push_back(rollup);
         }
      }
      _depot->CreateStat(name.first, name.second, type, factor, rollups);
      _model.Create(name, type, factor, rollups);
   }

   void Reload()
   {
      Open();
      _depot->Load();
      _model.Reload();
   }

   std::set<std::string> NamesOf(const std::string& entity) const
   {
      std::set<std::string> names;
      for (const auto& [name, stat] : _model.stats) {
         if (name.first == entity) {
            names.insert(name.second);
         }
      }
      return names;
   }

   void Compare()
   {
      ASSERT_EQ(_depot->GetLatestTimeStamp(), _model.intervals[0].store.Latest());
      for (const std::string entity : {"entity0", "entity1", "entity2"}) {
         std::vector<std::string> names;
         _depot->GetAvailableStatNames(entity, kUnset, kUnset, names);
         ASSERT_EQ(std::set<std::string>(names.begin(), names.end()), NamesOf(entity));
      }
      for (const auto& [name, stat] : _model.stats) {
         for (const ModelDepot::Interval& interval : _model.intervals) {
            for (const auto& [rollup, id] : stat.ids) {
               CompareSeries(name, interval, rollup, id);
            }
         }
      }
   }

   void CompareSeries(const ModelDepot::Name& name, const ModelDepot::Interval& interval,
                      StatsDepot::RollupType rollup, StatId id)
   {
      const TimeStamp begin = Below(2) == 0 ? kUnset : _now - Below(5 * interval.period);
      const TimeStamp end = Below(2) == 0 ? kUnset : _now - Below(3 * interval.period);
      std::vector<StatVal> values;
      std::vector<TimeStamp> times;
      const int count = _depot->GetSamples(name.first, name.second, begin, end, values, &times,
                                           interval.name, rollup);
      std::vector<StatVal> wantedValues;
      std::vector<TimeStamp> wantedTimes;
      const int wanted = interval.store.Read(id, begin, end, wantedValues, wantedTimes);
      ASSERT_EQ(times, wantedTimes) << name.first << " " << name.second << " " << interval.name;
      ASSERT_EQ(values, wantedValues)
         << name.first << " " << name.second << " " << interval.name << " rollup " << rollup;
      ASSERT_EQ(count, wanted);
      for (size_t i = 0; i < times.size(); ++i) {
         ASSERT_EQ(_depot->GetSample(name.first, name.second, times[i], interval.name, rollup),
                   values[i]);
      }
   }

   DiskModel _files{Disk()}; // in memory, because every run is synced
   const Corvax::Ref<CaptureLogger> _logger = Corvax::MakeRef<CaptureLogger>();
   std::mt19937_64 _random;
   JournalOptions _options;
   Corvax::Ref<StatsDepot> _depot;
   ModelDepot _model;
   std::map<ModelDepot::Name, StatVal> _counters;
   TimeStamp _now = 0;
};

TEST_F(DepotModelTest, DepotAndModelGiveTheSameAnswers)
{
   const Shape shapes[] = {
      {{10, 3}, {30, 2}},          {{10, 2}, {20, 3}},           {{10, 6}, {30, 3}},
      {{10, 3}, {30, 3}, {60, 2}}, {{10, 20}, {30, 4}, {90, 3}}, {{7, 12}, {21, 5}},
   };
   uint64_t seed = NewSeed();
   for (int repeat = 0; repeat < 3 && !HasFailure(); ++repeat) {
      for (const Shape& shape : shapes) {
         for (const JournalOptions& options : {JournalOptions{}, {40, 1}, {600, 0}}) {
            Play(shape, seed, options);
         }
         if (HasFailure()) {
            return;
         }
      }
      ++seed;
   }
}

/// The files of a depot after its ring has wrapped and everything is laid down. Stats miss runs.
std::map<std::string, std::string> WriteFiles(unsigned columns, const JournalOptions& options)
{
   DiskModel files{Disk()};
   Corvax::Ref<StatsDepot> depot;
   const auto logger = Corvax::MakeRef<CaptureLogger>();
   GetStatsDepot("/stats/", "d", logger.Get(), 1000, depot, options);
   depot->Create();
   depot->AddInterval("fine", 1, columns);
   depot->AddInterval("coarse", 10, columns / 10);
   for (TimeStamp run = 0; run < columns + columns / 4; ++run) {
      const Corvax::Locker lock(depot.Get());
      for (TimeStamp stat = 0; stat < 20; ++stat) {
         const std::string name = "stat" + std::to_string(stat);
         if (run == 0) {
            depot->CreateStat("e", name, StatsDepot::STATTYPE_ABSOLUTE, 1,
                              {StatsDepot::ROLLUP_MAX});
         }
         if (run % (stat + 2) < 2 || (run / 70 % 3 != 1 && stat % 2 == 0)) {
            depot->AddSample("e", name, 1000000 + run, 1000 * run + stat, 0);
         }
      }
      depot->Flush();
      files.log.clear();
   }
   depot->Checkpoint();
   std::map<std::string, std::string> contents;
   for (const auto& [name, file] : files.disk.GetNames()) {
      if (name.ends_with(".stats") || name.ends_with(".idMap")) {
         contents[name] = files.disk.GetContent(file);
      }
   }
   return contents;
}

TEST(DepotFilesTest, AJournalChangesNoByteOfTheOtherFiles)
{
   for (const unsigned columns : {100U, 600U}) { // short rows, and rows that are extended
      const auto straight = WriteFiles(columns, {});
      const auto journaled = WriteFiles(columns, {40, 1});
      ASSERT_EQ(straight.size(), 3u);
      for (const auto& [name, content] : straight) {
         EXPECT_TRUE(journaled.at(name) == content) << name << ", " << columns << " columns";
      }
   }
}

} // namespace
