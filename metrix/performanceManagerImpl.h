#pragma once

#include "agentdCommon/authEntityBaseImpl.h"
#include "agentdCommon/haPerformanceManager.h"
#include "corvax/logger.h"
#include "metrix/baseStatsCollector.h"
#include "metrix/statsDepot.h"
#include "metrix/statsMetadata.h"

#include <string>

namespace Metrix {

/// The first instant at or after `time` on the grid of step `interval` through `reference`. All in
/// seconds, positive; `interval` is not 0.
int64_t FindIntervalBoundary(int64_t reference, int64_t time, int64_t interval);

/// The performance manager: owns catalogue, depot and collector, and answers the management API.
/// Its sources: performanceManagerImpl.cpp has set-up, descriptions and usage figures;
/// performanceManagerQuery.cpp metric identification and series.
///
/// Locking: operations that read the depot, and QueryCounter, hold the depot's lock for their whole
/// duration; the others tell what was fixed at construction and take none.
class PerformanceManagerImpl : public virtual AgentdCommon::HaPerformanceManager,
                               public AgentdCommon::AuthEntityBaseImpl {
public:
   using Long = AgentdCommon::Long;

   /// Reads the configuration section "plugins/metrix", opens the depot or makes it afresh, and
   /// creates the configured collector; nothing is collected yet. Exceptions of the runtime where
   /// the configuration is malformed or the depot cannot be made.
   PerformanceManagerImpl(const std::string& id, Corvax::Logger* logger);

   void StartStatsCollection();
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

   /// The depot's name of the interval with that sampling period in seconds. False, with `name`
   /// unchanged, when there is none.
   bool GetIntervalName(int32_t intervalId, std::string& name) const;

private:
   void LoadStatsDepot();
   bool LoadExistingDepot(const std::string& directory, const std::string& name,
                          int maxStatsPurged);
   void AddMissingInterval();
   bool HasFutureTimeStamps() const;
   bool HasConfiguredInterval() const;
   using MetricIds = Plexa::DataArray<MetricId>;

   /// Series to be read, as parallel lists: each stat name is read with its rollup and labelled
   /// with its metric id.
   struct Metrics {
      std::vector<std::string> statNames;
      Corvax::RefVector<MetricId> metricIds;
      std::vector<StatsDepot::RollupType> rollups;

      void Append(const std::string& statName, Corvax::Ref<MetricId> metricId,
                  StatsDepot::RollupType rollup);
   };

   /// A span of time in seconds, both ends inclusive; an unset start is open.
   struct Window {
      TimeStamp start;
      TimeStamp end;
   };

   // All of these throw the fault InvalidArgument for what they refuse, and are called, where they
   // read the depot, with its lock held.
   static void ValidateEntityType(Plexa::MoRef* entity);
   static Window GetWindow(const std::optional<Corvax::DateTime>& start,
                           const std::optional<Corvax::DateTime>& end);
   std::string GetStatName(const MetricId& metricId) const;
   std::vector<std::string> GetStatNames(const MetricIds& metricIds) const;
   /// Replaces `metricIds` by the primary counters of the stats; stats that the catalogue does not
   /// know are taken out of `statNames`.
   void GetMetricIds(std::vector<std::string>& statNames,
                     Corvax::RefVector<MetricId>& metricIds) const;
   /// The counters of depot stats: all that each keeps, or its first alone.
   Metrics GetMetricIdInfoFromStatNames(const std::vector<std::string>& statNames,
                                        bool allRollups) const;
   /// The counters of requested metrics; a composite one stands for all counters of its stat.
   Metrics GetMetricIdInfo(const MetricIds& metricIds) const;
   /// The metrics with "*" replaced by the instances that the entity has: the explicit ones first.
   Corvax::Ref<MetricIds> ExpandMetricIdWildCards(const std::string& entityId,
                                                  MetricIds* metricIds);
   std::vector<std::string> GetAvailableStatNames(const std::string& entityId, Window window);

   Corvax::Ref<EntityMetric> QueryOne(QuerySpec* spec, Window window);
   /// Newest real-time series; `maxSample` 0 or less is no limit.
   void QueryCurrent(const Corvax::RefVector<Plexa::MoRef>& entities, Window window,
                     int32_t maxSample, MetricIds* metricIds,
                     Plexa::DataArray<EntityMetric>& entityMetrics);
   /// Series of a historical interval.
   void QuerySummary(const Corvax::RefVector<Plexa::MoRef>& entities, Window window,
                     MetricIds* metricIds, int32_t intervalId,
                     Plexa::DataArray<EntityMetric>& entityMetrics);
   /// The newest raw values; unset when there are none.
   void QueryRawStats(Plexa::MoRef* entity, MetricIds* metricIds,
                      Corvax::Ref<EntityMetric>& entityMetric);
   void GetEntityMetric(Plexa::MoRef* entity, const Metrics& metrics,
                        const std::vector<int32_t>& intervalIds, Window window,
                        Corvax::Ref<EntityMetric>& entityMetric);
   void AppendSampleInfo(const std::string& entityId, const Metrics& metrics, int32_t intervalId,
                         Window window, Plexa::DataArray<SampleInfo>& sampleInfo);
   StatsDepot::RollupType GetRollup(const Metrics& metrics, size_t index, int32_t intervalId) const;
   static Corvax::Ref<EntityMetricCSV> ConvertToCSVFormat(const EntityMetric& entityMetric);
   Long GetLatestSample(const std::string& entityId, StatsMetadata::CounterId counterId,
                        const std::string& instance);

   Corvax::Ref<StatsMetadata> _statsMetadata;
   Corvax::Ref<StatsDepot> _statsDepot;
   Corvax::Ref<StatsCollector> _statsCollector;
   const Corvax::Ref<Corvax::Logger> _logger;
   int32_t _collectionInterval; ///< seconds; also the period of the finest interval
};

} // namespace Metrix
