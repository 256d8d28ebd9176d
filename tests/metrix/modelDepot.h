#pragma once

#include "metrix/slotUsageMap.h"
#include "metrix/statsDepot.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <map>
#include <numeric>

namespace Metrix {

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

/// A naive depot in memory.
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

} // namespace Metrix
