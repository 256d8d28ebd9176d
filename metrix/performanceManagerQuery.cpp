#include "metrix/performanceManagerImpl.h"

#include "corvax/exception.h"
#include "plexa/fault.h"
#include "quen/inventory.h"

#include <algorithm>
#include <set>

namespace Metrix {

namespace {

using Corvax::DateTime;
using Corvax::Format;
using Corvax::kLogDebug;
using Corvax::kLogInfo;
using Corvax::kLogNotice;
using Corvax::kMicrosecondsPerSecond;
using Corvax::MakeRef;
using Corvax::Ref;
using Quen::PerformanceManager;
using InvalidArgument = Plexa::Fault::InvalidArgument::Exception;
using MetricId = PerformanceManager::MetricId;

constexpr char kWildCard[] = "*";
constexpr int32_t kLatestValues = 0; // as an intervalId
constexpr int32_t kDefaultInterval = 300;
constexpr int32_t kNoLimit = -1;

/// Instants before the epoch count as the epoch.
TimeStamp ToSeconds(const DateTime& time)
{
   return static_cast<TimeStamp>(
      std::max<int64_t>(time.GetUtcMicroseconds() / kMicrosecondsPerSecond, 0));
}

Ref<MetricId> Copy(const MetricId& metricId)
{
   return MakeRef<MetricId>(metricId.counterId, metricId.instance);
}

} // namespace

void PerformanceManagerImpl::Metrics::Append(std::string statName, Ref<MetricId> metricId,
                                             StatsDepot::RollupType rollup)
{
   statNames.push_back(std::move(statName));
   metricIds.push_back(std::move(metricId));
   rollups.push_back(rollup);
}

void PerformanceManagerImpl::ValidateEntityType(Plexa::MoRef* entity)
{
   if (entity == nullptr) {
      throw InvalidArgument("entity", "is missing");
   }
   if (!entity->IsA(Quen::VirtualMachine::GetManagedType()) &&
       !entity->IsA(Quen::HostSystem::GetManagedType()) &&
       !entity->IsA(Quen::ResourcePool::GetManagedType())) {
      throw InvalidArgument("entity",
                            Format("'%1' is a %2, not a virtual machine, host or resource pool",
                                   entity->GetId(), entity->GetType().name));
   }
}

/// The start is exclusive by one second, on purpose: a client that continues from its last time
/// stamp does not receive that sample twice.
PerformanceManagerImpl::TimeRange
PerformanceManagerImpl::GetTimeRange(const std::optional<DateTime>& start,
                                     const std::optional<DateTime>& end)
{
   return {start ? ToSeconds(*start) + 1 : kUnset, ToSeconds(end ? *end : DateTime::Now())};
}

std::string PerformanceManagerImpl::GetStatName(const MetricId& metricId) const
{
   std::string statName;
   if (!_statsMetadata->GetStatName(metricId.counterId, metricId.instance, statName)) {
      throw InvalidArgument("metricId", Format("there is no counter %1", metricId.counterId));
   }
   return statName;
}

std::vector<std::string> PerformanceManagerImpl::GetStatNames(const MetricIds& metricIds) const
{
   std::vector<std::string> statNames;
   statNames.reserve(metricIds.GetSize());
   for (const Ref<MetricId>& metricId : metricIds) {
      statNames.push_back(GetStatName(*metricId));
   }
   return statNames;
}

void PerformanceManagerImpl::GetMetricIds(std::vector<std::string>& statNames,
                                          Corvax::RefVector<MetricId>& metricIds) const
{
   metricIds.clear();
   metricIds.reserve(statNames.size());
   std::erase_if(statNames, [this, &metricIds](const std::string& statName) {
      const auto* const data = _statsMetadata->GetStatsDepotData(statName);
      if (data == nullptr) {
         _logger->Log(kLogNotice, "Couldnot find stats data for stat %1", statName);
         return true;
      }
      StatsMetadata::CounterId primary = 0;
      Corvax::Assert(data->GetCounterId(StatsDepot::ROLLUP_NONE, primary),
                     "a stat has its counter");
      metricIds.push_back(MakeRef<MetricId>(primary, StatsMetadata::GetInstanceId(statName)));
      return false;
   });
}

PerformanceManagerImpl::Metrics
PerformanceManagerImpl::GetMetricIdInfoFromStatNames(const std::vector<std::string>& statNames,
                                                     bool allRollups) const
{
   Metrics metrics;
   for (const std::string& statName : statNames) {
      const auto* const data = _statsMetadata->GetStatsDepotData(statName);
      if (data == nullptr) {
         _logger->Log(kLogNotice, "Couldnot find depotData for stat %1", statName);
         continue;
      }
      const std::string instance = StatsMetadata::GetInstanceId(statName);
      for (size_t k = 0; k < data->GetCounterIds().size() && (k == 0 || allRollups); ++k) {
         metrics.Append(statName, MakeRef<MetricId>(data->GetCounterIds()[k], instance),
                        data->GetRollups()[k]);
      }
   }
   return metrics;
}

PerformanceManagerImpl::Metrics
PerformanceManagerImpl::GetMetricIdInfo(const MetricIds& metricIds) const
{
   Metrics metrics;
   for (const Ref<MetricId>& metricId : metricIds) {
      std::string statName = GetStatName(*metricId);
      const auto* const data = _statsMetadata->GetStatsDepotData(statName);
      if (data == nullptr) {
         throw InvalidArgument("metricId", Format("counter %1 is not stored", metricId->counterId));
      }
      StatsDepot::RollupType rollup{};
      if (_statsMetadata->IsCompositeCounter(metricId->counterId)) {
         const std::string instance = StatsMetadata::GetInstanceId(statName);
         for (size_t k = 0; k < data->GetCounterIds().size(); ++k) {
            metrics.Append(statName, MakeRef<MetricId>(data->GetCounterIds()[k], instance),
                           data->GetRollups()[k]);
         }
      } else if (data->GetRollup(metricId->counterId, rollup)) {
         metrics.Append(std::move(statName), Copy(*metricId), rollup);
      } else {
         _logger->Log(kLogNotice, "Unable to get rollup type for metric %1", metricId->counterId);
      }
   }
   return metrics;
}

std::vector<std::string> PerformanceManagerImpl::GetAvailableStatNames(const std::string& entityId,
                                                                       TimeRange timeRange)
{
   std::vector<std::string> statNames;
   _statsDepot->GetAvailableStatNames(entityId, timeRange.start, timeRange.end, statNames);
   return statNames;
}

/// A counter requested both explicitly and by wildcard appears twice, on purpose.
Ref<PerformanceManagerImpl::MetricIds>
PerformanceManagerImpl::ExpandMetricIdWildCards(const std::string& entityId, MetricIds* metricIds)
{
   auto expanded = MakeRef<MetricIds>();
   if (metricIds == nullptr) {
      return expanded;
   }
   std::set<int32_t> wanted;
   for (const Ref<MetricId>& metricId : *metricIds) {
      if (metricId->instance == kWildCard) {
         wanted.insert(metricId->counterId);
      } else {
         expanded->Append(metricId);
      }
   }
   if (wanted.empty()) {
      return expanded;
   }
   for (const std::string& statName : GetAvailableStatNames(entityId, {kUnset, kUnset})) {
      const auto* const data = _statsMetadata->GetStatsDepotData(statName);
      if (data == nullptr) {
         continue;
      }
      const std::string instance = StatsMetadata::GetInstanceId(statName);
      if (wanted.contains(data->GetId())) {
         expanded->Append(MakeRef<MetricId>(data->GetId(), instance));
      }
      for (const int32_t counterId : data->GetCounterIds()) {
         if (counterId != data->GetId() && wanted.contains(counterId)) {
            expanded->Append(MakeRef<MetricId>(counterId, instance));
         }
      }
   }
   return expanded;
}

void PerformanceManagerImpl::QueryAvailableMetric(Plexa::MoRef* entity,
                                                  const std::optional<DateTime>& beginTime,
                                                  const std::optional<DateTime>& endTime,
                                                  const std::optional<int32_t>& intervalId,
                                                  Ref<Plexa::DataArray<MetricId>>& metricIds)
{
   const Corvax::Locker lock(_statsDepot.Get());
   _logger->Log(kLogDebug, "PerfMgr: QueryAvailableMetric called");
   ValidateEntityType(entity);
   const TimeRange timeRange = GetTimeRange(beginTime, endTime);
   if (beginTime && timeRange.start > timeRange.end) {
      if (endTime) {
         throw InvalidArgument("beginTime", "is not before endTime");
      }
      return; // in the future: no metrics yet, which is not a fault
   }
   const bool allRollups = intervalId != _collectionInterval;
   const Metrics metrics =
      GetMetricIdInfoFromStatNames(GetAvailableStatNames(entity->GetId(), timeRange), allRollups);
   metricIds = MakeRef<MetricIds>();
   for (const Ref<MetricId>& metricId : metrics.metricIds) {
      metricIds->Append(metricId);
   }
}

void PerformanceManagerImpl::QueryStats(Plexa::DataArray<QuerySpec>* querySpecs,
                                        Ref<Plexa::DataArray<EntityMetricBase>>& results)
{
   results = MakeRef<Plexa::DataArray<EntityMetricBase>>();
   if (querySpecs == nullptr) {
      return;
   }
   for (const Ref<QuerySpec>& spec : *querySpecs) {
      if (!spec) {
         throw InvalidArgument("querySpec", "is missing");
      }
      const TimeRange timeRange = GetTimeRange(spec->startTime, spec->endTime);
      if (spec->startTime && timeRange.start > timeRange.end) {
         if (spec->endTime) {
            throw InvalidArgument("startTime", "is not before endTime");
         }
         return; // in the future: ends the query without a fault, whatever follows
      }
      const std::string format = spec->format.value_or(FORMAT_NORMAL);
      if (format != FORMAT_CSV && format != FORMAT_NORMAL) {
         throw InvalidArgument(
            "format", Format("'%1' is neither %2 nor %3", format, FORMAT_NORMAL, FORMAT_CSV));
      }
      const Ref<EntityMetric> entityMetric = QueryOne(spec.Get(), timeRange);
      if (entityMetric && format == FORMAT_CSV) {
         results->Append(ConvertToCSVFormat(*entityMetric));
      } else if (entityMetric) {
         results->Append(entityMetric);
      }
   }
}

/// Null if there is no data.
Ref<PerformanceManagerImpl::EntityMetric> PerformanceManagerImpl::QueryOne(QuerySpec* spec,
                                                                           TimeRange timeRange)
{
   const int32_t maxSample = spec->maxSample.value_or(kNoLimit);
   if (spec->maxSample && maxSample < 1) {
      _logger->Log(kLogInfo, "QueryStats: Invalid maxSample value %1", maxSample);
      throw InvalidArgument("maxSample", Format("%1 is below 1", maxSample));
   }
   const int32_t intervalId = spec->intervalId.value_or(kDefaultInterval);
   Ref<EntityMetric> entityMetric;
   if (intervalId == kLatestValues) {
      QueryRawStats(spec->entity.Get(), spec->metricId.Get(), entityMetric);
      return entityMetric;
   }
   Plexa::DataArray<EntityMetric> found;
   if (intervalId == _collectionInterval) {
      QueryCurrent({spec->entity}, timeRange, maxSample, spec->metricId.Get(), found);
   } else {
      QuerySummary({spec->entity}, timeRange, spec->metricId.Get(), intervalId, found);
   }
   return found.IsEmpty() ? nullptr : Ref<EntityMetric>(found[0]);
}

void PerformanceManagerImpl::QueryCurrent(const Corvax::RefVector<Plexa::MoRef>& entities,
                                          TimeRange timeRange, int32_t maxSample,
                                          MetricIds* metricIds,
                                          Plexa::DataArray<EntityMetric>& entityMetrics)
{
   const Corvax::Locker lock(_statsDepot.Get());
   _logger->Log(kLogDebug, "PerfMgr: QueryCurrent called");
   if (maxSample > 0) {
      const auto span = static_cast<TimeStamp>(int64_t{maxSample} * _collectionInterval);
      if ((timeRange.start == kUnset && timeRange.end > span) ||
          timeRange.end - timeRange.start > span) {
         timeRange.start = timeRange.end - span;
      }
   }
   for (const Ref<Plexa::MoRef>& entity : entities) {
      ValidateEntityType(entity.Get());
      Metrics metrics;
      if (metricIds != nullptr && !metricIds->IsEmpty()) {
         const Ref<MetricIds> expanded = ExpandMetricIdWildCards(entity->GetId(), metricIds);
         metrics.statNames = GetStatNames(*expanded);
         for (const Ref<MetricId>& metricId : *expanded) {
            metrics.metricIds.push_back(Copy(*metricId)); // the client's own may change
         }
      } else {
         metrics.statNames = GetAvailableStatNames(entity->GetId(), timeRange);
         GetMetricIds(metrics.statNames, metrics.metricIds);
      }
      if (auto found = GetEntityMetric(entity.Get(), metrics, _collectionInterval, timeRange)) {
         entityMetrics.Append(std::move(found));
      }
   }
}

void PerformanceManagerImpl::QuerySummary(const Corvax::RefVector<Plexa::MoRef>& entities,
                                          TimeRange timeRange, MetricIds* metricIds,
                                          int32_t intervalId,
                                          Plexa::DataArray<EntityMetric>& entityMetrics)
{
   const Corvax::Locker lock(_statsDepot.Get());
   _logger->Log(kLogDebug, "PerfMgr: QuerySummary called");
   for (const Ref<Plexa::MoRef>& entity : entities) {
      ValidateEntityType(entity.Get());
      const bool areNamed = metricIds != nullptr && !metricIds->IsEmpty();
      const Metrics metrics =
         areNamed
            ? GetMetricIdInfo(*ExpandMetricIdWildCards(entity->GetId(), metricIds))
            : GetMetricIdInfoFromStatNames(GetAvailableStatNames(entity->GetId(), timeRange), true);
      if (auto found = GetEntityMetric(entity.Get(), metrics, intervalId, timeRange)) {
         entityMetrics.Append(std::move(found));
      }
   }
}

/// Leaves out readings that are not from the newest run, on purpose: the result is a snapshot of
/// it.
void PerformanceManagerImpl::QueryRawStats(Plexa::MoRef* entity, MetricIds* metricIds,
                                           Ref<EntityMetric>& entityMetric)
{
   const Corvax::Locker lock(_statsDepot.Get());
   _logger->Log(kLogDebug, "PerfMgr: QueryRawStats called");
   entityMetric = nullptr;
   ValidateEntityType(entity);
   if (metricIds == nullptr || metricIds->IsEmpty()) {
      throw InvalidArgument("metricId", "is empty; the latest values need named metrics");
   }
   const Ref<MetricIds> expanded = ExpandMetricIdWildCards(entity->GetId(), metricIds);
   const std::vector<std::string> statNames = GetStatNames(*expanded);
   const TimeStamp latest = _statsDepot->GetLatestTimeStamp();
   if (latest == kUnset) {
      return;
   }
   entityMetric = MakeRef<EntityMetric>();
   entityMetric->entity = entity;
   entityMetric->sampleInfo = _sampleInfoCache.Get(kLatestValues, {latest});
   entityMetric->value = MakeRef<Plexa::DataArray<MetricSeries>>();
   for (size_t k = 0; k < statNames.size(); ++k) {
      TimeStamp ts = kUnset;
      const StatVal value = _statsDepot->GetRawSample(entity->GetId(), statNames[k], ts);
      if (ts == kUnset || ts < latest ||
          ts - latest >= static_cast<TimeStamp>(_collectionInterval)) {
         continue;
      }
      auto series = MakeRef<IntSeries>();
      series->id = (*expanded)[k];
      series->value = {static_cast<int64_t>(value)};
      entityMetric->value->Append(series);
   }
}

/// Real-time series are read without a rollup; `metrics` then does not list one for each metric.
StatsDepot::RollupType PerformanceManagerImpl::GetRollup(const Metrics& metrics, size_t index,
                                                         int32_t intervalId) const
{
   return intervalId == _collectionInterval ? StatsDepot::ROLLUP_NONE : metrics.rollups[index];
}

/// The time stamps of the first metric that has any hold for all, because the stats of an entity
/// are sampled together.
Ref<PerformanceManagerImpl::EntityMetric>
PerformanceManagerImpl::GetEntityMetric(Plexa::MoRef* entity, const Metrics& metrics,
                                        int32_t intervalId, TimeRange timeRange)
{
   std::string intervalName;
   if (!GetIntervalName(intervalId, intervalName)) {
      throw InvalidArgument(
         "intervalId",
         Format("%1 is not an interval; use %2 (real time), %3 (historical) or %4 (latest values)",
                intervalId, _collectionInterval, kDefaultInterval, kLatestValues));
   }
   auto allSeries = MakeRef<Plexa::DataArray<MetricSeries>>();
   allSeries->Reserve(metrics.statNames.size());
   std::vector<TimeStamp> timeStamps;
   std::vector<TimeStamp> repeated; // of the metrics that follow
   std::vector<StatVal> values;
   for (size_t i = 0; i < metrics.statNames.size(); ++i) {
      const int count = _statsDepot->GetSamples(entity->GetId(), metrics.statNames[i],
                                                timeRange.start, timeRange.end, values,
                                                timeStamps.empty() ? &timeStamps : &repeated,
                                                intervalName, GetRollup(metrics, i, intervalId));
      if (count > 0) {
         auto series = MakeRef<IntSeries>();
         series->id = metrics.metricIds[i];
         series->value.assign(values.begin(), values.end());
         allSeries->Append(series);
      }
   }
   if (allSeries->IsEmpty()) {
      return nullptr;
   }
   auto entityMetric = MakeRef<EntityMetric>();
   entityMetric->entity = entity;
   entityMetric->sampleInfo = _sampleInfoCache.Get(intervalId, timeStamps);
   entityMetric->value = allSeries;
   return entityMetric;
}

Ref<PerformanceManagerImpl::EntityMetricCSV>
PerformanceManagerImpl::ConvertToCSVFormat(const EntityMetric& entityMetric)
{
   auto csv = MakeRef<EntityMetricCSV>();
   csv->entity = entityMetric.entity;
   for (const auto& info : *entityMetric.sampleInfo) {
      csv->sampleInfoCSV += csv->sampleInfoCSV.empty() ? "" : ",";
      csv->sampleInfoCSV += std::to_string(info->interval) + "," + info->timestamp.ToString();
   }
   csv->value = MakeRef<Plexa::DataArray<MetricSeriesCSV>>();
   for (const Ref<MetricSeries>& series : *entityMetric.value) {
      const auto ints = Corvax::RefCast<IntSeries>(series);
      auto seriesCsv = MakeRef<MetricSeriesCSV>();
      seriesCsv->id = series->id;
      for (const int64_t value : ints->value) {
         seriesCsv->value += seriesCsv->value.empty() ? "" : ",";
         seriesCsv->value += std::to_string(value);
      }
      csv->value->Append(seriesCsv);
   }
   return csv;
}

} // namespace Metrix
