#pragma once

#include "corvax/dateTime.h"
#include "plexa/dataArray.h"
#include "plexa/managedObject.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Quen {

/// A key with its label and summary.
struct ElementDescription : Corvax::ObjectImpl {
   ~ElementDescription() override;

   std::string label;
   std::string summary;
   std::string key;
};

/// An interval of the history. Periods and lengths are in seconds.
struct HistoricalInterval : Corvax::ObjectImpl {
   ~HistoricalInterval() override;

   int32_t key = 0;
   int32_t samplingPeriod = 0;
   std::string name;
   int32_t length = 0;
};

/// The descriptions of counter types and statistics types.
struct PerformanceDescription : Corvax::ObjectImpl {
   ~PerformanceDescription() override;

   Corvax::Ref<Plexa::DataArray<ElementDescription>> counterType;
   Corvax::Ref<Plexa::DataArray<ElementDescription>> statsType;
};

/// The API's access to statistics: the counters and intervals that exist, the metrics of an entity
/// and their series. A result that is not set is a null reference.
class PerformanceManager : public virtual Plexa::ManagedObject {
public:
   /// The description of a counter.
   struct CounterInfo : Corvax::ObjectImpl {
      ~CounterInfo() override;

      enum RollupType : int32_t {
         average = 0,
         maximum = 1,
         minimum = 2,
         latest = 3,
         summation = 4,
         none = 5,
      };
      enum StatsType : int32_t {
         absolute = 0,
         delta = 1,
         rate = 2,
      };

      int32_t key = 0;
      Corvax::Ref<ElementDescription> nameInfo;
      Corvax::Ref<ElementDescription> groupInfo;
      Corvax::Ref<ElementDescription> unitInfo;
      RollupType rollupType = none;
      StatsType statsType = absolute;
      /// The counters derived from this one; not set if there are none.
      std::optional<std::vector<int32_t>> associatedCounterId;
   };

   /// A counter of one instance. The empty instance is the entity as a whole, "*" all instances.
   struct MetricId : Corvax::ObjectImpl {
      ~MetricId() override;

      MetricId(int32_t counter, std::string instanceName)
         : counterId(counter), instance(std::move(instanceName))
      {
      }
      int32_t counterId;
      std::string instance;
   };

   struct SampleInfo : Corvax::ObjectImpl {
      ~SampleInfo() override;

      SampleInfo(Corvax::DateTime time, int32_t intervalSec)
         : timestamp(time), interval(intervalSec)
      {
      }
      Corvax::DateTime timestamp;
      int32_t interval; ///< seconds
   };

   struct MetricSeries : Corvax::ObjectImpl {
      ~MetricSeries() override;

      Corvax::Ref<MetricId> id;
   };

   /// One value per time stamp, -1 where there is none.
   struct IntSeries : MetricSeries {
      ~IntSeries() override;

      std::vector<int64_t> value;
   };

   struct MetricSeriesCSV : MetricSeries {
      ~MetricSeriesCSV() override;

      std::string value;
   };

   struct EntityMetricBase : Corvax::ObjectImpl {
      ~EntityMetricBase() override;

      Corvax::Ref<Plexa::MoRef> entity;
   };

   struct EntityMetric : EntityMetricBase {
      ~EntityMetric() override;

      /// Results with the same time stamps may share the array.
      Corvax::Ref<const Plexa::DataArray<const SampleInfo>> sampleInfo;
      Corvax::Ref<Plexa::DataArray<MetricSeries>> value;
   };

   struct EntityMetricCSV : EntityMetricBase {
      ~EntityMetricCSV() override;

      std::string sampleInfoCSV;
      Corvax::Ref<Plexa::DataArray<MetricSeriesCSV>> value;
   };

   /// A query for series of one entity.
   struct QuerySpec : Corvax::ObjectImpl {
      ~QuerySpec() override;

      Corvax::Ref<Plexa::MoRef> entity;
      std::optional<Corvax::DateTime> startTime; ///< exclusive
      std::optional<Corvax::DateTime> endTime;   ///< inclusive
      std::optional<int32_t> maxSample;
      Corvax::Ref<Plexa::DataArray<MetricId>> metricId;
      std::optional<int32_t> intervalId; ///< a sampling period in seconds, 0 for the latest values
      std::optional<std::string> format; ///< FORMAT_NORMAL or FORMAT_CSV
   };

   /// The kinds of statistics that an entity offers.
   struct ProviderSummary : Corvax::ObjectImpl {
      ~ProviderSummary() override;

      Corvax::Ref<Plexa::MoRef> entity;
      bool currentSupported = false;
      bool summarySupported = false;
      std::optional<int32_t> refreshRate; ///< seconds
   };

   /// Series of an entity and of its children.
   struct CompositeEntityMetric : Corvax::ObjectImpl {
      ~CompositeEntityMetric() override;

      Corvax::Ref<EntityMetricBase> entity;
      Corvax::Ref<Plexa::DataArray<EntityMetricBase>> childEntity;
   };

   static constexpr char FORMAT_NORMAL[] = "normal";
   static constexpr char FORMAT_CSV[] = "csv";

   /// Errors of all operations: Plexa::Fault exceptions for requests that are refused, other
   /// runtime exceptions if the depot fails. InvalidArgument names the property at fault.
   virtual void GetDescription(Corvax::Ref<PerformanceDescription>& description) = 0;
   virtual void
   GetHistoricalInterval(Corvax::Ref<Plexa::DataArray<HistoricalInterval>>& intervals) = 0;
   virtual void GetPerfCounter(Corvax::Ref<Plexa::DataArray<CounterInfo>>& counters) = 0;
   virtual void QueryAvailableMetric(Plexa::MoRef* entity,
                                     const std::optional<Corvax::DateTime>& beginTime,
                                     const std::optional<Corvax::DateTime>& endTime,
                                     const std::optional<int32_t>& intervalId,
                                     Corvax::Ref<Plexa::DataArray<MetricId>>& metricIds) = 0;
   /// InvalidArgument, without a partial result, if one of the ids is not a counter.
   virtual void QueryCounter(const std::vector<int32_t>& counterIds,
                             Corvax::Ref<Plexa::DataArray<CounterInfo>>& counters) = 0;
   virtual void CreateHistoricalInterval(HistoricalInterval* interval) = 0;
   virtual void RemoveHistoricalInterval(int32_t intervalId) = 0;
   virtual void UpdateHistoricalInterval(HistoricalInterval* interval) = 0;
   virtual void QueryProviderSummary(Plexa::MoRef* entity,
                                     Corvax::Ref<ProviderSummary>& summary) = 0;
   virtual void QueryStats(Plexa::DataArray<QuerySpec>* querySpecs,
                           Corvax::Ref<Plexa::DataArray<EntityMetricBase>>& results) = 0;
   virtual void QueryCompositeStats(QuerySpec* querySpec,
                                    Corvax::Ref<CompositeEntityMetric>& result) = 0;
   virtual void SummarizeStats() = 0;

   static const Plexa::ManagedType& GetManagedType();

protected:
   ~PerformanceManager() override;
};

} // namespace Quen
