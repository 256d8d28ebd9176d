#include "tests/simHost/simOracle.h"

#include "corvax/exception.h"
#include "corvax/format.h"
#include "simHost/simState.h"

#include <algorithm>
#include <fstream>
#include <numeric>
#include <ranges>

using namespace SimHost;
using Metrix::kUnset;
using Metrix::StatsDepot;

namespace {

using Kind = SimStat::Kind;
using Series = std::map<uint64_t, uint64_t>; // samples by stamp, absent ones unset

constexpr uint64_t kCoarsePeriodSec = 300;
constexpr char kHost[] = "ha-host";
const std::string kRollupNames[] = {"raw", "average", "max", "min", "last", "sum"};

/// The stamps are all columns' if the stat exists; empty otherwise.
Series ReadSeries(StatsDepot& depot, const std::string& entity, const std::string& stat,
                  const std::string& interval, StatsDepot::RollupType rollup)
{
   std::vector<uint64_t> values;
   std::vector<uint64_t> stamps;
   depot.GetSamples(entity, stat, kUnset, kUnset, values, &stamps, interval, rollup);
   Series series;
   for (size_t i = 0; i < values.size(); ++i) {
      series[stamps[i]] = values[i];
   }
   return series;
}

std::string Field(const char* field)
{
   return std::string(field, std::find(field, field + 256, '\0'));
}

/// Entity and stat name of every record in use, by docs/formats/idMap.md.
std::set<std::pair<std::string, std::string>> ReadIdMap(const std::string& path)
{
   std::ifstream file(path, std::ios::binary);
   std::set<std::pair<std::string, std::string>> stats;
   for (char record[524]; file.read(record, sizeof record);) {
      if (record[0] != '\0') {
         stats.emplace(Field(record), Field(record + 256));
      }
   }
   return stats;
}

std::string Text(uint64_t value)
{
   return value == kUnset ? "none" : std::to_string(value);
}

bool Keeps(Kind kind, StatsDepot::RollupType rollup)
{
   if (kind == Kind::LATEST || kind == Kind::GROWTH) {
      return rollup == (kind == Kind::LATEST ? StatsDepot::ROLLUP_LAST : StatsDepot::ROLLUP_SUM);
   }
   return rollup == StatsDepot::ROLLUP_AVERAGE ||
          ((kind == Kind::GAUGE || kind == Kind::RATE) &&
           (rollup == StatsDepot::ROLLUP_MAX || rollup == StatsDepot::ROLLUP_MIN));
}

uint64_t RollUp(const std::vector<uint64_t>& values, StatsDepot::RollupType rollup)
{
   const uint64_t sum = std::accumulate(values.begin(), values.end(), uint64_t{0});
   switch (rollup) {
   case StatsDepot::ROLLUP_AVERAGE:
      return sum / values.size();
   case StatsDepot::ROLLUP_MAX:
      return std::ranges::max(values);
   case StatsDepot::ROLLUP_MIN:
      return std::ranges::min(values);
   case StatsDepot::ROLLUP_LAST:
      return values.back();
   default:
      return sum;
   }
}

/// The absolute stats of an entity that show which of its parts a run has read.
struct Marks {
   Series cpu;
   Series memory; // of a VM only

   uint8_t GetReads(uint64_t stamp) const
   {
      const auto has = [stamp](const Series& series) {
         const auto sample = series.find(stamp);
         return sample != series.end() && sample->second != kUnset;
      };
      return static_cast<uint8_t>((has(cpu) ? SimStat::kCpu : SimStat::kNothing) |
                                  (has(memory) ? SimStat::kMemory : SimStat::kNothing));
   }
};

std::map<std::string, Marks> ReadMarks(StatsDepot& depot, const std::string& interval,
                                       const std::map<std::string, SimStatTable>& stats)
{
   std::map<std::string, Marks> marks;
   for (const auto& [entity, table] : stats) {
      const auto series = [&, id = entity](const char* stat) {
         return ReadSeries(depot, id, stat, interval, StatsDepot::ROLLUP_NONE);
      };
      if (entity == kHost) {
         continue;
      }
      const bool isVm = table.contains("sys-uptime");
      marks[entity] = isVm ? Marks{series("sys-uptime"), series("mem-granted")}
                           : Marks{series("mem-granted"), {}};
   }
   return marks;
}

} // namespace

SimOracle::SimOracle(const SimOptions& options, uint64_t finePeriodSec)
   : _finePeriodSec(finePeriodSec)
{
   const auto add = [this](const std::string& entity, SimStatTable table, uint8_t reads) {
      _stats[entity] = std::move(table);
      SetReads(entity, reads);
   };
   add(kHost, MakeHostStats(options, kHost), SimStat::kCpu);
   add(kRootPoolId, MakePoolStats(options, kRootPoolId), SimStat::kCpu);
   for (uint64_t i = 1; i <= options.pools; ++i) {
      add(GetPoolId(i), MakePoolStats(options, GetPoolId(i)), SimStat::kCpu);
   }
   for (uint64_t i = 1; i <= options.vms; ++i) {
      const uint8_t working = i + options.failing > options.vms ? SimStat::kCpu : SimStat::kAll;
      add(GetVmId(i), MakeVmStats(options, GetVmId(i)),
          i <= options.stuck ? uint8_t{SimStat::kNothing} : working);
   }
}

void SimOracle::AddRun(const Run& run)
{
   _nextRollup = run.isFirst ? kUnset : _nextRollup;
   if (_nextRollup == kUnset || run.timeSec >= _nextRollup) {
      // The run's first sample rolls up the periods that end before it.
      for (TimeStamp end = GetNextPeriodEnd(run.timeSec);
           _nextRollup != kUnset && end < run.timeSec; end += kCoarsePeriodSec) {
         _coarsePeriods[end] = _runs.size();
      }
      _nextRollup = run.timeSec + kCoarsePeriodSec;
   }
   for (const auto& [entity, reads] : _currentReads) {
      _reads[entity][_runs.size()] = reads;
   }
   _runs.push_back(run);
}

Metrix::TimeStamp SimOracle::GetNextPeriodEnd(TimeStamp timeSec) const
{
   if (!_coarsePeriods.empty()) {
      return _coarsePeriods.rbegin()->first + kCoarsePeriodSec;
   }
   const TimeStamp firstStamp = _runs.empty() ? timeSec : GetStamp(_runs.front());
   const TimeStamp end = firstStamp + kCoarsePeriodSec - _finePeriodSec;
   return end - end % kCoarsePeriodSec;
}

uint8_t SimOracle::GetReads(const std::string& entity, size_t run) const
{
   const auto runs = _reads.find(entity);
   return runs != _reads.end() && runs->second.contains(run) ? runs->second.at(run)
                                                             : uint8_t{SimStat::kNothing};
}

std::optional<uint64_t> SimOracle::ExpectedRaw(const std::string& entity, const SimStat& stat,
                                               size_t run) const
{
   if ((GetReads(entity, run) & stat.part) == 0) {
      return std::nullopt;
   }
   const auto cut = [&](uint64_t value) {
      return stat.limit > 0 ? std::min(value, stat.limit) : value;
   };
   const uint64_t reading = stat.read(static_cast<int64_t>(_runs[run].readSec));
   if (stat.kind == Kind::GAUGE || stat.kind == Kind::GAUGE_AVERAGE || stat.kind == Kind::LATEST) {
      return cut(reading);
   }
   size_t last = run;
   do {
      if (last == 0 || _runs[last].isFirst) {
         return std::nullopt;
      }
      --last;
   } while ((GetReads(entity, last) & stat.part) == 0);
   const uint64_t passed = _runs[run].timeSec - _runs[last].timeSec;
   const uint64_t before = stat.read(static_cast<int64_t>(_runs[last].readSec));
   if (passed >= 2 * _finePeriodSec || reading < before) {
      return std::nullopt;
   }
   return cut(stat.kind == Kind::GROWTH ? reading - before : (reading - before) / passed);
}

/// The raw samples of a coarse period, of the runs before `limit`.
std::vector<uint64_t> SimOracle::ExpectedInPeriod(const std::string& entity, const SimStat& stat,
                                                  TimeStamp end, size_t limit) const
{
   const auto getStamp = [this](const Run& run) { return GetStamp(run); };
   const auto first = std::ranges::upper_bound(_runs, end - kCoarsePeriodSec, {}, getStamp);
   std::vector<uint64_t> values;
   for (auto run = static_cast<size_t>(first - _runs.begin());
        run < std::min(limit, _runs.size()) && GetStamp(_runs[run]) <= end; ++run) {
      if (const auto value = ExpectedRaw(entity, stat, run)) {
         values.push_back(*value);
      }
   }
   return values;
}

std::optional<uint64_t> SimOracle::ExpectedRollup(const std::string& entity,
                                                  const std::string& statName, const SimStat& stat,
                                                  RollupType rollup, TimeStamp end) const
{
   const auto period = _coarsePeriods.find(end);
   if (period == _coarsePeriods.end()) {
      return std::nullopt;
   }
   // Of the run that rolls up, only the host's first sample is in the store already.
   const size_t limit = period->second + (entity == kHost && statName == "cpu-usage#0" ? 1 : 0);
   const std::vector<uint64_t> values = ExpectedInPeriod(entity, stat, end, limit);
   return values.empty() ? std::nullopt : std::optional(RollUp(values, rollup));
}

const SimOracle::Run* SimOracle::FindRun(TimeStamp stamp) const
{
   const auto run = std::ranges::lower_bound(_runs, stamp, {},
                                             [this](const Run& each) { return GetStamp(each); });
   return run == _runs.end() || GetStamp(*run) != stamp ? nullptr : &*run;
}

std::optional<uint64_t> SimOracle::Expected(const std::string& entity, const std::string& statName,
                                            RollupType rollup, bool isFinest, TimeStamp stamp) const
{
   const auto stats = _stats.find(entity);
   if (isFinest != (rollup == StatsDepot::ROLLUP_NONE) || stats == _stats.end() ||
       !stats->second.contains(statName)) {
      return std::nullopt;
   }
   const SimStat& stat = stats->second.at(statName);
   if (!isFinest) {
      return Keeps(stat.kind, rollup) ? ExpectedRollup(entity, statName, stat, rollup, stamp)
                                      : std::nullopt;
   }
   const Run* const run = FindRun(stamp);
   return run ? ExpectedRaw(entity, stat, static_cast<size_t>(run - _runs.data())) : std::nullopt;
}

SimOracle SimOracle::FromRuns(StatsDepot& depot, const SimOptions& options,
                              const std::vector<Run>& runs)
{
   Corvax::RefVector<Metrix::StatsDepotInterval> intervals;
   depot.GetIntervals(intervals);
   const Metrix::StatsDepotInterval& finest = *intervals[0];
   SimOracle oracle(options, static_cast<uint64_t>(finest.samplingPeriod));
   std::map<std::string, Marks> marks;
   if (options.events > 0 || !options.script.empty()) {
      if (runs.size() > static_cast<size_t>(finest.numSamples)) {
         throw Corvax::Exception("The depot no longer shows what its oldest runs have read");
      }
      marks = ReadMarks(depot, finest.name, oracle._stats);
   }
   const Series uptimes =
      ReadSeries(depot, kHost, "sys-uptime", finest.name, StatsDepot::ROLLUP_NONE);
   for (Run run : runs) {
      const TimeStamp stamp = oracle.GetStamp(run);
      for (const auto& [entity, mark] : marks) {
         oracle.SetReads(entity, mark.GetReads(stamp));
      }
      if (uptimes.contains(stamp) && uptimes.at(stamp) != kUnset) {
         run.readSec =
            std::max(run.timeSec, static_cast<TimeStamp>(kHostStartSec) + uptimes.at(stamp));
      }
      oracle.AddRun(run);
   }
   return oracle;
}

SimOracle::Result SimOracle::Compare(StatsDepot& depot, const std::string& idMapPath,
                                     bool onlyEstablished) const
{
   auto all = ReadIdMap(idMapPath);
   Result result;
   result.stats = all.size();
   for (const auto& [entity, stats] : _stats) {
      for (const auto& [name, stat] : stats) {
         all.emplace(entity, name);
      }
   }
   Corvax::RefVector<Metrix::StatsDepotInterval> intervals;
   depot.GetIntervals(intervals);
   if (onlyEstablished || std::ranges::any_of(_runs, &Run::isCut)) {
      intervals.resize(1);
   }
   for (const auto& interval : intervals) {
      for (const auto& [entity, name] : all) {
         CompareStat(depot, *interval, interval == intervals[0], entity, name, onlyEstablished,
                     result);
      }
   }
   return result;
}

std::set<Metrix::TimeStamp> SimOracle::GetColumns(const Metrix::StatsDepotInterval& interval,
                                                  bool isFinest) const
{
   std::set<TimeStamp> stamps;
   if (isFinest) {
      for (const Run& run : _runs) {
         stamps.insert(GetStamp(run));
      }
   } else {
      stamps = {std::views::keys(_coarsePeriods).begin(), std::views::keys(_coarsePeriods).end()};
   }
   while (stamps.size() > static_cast<size_t>(interval.numSamples)) {
      stamps.erase(stamps.begin());
   }
   return stamps;
}

void SimOracle::CompareStat(StatsDepot& depot, const Metrix::StatsDepotInterval& interval,
                            bool isFinest, const std::string& entity, const std::string& name,
                            bool onlyEstablished, Result& result) const
{
   const std::set<TimeStamp> columns = GetColumns(interval, isFinest);
   for (int i = StatsDepot::ROLLUP_NONE; i <= StatsDepot::ROLLUP_SUM; ++i) {
      const auto rollup = static_cast<RollupType>(i);
      Series stored = ReadSeries(depot, entity, name, interval.name, rollup);
      for (const TimeStamp stamp : columns) {
         stored.try_emplace(stamp, kUnset);
      }
      bool mayLack = onlyEstablished;
      for (const auto& [stamp, value] : stored) {
         mayLack = mayLack && value == kUnset;
         const uint64_t expected = Expected(entity, name, rollup, isFinest, stamp).value_or(kUnset);
         result.samples += expected != kUnset || value != kUnset ? 1 : 0;
         const Run* const run = FindRun(stamp);
         if (expected == value || mayLack || (value == kUnset && run && run->isCut)) {
            continue;
         }
         ++result.differ;
         result.lost += value == kUnset ? 1 : 0;
         if (result.texts.size() < 20) {
            result.texts.push_back(Corvax::Format("%1 %2 %3 %4 at %5: stored %6, expected %7",
                                                  entity, name, interval.name, kRollupNames[i],
                                                  stamp, Text(value), Text(expected)));
         }
      }
   }
}
