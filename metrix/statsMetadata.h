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

/// The counter catalogue: which counters exist and what the API says of each, and under which stat
/// name, type and rollups the depot keeps them.
///
/// A stat name is group key, "-", name key, and for an instance "#" and the instance: "cpu-usage",
/// "cpu-usage#0". A composite counter stands for the raw values of its stat; its derived counters
/// (composite + 1 average, + 2 maximum, + 3 minimum) share the stat and read its rollups.
///
/// Locking: none needed; filled by the constructor and read-only from then on.
class StatsMetadata : public Corvax::ObjectImpl {
public:
   using CounterId = int32_t;
   using CounterInfo = Quen::PerformanceManager::CounterInfo;

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

   /// A row of the counter table.
   struct StatsInfo {
      CounterId id;
      std::string device; ///< group key
      std::string name;
      std::string unit;
      std::string description;
      CounterInfo::StatsType statsType;
      CounterInfo::RollupType counterType;
      /// A composite's derived counters, average, minimum, maximum; null for a simple counter.
      std::shared_ptr<const std::vector<CounterId>> associatedCounters;
      /// The rollup type of each, parallel to associatedCounters.
      const std::vector<CounterInfo::RollupType>* associatedCounterTypes;
      StatsDepot::StatType statsTypeInDepot;
      /// Parallel to associatedCounters where there are any, else one element.
      const std::vector<StatsDepot::RollupType>* rollupTypes;
   };

   static const StatsInfo agentdStatsInfoList[];
   static const int numAgentdStatsInfo;

   /// How the depot keeps the counters of one stat.
   class StatsDepotData {
   public:
      StatsDepotData(CounterId id, StatsDepot::StatType type) : _id(id), _type(type) {}

      CounterId GetId() const { return _id; }
      StatsDepot::StatType GetStatType() const { return _type; }
      const std::vector<CounterId>& GetCounterIds() const { return _counterIds; }
      const std::vector<StatsDepot::RollupType>& GetRollups() const { return _rollups; }

      void AddRollup(CounterId counterId, StatsDepot::RollupType rollup);
      /// The counter that reads a rollup; the stat's own for ROLLUP_NONE. False when there is none.
      bool GetCounterId(StatsDepot::RollupType rollup, CounterId& counterId) const;
      /// The rollup that a counter reads; ROLLUP_NONE for a composite. False when the stat does not
      /// keep the counter.
      bool GetRollup(CounterId counterId, StatsDepot::RollupType& rollup) const;

   private:
      const CounterId _id;
      const StatsDepot::StatType _type;
      std::vector<CounterId> _counterIds;
      std::vector<StatsDepot::RollupType> _rollups; ///< parallel to _counterIds
   };

   StatsMetadata();

   /// False, with `statName` unchanged, when there is no such counter.
   bool GetStatName(CounterId counterId, std::string& statName) const;
   bool GetStatName(CounterId counterId, const std::string& instance, std::string& statName) const;

   /// What is kept under a stat name, with or without instance; null when it is unknown. Owned by
   /// the catalogue.
   const StatsDepotData* GetStatsDepotData(const std::string& statName) const;

   /// The instance part of a stat name.
   static std::string GetInstanceId(const std::string& statName);

   /// Null when there is no such counter; the catalogue keeps the reference.
   CounterInfo* GetCounterInfo(CounterId counterId) const;

   /// Plexa::Fault::InvalidArgument when there is no such counter.
   bool IsCompositeCounter(CounterId counterId) const;

   /// Replaces `result` by all counters, in no particular order.
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
