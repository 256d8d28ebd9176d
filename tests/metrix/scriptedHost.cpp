#include "tests/metrix/scriptedHost.h"

#include "corvax/exception.h"

#include <algorithm>
#include <iterator>
#include <sstream>

namespace Metrix {

namespace {

constexpr std::pair<int, unsigned> kIntervalTable[] = {{10, 60}, {50, 12}}; // period, samples
constexpr int kEntities = 5;
constexpr int kStatsOfEntity = 8;

std::string IntervalName(int level)
{
   return "every" + std::to_string(kIntervalTable[level].first);
}

const Samples& Find(const Picture& picture, const SeriesKey& key)
{
   static const Samples kNone;
   const auto found = picture.find(key);
   return found == picture.end() ? kNone : found->second;
}

void AddStat(StatsDepot& depot, const std::string& entityId, int stat, Picture& picture)
{
   auto rollups = ScriptedHost::RollupsOf(stat);
   rollups.push_back(StatsDepot::ROLLUP_NONE);
   std::vector<StatVal> values;
   std::vector<TimeStamp> times;
   for (int level = 0; level < ScriptedHost::kIntervals; ++level) {
      Samples& columns = picture[{"", "", level, 0}];
      for (const auto rollup : rollups) {
         times.assign(1, kUnset);
         depot.GetSamples(entityId, ScriptedHost::StatName(stat), kUnset, kUnset, values, &times,
                          IntervalName(level), rollup);
         if (times.size() == 1 && times[0] == kUnset) {
            continue; // the stat lacks this rollup
         }
         Samples& samples = picture[{entityId, ScriptedHost::StatName(stat), level, rollup}];
         columns.clear();
         for (size_t i = 0; i < times.size(); ++i) {
            columns.emplace_back(times[i], 0);
            if (values[i] != kUnset) {
               samples.emplace_back(times[i], values[i]);
            }
         }
      }
   }
}

} // namespace

Picture PictureOf(StatsDepot& depot)
{
   Picture picture;
   std::vector<std::string> names;
   for (int entity = 0; entity < kEntities; ++entity) {
      depot.GetAvailableStatNames(ScriptedHost::EntityName(entity), kUnset, kUnset, names);
      for (int stat = 0; stat < kStatsOfEntity; ++stat) {
         if (std::ranges::find(names, ScriptedHost::StatName(stat)) != names.end()) {
            AddStat(depot, ScriptedHost::EntityName(entity), stat, picture);
         }
      }
   }
   return picture;
}

Picture PictureOf(const ModelDepot& model)
{
   Picture picture;
   for (const auto& [name, stat] : model.stats) {
      for (int level = 0; level < ScriptedHost::kIntervals; ++level) {
         const ModelStore& store = model.intervals[static_cast<size_t>(level)].store;
         Samples& columns = picture[{"", "", level, 0}];
         columns.clear();
         for (const TimeStamp ts : store.columns) {
            columns.emplace_back(ts, 0);
         }
         for (const auto& [rollup, id] : stat.ids) {
            Samples& samples = picture[{name.first, name.second, level, rollup}];
            const auto row = store.rows.find(id);
            if (row == store.rows.end()) {
               continue;
            }
            for (const auto& [ts, value] : row->second.samples) {
               if (value != kUnset && ts >= store.columns.front()) {
                  samples.emplace_back(ts, value);
               }
            }
         }
      }
   }
   return picture;
}

ModelDepot ModelOf(const Picture& picture)
{
   ModelDepot model;
   for (int level = 0; level < ScriptedHost::kIntervals; ++level) {
      const auto [period, samples] = kIntervalTable[level];
      model.intervals.push_back(
         {IntervalName(level), static_cast<uint64_t>(period), {samples, {}, {}}});
   }
   for (const auto& [key, samples] : picture) {
      const auto& [entityId, statName, level, rollup] = key;
      ModelStore& store = model.intervals[static_cast<size_t>(level)].store;
      if (entityId.empty()) {
         for (const auto& [ts, value] : samples) {
            store.columns.push_back(ts);
         }
         continue;
      }
      ModelDepot::Stat& stat = model.stats[{entityId, statName}];
      stat.factor = 1;
      if (level == 0) {
         stat.ids.emplace_back(static_cast<StatsDepot::RollupType>(rollup), model.records++);
      }
      for (const auto& [type, id] : stat.ids) {
         if (type == rollup && !samples.empty()) {
            store.rows[id] = {samples.back().first, {samples.begin(), samples.end()}};
         }
      }
   }
   model.Reload();
   return model;
}

std::string FindForeign(const Picture& shown, const Picture& before, const Picture& after)
{
   Picture all = shown;
   all.insert(before.begin(), before.end());
   std::ostringstream text;
   for (const auto& [key, ignored] : all) {
      const Samples& samples = Find(shown, key);
      const Samples& old = Find(before, key);
      const Samples& coming = Find(after, key);
      Samples both;
      Samples either;
      Samples foreign;
      std::ranges::set_intersection(old, coming, std::back_inserter(both));
      std::ranges::set_union(old, coming, std::back_inserter(either));
      std::ranges::set_difference(both, samples, std::back_inserter(foreign));
      const size_t lost = foreign.size();
      std::ranges::set_difference(samples, either, std::back_inserter(foreign));
      if (!foreign.empty()) {
         const auto& [entityId, statName, level, rollup] = key;
         text << entityId << " " << statName << " " << IntervalName(level) << " rollup " << rollup
              << ": " << lost << " lost, " << foreign.size() - lost << " invented, first "
              << foreign.front().second << " at " << foreign.front().first << "\n";
      }
   }
   return text.str();
}

std::string ScriptedHost::EntityName(int entity)
{
   return "vm" + std::to_string(entity);
}

std::string ScriptedHost::StatName(int stat)
{
   return "stat" + std::to_string(stat);
}

std::vector<StatsDepot::RollupType> ScriptedHost::RollupsOf(int stat)
{
   using enum StatsDepot::RollupType;
   const std::vector<StatsDepot::RollupType> choices[] = {
      {}, {ROLLUP_AVERAGE, ROLLUP_MAX, ROLLUP_MIN}, {ROLLUP_LAST}, {ROLLUP_SUM}};
   return choices[stat % 4];
}

void ScriptedHost::Create(StatsDepot& depot)
{
   depot.Create();
   for (int level = 0; level < kIntervals; ++level) {
      depot.AddInterval(IntervalName(level), kIntervalTable[level].first,
                        kIntervalTable[level].second);
   }
   model = ModelOf({});
   isNew = false;
}

bool ScriptedHost::Has(int entity) const
{
   const int phase = run % 120;
   switch (entity) {
   case 2: // deleted, and back with the ids that it had
      return phase % 40 < 12 || phase % 40 > 15;
   case 3: // away until it is purged
      return phase < 22 || phase > 100;
   case 4:
      return phase >= 18;
   default:
      return true;
   }
}

bool ScriptedHost::Has(int entity, int stat) const
{
   const bool missesOne = stat == 2 && run % 7 == 3;
   const bool missesMany = stat == 5 && run % 47 > 22; // more than a head keeps
   return Has(entity) && !missesOne && !missesMany;
}

void ScriptedHost::Collect(StatsDepot& depot)
{
   ++run;
   now += run % 120 == 55 ? 140 : 10;
   const Corvax::Locker lock(&depot);
   if (!Has(2)) {
      depot.DeleteEntityStats(EntityName(2));
      for (int stat = 0; stat < kStatsOfEntity; ++stat) {
         model.Delete({EntityName(2), StatName(stat)});
      }
   }
   if (run % 40 == 30) { // its ids are free for a moment
      depot.DeleteStat(EntityName(1), StatName(1));
      model.Delete({EntityName(1), StatName(1)});
   }
   for (int entity = 0; entity < kEntities; ++entity) {
      for (int stat = 0; stat < kStatsOfEntity; ++stat) {
         if (!Has(entity, stat)) {
            continue;
         }
         const int index = entity * kStatsOfEntity + stat;
         Add(depot, {EntityName(entity), StatName(stat)}, stat,
             now * 1000 + static_cast<uint64_t>(index)); // no other sample has that value
      }
   }
   depot.Flush();
}

void ScriptedHost::Add(StatsDepot& depot, const ModelDepot::Name& name, int stat, StatVal value)
{
   if (!model.stats.contains(name)) {
      ASSERT_FALSE(depot.AddSample(name.first, name.second, now, value, 0));
      const auto rollups = RollupsOf(stat);
      depot.CreateStat(name.first, name.second, StatsDepot::STATTYPE_ABSOLUTE, 1, rollups);
      model.Create(name, StatsDepot::STATTYPE_ABSOLUTE, 1, rollups);
   }
   ASSERT_TRUE(depot.AddSample(name.first, name.second, now, value, 0));
   ASSERT_TRUE(model.Add(name, now, value, 0));
}

} // namespace Metrix
