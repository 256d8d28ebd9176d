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
   static void ValidateEntityType(Plexa::MoRef* entity);
   Long GetLatestSample(const std::string& entityId, StatsMetadata::CounterId counterId,
                        const std::string& instance);

   Corvax::Ref<StatsMetadata> _statsMetadata;
   Corvax::Ref<StatsDepot> _statsDepot;
   Corvax::Ref<StatsCollector> _statsCollector;
   const Corvax::Ref<Corvax::Logger> _logger;
   int32_t _collectionInterval; ///< seconds; also the period of the finest interval
};

} // namespace Metrix
