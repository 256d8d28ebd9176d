// Applies random operations to a depot and to a naive model, and compares their answers.

#include "corvax/exception.h"
#include "metrix/slotUsageMap.h"
#include "metrix/statsDepot.h"
#include "tests/fakes/captureLogger.h"
#include "tests/fakes/scratch.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <deque>
#include <iostream>
#include <map>
#include <numeric>
#include <optional>
#include <random>
#include <set>

namespace {

using namespace Metrix;

/// A store: columns in time order, and for each row the samples up to its last.
struct ModelStore {
   struct Row {
      TimeStamp last;
      std::map<TimeStamp, StatVal> samples;
   };

   size_t numSamples;
   std::deque<TimeStamp> columns;
   std::map<StatId, Row> rows;

   TimeStamp Latest() const { return columns.empty() ? kUnset : columns.back(); }

   bool Add(StatId id, TimeStamp ts, StatVal value)
   {
      if (columns.empty() || ts > columns.back()) {
         columns.push_back(ts);
         if (columns.size() > numSamples) {
            columns.pop_front();
         }
      } else if (std::ranges::find(columns, ts) == columns.end()) {
         return false;
      }
      if (rows.contains(id) && ts <= rows.at(id).last) {
         rows.erase(id); // a sample that is not newer starts the row over
      }
      rows[id].last = ts;
      rows[id].samples[ts] = value;
      return true;
   }

   int Read(StatId id, TimeStamp begin, TimeStamp end, std::vector<StatVal>& values,
            std::vector<TimeStamp>& times) const
   {
      for (const TimeStamp ts : columns) {
         if ((begin != kUnset && ts < begin) || ts > end) {
            continue;
         }
         const auto row = rows.find(id);
         const bool has = row != rows.end() && row->second.samples.contains(ts);
         values.push_back(has ? row->second.samples.at(ts) : kUnset);
         times.push_back(ts);
      }
      return static_cast<int>(std::ranges::count_if(values, [](StatVal v) { return v != kUnset; }));
   }
};

struct ModelDepot {
   struct Interval {
      std::string name;
      uint64_t period;
      ModelStore store;
   };
   struct Stat {
      StatsDepot::StatType type;
      int factor;
      std::vector<std::pair<StatsDepot::RollupType, StatId>> ids; // the raw one first
      TimeStamp last = kUnset;
      StatVal lastVal = kUnset;
   };
   using Name = std::pair<std::string, std::string>;

   std::vector<Interval> intervals;
   std::map<Name, Stat> stats;
   Corvax::Ref<SlotUsageMap> slots = Corvax::MakeRef<SlotUsageMap>(200);
   TimeStamp next = kUnset;
   int records = 0;

   void Create(const Name& name, StatsDepot::StatType type, int factor,
               const std::vector<StatsDepot::RollupType>& rollups)
   {
      Stat& stat = stats[name] = {type, factor, {}};
      std::vector all{StatsDepot::ROLLUP_NONE};
      all.insert(all.end(), rollups.begin(), rollups.end());
      for (const auto rollup : all) {
         const int slot = slots->FindFirstFreeSlot();
         slots->MarkSlotUsed(slot);
         records = std::max(records, slot + 1);
         stat.ids.emplace_back(rollup, static_cast<StatId>(slot));
      }
   }

   void Delete(const Name& name)
   {
      if (!stats.contains(name)) {
         return;
      }
      for (const auto& [rollup, id] : stats.at(name).ids) {
         slots->MarkSlotFree(static_cast<int>(id));
         for (Interval& interval : intervals) {
            interval.store.rows.erase(id);
         }
      }
      stats.erase(name);
   }

   void Reload()
   {
      slots = Corvax::MakeRef<SlotUsageMap>(records);
      for (auto& [name, stat] : stats) {
         stat.last = stat.lastVal = kUnset;
         for (const auto& [rollup, id] : stat.ids) {
            slots->MarkSlotUsed(static_cast<int>(id));
         }
      }
      next = kUnset;
   }

   /// False if the depot must refuse the reading.
   bool Add(const Name& name, TimeStamp ts, StatVal value, StatVal maxVal)
   {
      Stat& stat = stats.at(name);
      const uint64_t period = intervals[0].period;
      const bool grew = stat.last != kUnset && ts > stat.last && ts - stat.last < 2 * period &&
                        value >= stat.lastVal;
      if (stat.type == StatsDepot::STATTYPE_ABSOLUTE || grew) {
         StatVal stored = value;
         if (stat.type != StatsDepot::STATTYPE_ABSOLUTE) {
            stored = static_cast<StatVal>(stat.factor) * (value - stat.lastVal);
            stored /= stat.type == StatsDepot::STATTYPE_RATE ? ts - stat.last : 1;
         }
         stored = maxVal ? std::min(stored, maxVal) : stored;
         if (!intervals[0].store.Add(stat.ids[0].second, ts / period * period, stored)) {
            return false;
         }
      }
      stat.last = ts;
      stat.lastVal = value;
      if (next == kUnset || ts >= next) {
         if (next != kUnset) {
            for (size_t i = 1; i < intervals.size(); ++i) {
               RollUp(i, ts);
            }
            Purge();
         }
         next = ts + intervals[1].period;
      }
      return true;
   }

   void RollUp(size_t level, TimeStamp ts)
   {
      Interval& coarse = intervals[level];
      const Interval& fine = intervals[level - 1];
      const TimeStamp latest = coarse.store.Latest();
      if (latest != kUnset && latest + coarse.period >= ts) {
         return;
      }
      TimeStamp begin = latest + fine.period;
      TimeStamp end = latest + coarse.period;
      if (latest == kUnset) {
         begin = fine.store.columns.empty() ? 0 : fine.store.columns.front();
         end = (begin + coarse.period - fine.period) / coarse.period * coarse.period;
      }
      std::deque<std::pair<TimeStamp, TimeStamp>> periods;
      for (; end < ts; begin += coarse.period, end += coarse.period) {
         periods.emplace_back(begin, end);
         if (periods.size() > coarse.store.numSamples) {
            periods.pop_front();
         }
      }
      for (int id = 0; id < slots->GetSize(); ++id) {
         if (slots->IsSlotUsed(id)) {
            RollUpStat(static_cast<StatId>(id), level, periods);
         }
      }
   }

   void RollUpStat(StatId id, size_t level, const std::deque<std::pair<TimeStamp, TimeStamp>>& due)
   {
      ModelStore& coarse = intervals[level].store;
      const auto add = [&](StatId target, TimeStamp end, StatVal value) {
         for (const auto& [begin, missing] : due) { // columns are added in order
            if (missing < end && (coarse.columns.empty() || missing > coarse.Latest())) {
               ASSERT_TRUE(coarse.Add(target, missing, kUnset));
            }
         }
         ASSERT_TRUE(coarse.Add(target, end, value));
      };
      for (const auto& [begin, end] : due) {
         std::vector<StatVal> samples;
         std::vector<TimeStamp> times;
         if (intervals[level - 1].store.Read(id, begin, end, samples, times) == 0) {
            if (id == 0) {
               add(0, end, kUnset);
            }
            continue;
         }
         for (const auto& [name, stat] : stats) {
            for (const auto& [rollup, statId] : stat.ids) {
               if (statId == id && id != stat.ids[0].second) {
                  add(id, end, Summary(rollup, samples));
               } else if (stat.ids[0].second == id && rollup != StatsDepot::ROLLUP_NONE) {
                  add(statId, end, Summary(rollup, samples));
               }
            }
         }
      }
   }

   static StatVal Summary(StatsDepot::RollupType rollup, std::vector<StatVal> samples)
   {
      std::erase(samples, kUnset);
      const StatVal sum = std::accumulate(samples.begin(), samples.end(), StatVal{0});
      const std::map<StatsDepot::RollupType, StatVal> summaries = {
         {StatsDepot::ROLLUP_AVERAGE, sum / samples.size()},
         {StatsDepot::ROLLUP_MAX, std::ranges::max(samples)},
         {StatsDepot::ROLLUP_MIN, std::ranges::min(samples)},
         {StatsDepot::ROLLUP_LAST, samples.back()},
         {StatsDepot::ROLLUP_SUM, sum},
         {StatsDepot::ROLLUP_NONE, kUnset}};
      return summaries.at(rollup);
   }

   void Purge()
   {
      TimeStamp earliest = kUnset;
      for (const Interval& interval : intervals) {
         if (!interval.store.columns.empty()) {
            earliest = std::min(earliest, interval.store.columns.front());
         }
      }
      std::vector<Name> stale;
      for (auto& [name, stat] : stats) {
         if (stat.last == kUnset) {
            stat.last = 0;
            const size_t levels = stat.ids.size() > 1 ? intervals.size() : 1;
            for (size_t i = 0; i < levels && stat.last == 0; ++i) {
               const StatId id = i == 0 ? stat.ids.front().second : stat.ids.back().second;
               const auto row = intervals[i].store.rows.find(id);
               stat.last = row == intervals[i].store.rows.end() ? 0 : row->second.last;
            }
         }
         if (earliest != kUnset && stat.last < earliest) {
            stale.push_back(name);
         }
      }
      for (const Name& name : stale) {
         Delete(name);
      }
   }
};

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
   void Open()
   {
      GetStatsDepot(_scratch.Path(), "model", _logger.Get(), 1000000, _depot, _options);
   }

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
      counter = Below(20) == 0 ? Below(10) : counter + Below(1000); // sometimes a reset
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

   const Scratch _scratch;
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
   const char* const fixed = std::getenv("METRIX_SEED");
   uint64_t seed = fixed ? std::strtoull(fixed, nullptr, 10) : std::random_device{}();
   std::cout << "METRIX_SEED=" << seed << "\n";
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

} // namespace
