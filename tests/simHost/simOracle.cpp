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

/// The stamps of an absolute stat: of the runs that have read its entity.
std::set<uint64_t> ReadStamps(StatsDepot& depot, const std::string& entity, const std::string& stat,
                              const std::string& interval)
{
   std::set<uint64_t> stamps;
   for (const auto& [stamp, value] :
        ReadSeries(depot, entity, stat, interval, StatsDepot::ROLLUP_NONE)) {
      if (value != kUnset) {
         stamps.insert(stamp);
      }
   }
   return stamps;
}

SimShape MakeShape(uint64_t vcpus, uint64_t cards, uint64_t disks, int64_t startSec)
{
   SimShape shape;
   shape.SetCount(SimShape::VCPUS, vcpus, startSec);
   shape.SetCount(SimShape::CARDS, cards, startSec);
   shape.SetCount(SimShape::DISKS, disks, startSec);
   shape.startSec = startSec;
   return shape;
}

} // namespace

SimOracle::SimOracle(const SimOptions& options, uint64_t finePeriodSec, bool wideFigures)
   : _options(options), _finePeriodSec(finePeriodSec), _wideFigures(wideFigures)
{
   _entities[kHost].stats = MakeHostStats(options, kHost, wideFigures);
   SetShape(kHost, MakeShape(0, options.nics, options.disks, kHostStartSec));
   _entities[kRootPoolId].stats = MakePoolStats(options, kRootPoolId);
   for (uint64_t i = 1; i <= options.pools; ++i) {
      _entities[GetPoolId(i)].stats = MakePoolStats(options, GetPoolId(i));
   }
   for (uint64_t i = 1; i <= options.vms; ++i) {
      const std::string id = GetVmId(i);
      SimShape shape = MakeShape(options.vcpus, options.cards, std::min<uint64_t>(options.disks, 2),
                                 GetFirstStartSec(MakeKey(options.seed, id)));
      shape.isFailing = i + options.failing > options.vms;
      _entities[id].isVm = true;
      _entities[id].isRead = i > options.stuck;
      SetShape(id, shape);
   }
}

void SimOracle::SetShape(const std::string& id, const SimShape& shape)
{
   Entity& entity = _entities.at(id);
   const bool isLarger = entity.shape->mostOf != shape.mostOf;
   entity.shape = std::make_shared<SimShape>(shape);
   if (entity.isVm && isLarger) {
      entity.stats = MakeVmStats(_options, id, shape, _wideFigures);
   }
}

void SimOracle::Apply(const Change& change)
{
   SimShape shape = *_entities.at(change.id).shape;
   switch (change.action) {
   case SimAction::ON_VM:
      shape.Restart(change.timeSec);
      break;
   case SimAction::HANG_VM:
   case SimAction::UNHANG_VM:
      shape.isHung = change.action == SimAction::HANG_VM;
      break;
   case SimAction::FAILING_VM:
   case SimAction::WORKING_VM:
      shape.isFailing = change.action == SimAction::FAILING_VM;
      break;
   case SimAction::VCPUS_VM:
      shape.SetCount(SimShape::VCPUS, change.count, change.timeSec);
      break;
   case SimAction::CARDS_VM:
   case SimAction::NICS_HOST:
      shape.SetCount(SimShape::CARDS, change.count, change.timeSec);
      break;
   case SimAction::DISKS_VM:
   case SimAction::DISKS_HOST:
      shape.SetCount(SimShape::DISKS, change.count, change.timeSec);
      break;
   default: // whether the entity is read
      return;
   }
   SetShape(change.id, shape);
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
   for (auto& [id, entity] : _entities) {
      if (entity.isRead) {
         entity.reads[_runs.size()] = entity.shape;
      }
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

/// What the run reads for the stat; nothing if it does not.
std::optional<uint64_t> SimOracle::Read(const std::string& id, const SimStat& stat,
                                        size_t run) const
{
   const Entity& entity = _entities.at(id);
   const auto shape = entity.reads.find(run);
   if (shape == entity.reads.end()) {
      return std::nullopt;
   }
   const auto timeSec = static_cast<int64_t>(_runs[run].readSec);
   const int64_t latenessSec =
      entity.isVm ? GetLatenessSec(MakeKey(_options.seed, kHost), _options.late, timeSec) : 0;
   return stat.read({timeSec + latenessSec, *shape->second, *_entities.at(kHost).reads.at(run)});
}

std::optional<uint64_t> SimOracle::ExpectedRaw(const std::string& entity, const SimStat& stat,
                                               size_t run) const
{
   const auto cut = [&](uint64_t value) {
      return stat.limit > 0 ? std::min(value, stat.limit) : value;
   };
   const std::optional<uint64_t> reading = Read(entity, stat, run);
   if (!reading) {
      return std::nullopt;
   }
   if (stat.kind == Kind::GAUGE || stat.kind == Kind::GAUGE_AVERAGE || stat.kind == Kind::LATEST) {
      return cut(*reading);
   }
   size_t last = run;
   std::optional<uint64_t> before;
   do {
      if (last == 0 || _runs[last].isFirst) {
         return std::nullopt;
      }
      --last;
      before = Read(entity, stat, last);
   } while (!before);
   const uint64_t passed = _runs[run].timeSec - _runs[last].timeSec;
   if (passed >= 2 * _finePeriodSec || *reading < *before) {
      return std::nullopt;
   }
   return cut(stat.kind == Kind::GROWTH ? *reading - *before : (*reading - *before) / passed);
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
   const auto found = _entities.find(entity);
   if (isFinest != (rollup == StatsDepot::ROLLUP_NONE) || found == _entities.end() ||
       !found->second.stats.contains(statName)) {
      return std::nullopt;
   }
   const SimStat& stat = found->second.stats.at(statName);
   if (!isFinest) {
      return Keeps(stat.kind, rollup) ? ExpectedRollup(entity, statName, stat, rollup, stamp)
                                      : std::nullopt;
   }
   const Run* const run = FindRun(stamp);
   return run ? ExpectedRaw(entity, stat, static_cast<size_t>(run - _runs.data())) : std::nullopt;
}

SimOracle SimOracle::FromRuns(StatsDepot& depot, const SimOptions& options,
                              const std::vector<Run>& runs, const std::vector<Change>& changes,
                              bool wideFigures)
{
   Corvax::RefVector<Metrix::StatsDepotInterval> intervals;
   depot.GetIntervals(intervals);
   const Metrix::StatsDepotInterval& finest = *intervals[0];
   SimOracle oracle(options, static_cast<uint64_t>(finest.samplingPeriod), wideFigures);
   std::map<std::string, std::set<uint64_t>> stamps;
   if (options.events > 0 || !options.script.empty()) {
      if (runs.size() > static_cast<size_t>(finest.numSamples)) {
         throw Corvax::Exception("The depot no longer shows what its oldest runs have read");
      }
      for (const auto& [id, entity] : oracle._entities) {
         if (id != kHost) {
            stamps[id] =
               ReadStamps(depot, id, entity.isVm ? "sys-uptime" : "mem-granted", finest.name);
         }
      }
   }
   const Series uptimes =
      ReadSeries(depot, kHost, "sys-uptime", finest.name, StatsDepot::ROLLUP_NONE);
   auto change = changes.begin();
   for (Run run : runs) {
      const TimeStamp stamp = oracle.GetStamp(run);
      if (uptimes.contains(stamp) && uptimes.at(stamp) != kUnset) {
         run.readSec =
            std::max(run.timeSec, static_cast<TimeStamp>(kHostStartSec) + uptimes.at(stamp));
      }
      for (const auto& [id, read] : stamps) {
         oracle.SetRead(id, read.contains(stamp));
      }
      for (; change != changes.end() && change->runSec <= run.readSec; ++change) {
         oracle.Apply(*change);
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
   for (const auto& [id, entity] : _entities) {
      for (const auto& [name, stat] : entity.stats) {
         all.emplace(id, name);
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
