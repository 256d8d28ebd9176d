#include "bench/filledDepot.h"
#include "bench/measurement.h"
#include "bench/meters.h"
#include "bench/recording.h"
#include "bench/resultLines.h"
#include "corvax/exception.h"
#include "metrix/performanceManagerImpl.h"
#include "quen/inventory.h"

#include <random>

namespace Bench {

namespace {

using Corvax::DateTime;
using Corvax::MakeRef;
using Corvax::Ref;
using Metrix::JournalOptions;
using Metrix::TimeStamp;
using Quen::PerformanceManager;
using Specs = Plexa::DataArray<PerformanceManager::QuerySpec>;
using Results = Plexa::DataArray<PerformanceManager::EntityMetricBase>;

constexpr unsigned kQueries = 4000;
constexpr unsigned kWarmUp = 200;
constexpr unsigned kRanges = 16; // more than the manager keeps time stamps of
constexpr size_t kStatsOfEntity = 50;
constexpr char kEntityOf50[] = "vm-of-50";

/// 10,000 stats, the last 50 of them of one virtual machine.
StatPlan PlanWithEntityOf50()
{
   StatPlan plan = CapturePlan(kStats);
   for (size_t i = 0; i < kStatsOfEntity; ++i) {
      PlannedStat& stat = plan[plan.size() - kStatsOfEntity + i];
      stat.entityId = kEntityOf50;
      stat.statName = stat.statName.substr(0, stat.statName.find('#')) + "#" + std::to_string(i);
   }
   return plan;
}

/// A depot whose series are full. The newest samples were recorded, so that they are where a
/// running agent has them. Read directly at first, then by the performance manager.
class Queries {
public:
   explicit Queries(const JournalOptions& journal)
      : _journal(journal), _plan(PlanWithEntityOf50()),
        _now(GetStamp(Recording::CountUntilSteady(journal)))
   {
      MakeFilledDepot(_scratch.GetPath(), _plan, kFirstStamp);
      _recording.emplace(_plan, GetStamp(1));
      _recording->LoadDepot(_scratch.GetPath(), journal);
      _recording->RecordUntilSteady();
   }

   /// The performance manager opens the depot, which no one else can read after that.
   void OpenManager()
   {
      _recording.reset();
      _agent.emplace();
      _time.emplace(_now);
      Corvax::XmlConfig& config = _agent->GetConfig();
      config.Set("plugins/metrix/depotDir", _scratch.GetPath());
      config.Set("plugins/metrix/checkpointSec", std::to_string(_journal.checkpointSec));
      config.Set("plugins/metrix/syncSec", std::to_string(_journal.syncSec));
      _manager = MakeRef<Metrix::PerformanceManagerImpl>("ha-perfmgr", _agent->GetLogger());
   }

   /// Reads the newest samples of random stats from the depot itself. Returns the time of each
   /// call, microseconds.
   std::vector<double> ReadSeries(const char* interval, int periodSec, unsigned samples)
   {
      Metrix::StatsDepot& depot = _recording->GetDepot();
      const TimeStamp newest = GetNewest(periodSec);
      const TimeStamp begin = newest - static_cast<TimeStamp>(periodSec) * (samples - 1);
      std::vector<double> times;
      std::vector<Metrix::StatVal> values;
      std::vector<TimeStamp> stamps;
      for (unsigned i = 0; i < kWarmUp + Scaled(kQueries); ++i) {
         const PlannedStat& stat = _plan[_random() % _plan.size()];
         const auto& rollups = _metadata.GetStatsDepotData(stat.statName)->GetRollups();
         const auto rollup =
            periodSec == kFinePeriodSec ? Metrix::StatsDepot::ROLLUP_NONE : rollups.front();
         const double startUs = GetWallUs();
         {
            const Corvax::Locker lock(&depot);
            depot.GetSamples(stat.entityId, stat.statName, begin, newest, values, &stamps, interval,
                             rollup);
         }
         times.push_back(GetWallUs() - startUs);
         if (values.size() != samples) {
            throw Corvax::Exception("A series lacks samples");
         }
      }
      times.erase(times.begin(), times.begin() + kWarmUp);
      return times;
   }

   /// The same through the performance manager, one series per query. The queries take turns with
   /// `ranges` time ranges, each one sample shorter than the one before.
   std::vector<double> QuerySeries(int periodSec, unsigned samples, unsigned ranges = 1)
   {
      std::vector<Ref<Specs>> queries;
      for (unsigned i = 0; i < kWarmUp + Scaled(kQueries); ++i) {
         queries.push_back(MakeRef<Specs>());
         queries.back()->Append(
            SpecOf(_plan[_random() % _plan.size()], periodSec, samples - i % ranges));
      }
      return TimeQueries(queries, 1, samples, ranges);
   }

   /// Queries an hour of all stats of the entity that has 50.
   std::vector<double> QueryEntity()
   {
      auto spec = NewSpec(kEntityOf50, kFinePeriodSec, kFineSamples);
      std::vector<Ref<Specs>> queries;
      for (unsigned i = 0; i < kWarmUp + Scaled(kQueries) / 10; ++i) {
         queries.push_back(MakeRef<Specs>());
         queries.back()->Append(spec);
      }
      return TimeQueries(queries, kStatsOfEntity, kFineSamples);
   }

private:
   TimeStamp GetNewest(int periodSec) const
   {
      return _now - _now % static_cast<TimeStamp>(periodSec);
   }

   Ref<PerformanceManager::QuerySpec> NewSpec(const std::string& entityId, int periodSec,
                                              unsigned samples) const
   {
      const auto newest = static_cast<int64_t>(GetNewest(periodSec));
      const auto spanSec = static_cast<int64_t>(periodSec) * samples;
      auto spec = MakeRef<PerformanceManager::QuerySpec>();
      spec->entity = MakeRef<Plexa::MoRef>(Quen::VirtualMachine::GetManagedType(), entityId);
      spec->intervalId = periodSec;
      spec->startTime = DateTime::FromSeconds(newest - spanSec);
      spec->endTime = DateTime::FromSeconds(newest);
      return spec;
   }

   Ref<PerformanceManager::QuerySpec> SpecOf(const PlannedStat& stat, int periodSec,
                                             unsigned samples) const
   {
      // Each rollup has a counter of its own; real-time series have the raw values.
      const auto* const data = _metadata.GetStatsDepotData(stat.statName);
      const int32_t counterId =
         periodSec == kFinePeriodSec ? data->GetId() : data->GetCounterIds().front();
      auto spec = NewSpec(stat.entityId, periodSec, samples);
      spec->metricId = MakeRef<Plexa::DataArray<PerformanceManager::MetricId>>();
      spec->metricId->Append(MakeRef<PerformanceManager::MetricId>(
         counterId, Metrix::StatsMetadata::GetInstanceId(stat.statName)));
      return spec;
   }

   std::vector<double> TimeQueries(const std::vector<Ref<Specs>>& queries, size_t series,
                                   size_t samples, unsigned ranges = 1)
   {
      std::vector<double> times;
      for (const Ref<Specs>& query : queries) {
         Ref<Results> results;
         const double startUs = GetWallUs();
         _manager->QueryStats(query.Get(), results);
         const size_t i = times.size();
         times.push_back(GetWallUs() - startUs);
         CheckAnswer(*results, series, samples - i % ranges);
      }
      times.erase(times.begin(), times.begin() + kWarmUp);
      return times;
   }

   static void CheckAnswer(const Results& results, size_t series, size_t samples)
   {
      const auto* const metric =
         results.GetSize() == 1 ? dynamic_cast<const PerformanceManager::EntityMetric*>(results[0])
                                : nullptr;
      if (metric == nullptr || metric->value->GetSize() != series ||
          metric->sampleInfo->GetSize() != samples) {
         throw Corvax::Exception("The answer to a query lacks series or samples");
      }
   }

   const JournalOptions _journal;
   const StatPlan _plan;
   const TimeStamp _now;
   const ScratchDirectory _scratch;
   const Metrix::StatsMetadata _metadata;
   std::optional<Recording> _recording;
   std::optional<QuietAgent> _agent;
   std::optional<SteppedTime> _time;
   Ref<Metrix::PerformanceManagerImpl> _manager;
   std::mt19937 _random; // default seed: the same queries in every repetition
};

void Query(Measurement& measurement, const JournalOptions& journal)
{
   Queries queries(journal);
   std::vector<double> hourUs = queries.ReadSeries(kFineName, kFinePeriodSec, kFineSamples);
   measurement.Report("query-1h", "us", GetPercentile(hourUs, 0.5));
   measurement.Report("query-1h-p99", "us", GetPercentile(hourUs, 0.99));
   std::vector<double> minutesUs = queries.ReadSeries(kFineName, kFinePeriodSec, kStampsPerRollup);
   measurement.Report("query-5min", "us", GetPercentile(minutesUs, 0.5));
   std::vector<double> dayUs = queries.ReadSeries(kCoarseName, kCoarsePeriodSec, kCoarseSamples);
   measurement.Report("query-36h", "us", GetPercentile(dayUs, 0.5));
   measurement.Report("query-36h-p99", "us", GetPercentile(dayUs, 0.99));
   queries.OpenManager();
   std::vector<double> apiHourUs = queries.QuerySeries(kFinePeriodSec, kFineSamples);
   const double oneUs = GetPercentile(apiHourUs, 0.5);
   measurement.Report("query-api-1h", "us", oneUs);
   std::vector<double> apiDayUs = queries.QuerySeries(kCoarsePeriodSec, kCoarseSamples);
   measurement.Report("query-api-36h", "us", GetPercentile(apiDayUs, 0.5));
   std::vector<double> newRangeUs = queries.QuerySeries(kFinePeriodSec, kFineSamples, kRanges);
   measurement.Report("query-api-1h-new", "us", GetPercentile(newRangeUs, 0.5));
   std::vector<double> entityUs = queries.QueryEntity();
   const double allUs = GetPercentile(entityUs, 0.5);
   measurement.Report("query-entity", "us", allUs);
   measurement.Report("query-entity-ratio", "x", allUs / oneUs);
}

const DepotRegistration kQuery("query", Query);

} // namespace

} // namespace Bench
