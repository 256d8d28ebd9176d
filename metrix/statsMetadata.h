#pragma once

#include "corvax/object.h"
#include "metrix/statsDepot.h"
#include "plexa/dataArray.h"
#include "quen/performanceManager.h"

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace Metrix {

/// The counter catalogue: the API's description of every counter, and the stat name, type and
/// rollups under which the depot keeps it.
///
/// A stat name is group key, "-", name key, and for an instance "#" and the instance: "cpu-usage",
/// "cpu-usage#0". A composite counter reads the raw series of its stat; its derived counters
/// (composite + 1 average, + 2 maximum, + 3 minimum) share the stat and read its rollups.
///
/// Locking: none. The constructor fills the catalogue; it is read-only afterwards.
class StatsMetadata : public Corvax::ObjectImpl {
public:
   using CounterId = int32_t;
   using CounterInfo = Quen::PerformanceManager::CounterInfo;

   // NOLINTBEGIN(readability-identifier-naming): fixed names
   static const std::string AggregateInstanceId; ///< the entity as a whole: the empty string

   static const std::string CLASS_CPU;
   static const std::string CLASS_MEM;
   static const std::string CLASS_DISK;
   static const std::string CLASS_NET;
   static const std::string CLASS_SYS;
   static const std::string CLASS_RESCPU;

   static const std::string UNIT_KB;
   static const std::string UNIT_KBPS;
   static const std::string UNIT_MILLISECOND;
   static const std::string UNIT_SECOND;
   static const std::string UNIT_NUMBER;
   static const std::string UNIT_PERCENT; ///< hundredths of a percent
   static const std::string UNIT_MHZ;
   static const std::string UNIT_MB;
   // NOLINTEND(readability-identifier-naming)

   /// A row of the counter table.
   struct StatsInfo {
      CounterId id;
      std::string device; ///< group key
      std::string name;
      std::string unit;
      std::string description;
      CounterInfo::StatsType statsType;
      CounterInfo::RollupType counterType;
      /// Derived counters of a composite: average, minimum, maximum. Null for a simple counter.
      std::shared_ptr<const std::vector<CounterId>> associatedCounters;
      /// The rollup type of each, parallel to associatedCounters.
      const std::vector<CounterInfo::RollupType>* associatedCounterTypes;
      StatsDepot::StatType statsTypeInDepot;
      /// Parallel to associatedCounters; a single element for a simple counter.
      const std::vector<StatsDepot::RollupType>* rollupTypes;
   };

   // NOLINTBEGIN(readability-identifier-naming): fixed names
   static const StatsInfo agentdStatsInfoList[];
   static const int numAgentdStatsInfo;
   // NOLINTEND(readability-identifier-naming)

   /// The counters of one stat and the rollups that they read.
   class StatsDepotData {
   public:
      StatsDepotData(CounterId id, StatsDepot::StatType type) : _id(id), _type(type) {}

      CounterId GetId() const { return _id; }
      StatsDepot::StatType GetStatType() const { return _type; }
      const std::vector<CounterId>& GetCounterIds() const { return _counterIds; }
      const std::vector<StatsDepot::RollupType>& GetRollups() const { return _rollups; }

      void AddRollup(CounterId counterId, StatsDepot::RollupType rollup);
      /// The counter that reads a rollup; the stat's own for ROLLUP_NONE. False if there is none.
      bool GetCounterId(StatsDepot::RollupType rollup, CounterId& counterId) const;
      /// The rollup that a counter reads; ROLLUP_NONE for a composite. False if the counter does
      /// not belong to this stat.
      bool GetRollup(CounterId counterId, StatsDepot::RollupType& rollup) const;

   private:
      const CounterId _id;
      const StatsDepot::StatType _type;
      std::vector<CounterId> _counterIds;
      std::vector<StatsDepot::RollupType> _rollups; ///< parallel to _counterIds
   };

   StatsMetadata();

   /// False, with `statName` unchanged, if there is no such counter.
   bool GetStatName(CounterId counterId, std::string& statName) const;
   bool GetStatName(CounterId counterId, const std::string& instance, std::string& statName) const;

   /// The data of a stat, found by its name with or without instance; null for an unknown name. The
   /// catalogue keeps ownership.
   const StatsDepotData* GetStatsDepotData(const std::string& statName) const;

   /// The instance part of a stat name.
   static std::string GetInstanceId(const std::string& statName);

   /// Null if there is no such counter. The catalogue keeps ownership.
   CounterInfo* GetCounterInfo(CounterId counterId) const;

   /// Throws Plexa::Fault::InvalidArgument if there is no such counter.
   bool IsCompositeCounter(CounterId counterId) const;

   /// Sets `result` to all counters, in no particular order.
   void GetAllCounters(Corvax::Ref<Plexa::DataArray<CounterInfo>>& result) const;

private:
   void AddCounterInfo(CounterId id, const std::string& group, const std::string& name,
                       const std::string& description, const std::string& unit,
                       CounterInfo::StatsType statsType, CounterInfo::RollupType rollupType,
                       const std::vector<CounterId>* associated);
   void AddStatsDepotData(CounterId id, StatsDepot::StatType type,
                          const std::vector<CounterId>* counterIds,
                          const std::vector<StatsDepot::RollupType>* rollups);

   std::unordered_map<CounterId, Corvax::Ref<CounterInfo>> _perfCounterInfoList;
   std::unordered_map<std::string, std::unique_ptr<StatsDepotData>> _statsDepotDataList;
};

} // namespace Metrix
