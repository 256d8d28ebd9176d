#pragma once

#include "agentdCommon/authEntityBaseImpl.h"
#include "agentdCommon/haPerformanceManager.h"
#include "corvax/logger.h"
#include "metrix/baseStatsCollector.h"
#include "metrix/sampleInfoCache.h"
#include "metrix/statsDepot.h"
#include "metrix/statsMetadata.h"

#include <string>

namespace Metrix {

/// The first instant at or after `time` on the grid of step `interval` that contains `reference`.
/// All in seconds and not negative; `interval` is not 0.
int64_t FindIntervalBoundary(int64_t reference, int64_t time, int64_t interval);

/// The performance manager: owns catalogue, depot and collector, and answers the management API.
///
/// Sources: performanceManagerImpl.cpp has set-up, descriptions and usage figures,
/// performanceManagerQuery.cpp metric identification and series.
/// Locking: QueryAvailableMetric, QueryCounter, GetHostCpuMemUsage and GetVmCpuMemUsage hold the
/// depot's lock throughout. QueryStats holds it to read the series of one query spec at a time, not
/// between query specs and not while it converts a result to CSV. The other operations of the API
/// read only data that is fixed at construction, without a lock.
class PerformanceManagerImpl : public virtual AgentdCommon::HaPerformanceManager,
                               public AgentdCommon::AuthEntityBaseImpl {
public:
   using Long = AgentdCommon::Long;

   /// Reads the configuration section "plugins/metrix", loads the depot and creates the configured
   /// collector, which StartStatsCollection starts. A depot whose content cannot be used is set
   /// aside and replaced by an empty one. Runtime exceptions if the configuration is malformed, or
   /// if the depot cannot be read for another reason, for example because another process has it
   /// open; no file is changed then.
   PerformanceManagerImpl(const std::string& id, Corvax::Logger* logger);

   void StartStatsCollection();
   /// Then lays down what the depot has in memory; a failure of that is logged.
   void StopStatsCollection();

   void GetDescription(Corvax::Ref<Quen::PerformanceDescription>& description) override;
   void GetHistoricalInterval(
      Corvax::Ref<Plexa::DataArray<Quen::HistoricalInterval>>& intervals) override;
   void GetPerfCounter(Corvax::Ref<Plexa::DataArray<CounterInfo>>& counters) override;
   void QueryAvailableMetric(Plexa::MoRef* entity, const std::optional<Corvax::DateTime>& beginTime,
                             const std::optional<Corvax::DateTime>& endTime,
                             const std::optional<int32_t>& intervalId,
                             Corvax::Ref<Plexa::DataArray<MetricId>>& metricIds) override;
   void QueryCounter(const std::vector<int32_t>& counterIds,
                     Corvax::Ref<Plexa::DataArray<CounterInfo>>& counters) override;
   void CreateHistoricalInterval(Quen::HistoricalInterval* interval) override;
   void RemoveHistoricalInterval(int32_t intervalId) override;
   void UpdateHistoricalInterval(Quen::HistoricalInterval* interval) override;
   void QueryProviderSummary(Plexa::MoRef* entity, Corvax::Ref<ProviderSummary>& summary) override;
   void GetHostCpuMemUsage(Long& cpuUsageMhz, Long& memConsumedKB) override;
   void GetVmCpuMemUsage(Plexa::MoRef* vm, Long& cpuUsageMhz, Long& memConsumedKB,
                         Long& memActiveKB) override;
   void QueryStats(Plexa::DataArray<QuerySpec>* querySpecs,
                   Corvax::Ref<Plexa::DataArray<EntityMetricBase>>& results) override;
   void QueryCompositeStats(QuerySpec* querySpec,
                            Corvax::Ref<CompositeEntityMetric>& result) override;
   void SummarizeStats() override;
   std::string GetStorageTrouble() override;

   /// The depot's name of the interval with the sampling period `intervalId`, in seconds. False,
   /// with `name` unchanged, if there is none.
   bool GetIntervalName(int32_t intervalId, std::string& name) const;

private:
   using MetricIds = Plexa::DataArray<MetricId>;

   /// Series to read, as parallel lists: each stat name is read with its rollup and labelled with
   /// its metric id.
   struct Metrics {
      std::vector<std::string> statNames;
      Corvax::RefVector<MetricId> metricIds;
      std::vector<StatsDepot::RollupType> rollups;

      void Append(std::string statName, Corvax::Ref<MetricId> metricId,
                  StatsDepot::RollupType rollup);
   };

   /// In seconds, both ends inclusive; an unset start is open.
   struct TimeRange {
      TimeStamp start;
      TimeStamp end;
   };

   /// Where the depot is, and its settings.
   struct DepotOptions {
      std::string directory;
      std::string name;
      int32_t maxStatsPurged = 0;
      JournalOptions journal;
   };

   void LoadStatsDepot();
   static DepotOptions ReadDepotOptions();
   std::string LoadExistingDepot(const DepotOptions& options);
   void NewStatsDepot(const DepotOptions& options);
   void AddMissingInterval();
   bool HasFutureTimeStamps() const;
   bool HasConfiguredInterval() const;

   // What these refuse is the fault InvalidArgument. QueryCurrent, QuerySummary and QueryRawStats
   // take the depot's lock; the others that read the depot are called with it held.
   static void ValidateEntityType(Plexa::MoRef* entity);
   static TimeRange GetTimeRange(const std::optional<Corvax::DateTime>& start,
                                 const std::optional<Corvax::DateTime>& end);
   std::string GetStatName(const MetricId& metricId) const;
   std::vector<std::string> GetStatNames(const MetricIds& metricIds) const;
   /// Sets `metricIds` to the primary counters of the stats and removes stats that the catalogue
   /// does not know from `statNames`.
   void GetMetricIds(std::vector<std::string>& statNames,
                     Corvax::RefVector<MetricId>& metricIds) const;
   /// The counters of the stats: all that each stat keeps, or only its first.
   Metrics GetMetricIdInfoFromStatNames(const std::vector<std::string>& statNames,
                                        bool allRollups) const;
   /// The counters of requested metrics; a composite stands for all counters of its stat.
   Metrics GetMetricIdInfo(const MetricIds& metricIds) const;
   /// Replaces metrics with the instance "*" by one metric for each instance that the entity has;
   /// they follow the metrics with an explicit instance.
   Corvax::Ref<MetricIds> ExpandMetricIdWildCards(const std::string& entityId,
                                                  MetricIds* metricIds);
   std::vector<std::string> GetAvailableStatNames(const std::string& entityId, TimeRange timeRange);

   Corvax::Ref<EntityMetric> QueryOne(QuerySpec* spec, TimeRange timeRange);
   /// Real-time series, of the newest `maxSample` periods at most; 0 or less is no limit.
   void QueryCurrent(const Corvax::RefVector<Plexa::MoRef>& entities, TimeRange timeRange,
                     int32_t maxSample, MetricIds* metricIds,
                     Plexa::DataArray<EntityMetric>& entityMetrics);
   /// Series of a historical interval.
   void QuerySummary(const Corvax::RefVector<Plexa::MoRef>& entities, TimeRange timeRange,
                     MetricIds* metricIds, int32_t intervalId,
                     Plexa::DataArray<EntityMetric>& entityMetrics);
   /// The newest readings; null if the depot is empty.
   void QueryRawStats(Plexa::MoRef* entity, MetricIds* metricIds,
                      Corvax::Ref<EntityMetric>& entityMetric);
   /// The series of those metrics that have samples; null if none has.
   Corvax::Ref<EntityMetric> GetEntityMetric(Plexa::MoRef* entity, const Metrics& metrics,
                                             int32_t intervalId, TimeRange timeRange);
   StatsDepot::RollupType GetRollup(const Metrics& metrics, size_t index, int32_t intervalId) const;
   static Corvax::Ref<EntityMetricCSV> ConvertToCSVFormat(const EntityMetric& entityMetric);
   Long GetLatestSample(const std::string& entityId, StatsMetadata::CounterId counterId,
                        const std::string& instance);

   Corvax::Ref<StatsMetadata> _statsMetadata;
   Corvax::Ref<StatsDepot> _statsDepot;
   Corvax::Ref<StatsCollector> _statsCollector;
   const Corvax::Ref<Corvax::Logger> _logger;
   int32_t _collectionInterval;      ///< seconds; also the period of the finest interval
   SampleInfoCache _sampleInfoCache; ///< guarded by the depot's lock
};

} // namespace Metrix
