#pragma once

#include "corvax/xmlConfig.h"
#include "metrix/idMapFile.h"
#include "metrix/intervalTable.h"
#include "metrix/rollupFunctions.h"
#include "metrix/slotUsageMap.h"
#include "metrix/statsDepot.h"

#include <array>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace Metrix {

/// The depot. statsDepotImpl.cpp: creating, loading, recording, reading. statsDepotRegistry.cpp:
/// stats and their ids. statsDepotDeletion.cpp: deleting and purging. statsDepotPropagation.cpp:
/// filling the coarse intervals.
class StatsDepotImpl : public Corvax::LockableObjectImpl, public StatsDepot {
public:
   StatsDepotImpl(std::string depotDir, std::string depotName, Corvax::Logger* logger,
                  int maxStatsPurged, const JournalOptions& journalOptions);

   void Lock() override;
   void Unlock() override;

   void Create() override;
   void Load() override;
   void LoadReadOnly() override;
   void Flush() override;
   void AddInterval(const std::string& name, int samplingPeriod, unsigned int numSamples) override;
   void GetIntervals(Corvax::RefVector<StatsDepotInterval>& intervals) override;
   void CreateStat(const std::string& entityId, const std::string& statName, StatType type,
                   int scalingFactor, const std::vector<RollupType>& rollups) override;
   bool AddSample(const std::string& entityId, const std::string& statName, TimeStamp ts,
                  StatVal value, StatVal maxVal) override;
   StatVal GetSample(const std::string& entityId, const std::string& statName, TimeStamp ts,
                     const std::string& intervalName, RollupType rollup) override;
   int GetSamples(const std::string& entityId, const std::string& statName, TimeStamp begin,
                  TimeStamp end, std::vector<StatVal>& values, std::vector<TimeStamp>* timeStamps,
                  const std::string& intervalName, RollupType rollup) override;
   StatVal GetRawSample(const std::string& entityId, const std::string& statName,
                        TimeStamp& ts) override;
   void GetAvailableStatNames(const std::string& entityId, TimeStamp begin, TimeStamp end,
                              std::vector<std::string>& statNames) override;
   TimeStamp GetLatestTimeStamp() override;
   void DeleteEntityStats(const std::string& entityId) override;
   void DeleteStat(const std::string& entityId, const std::string& statName) override;
   void AddMissingRollups(const RollupSource& source) override;
   int GiveUpColumnsAfter(TimeStamp ts) override;
   void Checkpoint() override;
   std::string GetTrouble() override;

   /// A registered stat: its ids, one per rollup, and its last reading.
   class StatInfo : public Corvax::ObjectImpl {
   public:
      StatInfo(StatType type, int scalingFactor) : _type(type), _scalingFactor(scalingFactor) {}

      /// False, with nothing changed, if the rollup has an id or the id is present.
      bool AddStatId(StatId id, RollupType rollup);
      /// Unset if the rollup has no id.
      StatId GetStatId(RollupType rollup) const;
      /// NotReachedException if the id is not one of the stat's.
      RollupType GetRollupType(StatId id) const;
      bool HasStatId(StatId id) const;

      std::vector<StatId> _statIds;
      std::vector<RollupType> _rollupTypes; ///< parallel to _statIds
      const StatType _type;
      TimeStamp _lastTimeStamp = kUnset; ///< of the last reading
      StatVal _lastVal = kUnset;         ///< the last reading
      const int32_t _scalingFactor;
   };

   using Interval = Metrix::Interval;
   using IntervalTable = Metrix::IntervalTable;

   /// By rollup type.
   static constexpr std::array<RollupFunction, 6> _rollupFunctions = {
      CalculateNop, CalculateAverage, CalculateMax, CalculateMin, CalculateLast, CalculateSum,
   };

private:
   using StatMap = std::unordered_map<std::string, Corvax::Ref<StatInfo>>;

   struct StatIdHash {
      size_t operator()(StatId id) const { return static_cast<uint32_t>(id); }
   };

   struct StatName {
      std::string entityId;
      std::string statName;
      Corvax::Ref<StatInfo> info;
   };

   /// A batch in every store for the length of a scope. End writes pending changes and throws if
   /// that fails; without End a failure is only logged. If the depot is locked, the scope ends with
   /// a new batch, which lasts until Unlock.
   class Batch {
   public:
      explicit Batch(StatsDepotImpl& depot) : _depot(depot) { _depot.BeginBatch(); }
      ~Batch();
      Batch(const Batch&) = delete;
      Batch& operator=(const Batch&) = delete;
      void End();

   private:
      StatsDepotImpl& _depot;
      bool _hasEnded = false;
   };

   /// Consecutive coarse periods to fill. The first summarises the fine samples begin .. end, both
   /// inclusive, into a sample stamped end; each of the others is one step later.
   struct Periods {
      TimeStamp begin;
      TimeStamp end;
      uint64_t step;
      uint64_t count;
   };

   void BeginBatch();
   void EndBatch();
   void EndBatchOrLog();
   void AssertOpen() const;
   std::string GetDepotFileName() const { return _depotDir + _depotName + ".xml"; }
   std::string GetIdMapFileName() const { return _depotDir + _depotName + ".idMap"; }
   std::string GetStoreName(int samplingPeriod) const;
   void LoadInterval(const std::string& element);
   void FindLostRecords();
   /// The finest interval for an empty name, or null if there is none; "Invalid argument" for an
   /// unknown name.
   Interval* SelectInterval(const std::string& intervalName) const;

   bool GetStatInfo(const std::string& entityId, const std::string& statName,
                    Corvax::Ref<StatInfo>& info) const;
   bool GetStatInfo(StatId id, Corvax::Ref<StatInfo>& info) const;
   StatId GetStatId(const std::string& entityId, const std::string& statName,
                    RollupType rollup) const;
   StatId AllocStatId();
   void TakeBackStat(const std::string& entityId, const std::string& statName);
   void LoadIdMapping();
   bool LoadIdRecord(const IdMapFormat::Record& record, StatId id);
   void DropStatsWithoutRawId();
   void DropStatOfLastRecord();
   bool AddIdMapping(const std::string& entityId, const std::string& statName, StatType type,
                     int scalingFactor, RollupType rollup, StatId id);
   void PersistIdMappingAddition(const std::vector<IdMapFile::Entry>& entries)
   {
      _idMapFile.WriteRecords(entries);
   }
   void PersistIdMappingRemoval(const std::vector<StatId>& ids) { _idMapFile.ClearRecords(ids); }
   void SyncIdMap() { _idMapFile.Sync(); }
   void ForgetStat(const std::string& entityId, const std::string& statName, const StatInfo& info);
   void DeleteStatInt(const std::string& entityId, const std::string& statName);
   void DeleteStats(const std::vector<StatName>& stats);
   void PurgeUnusedStats();
   TimeStamp GetLatestTimeStamp(StatInfo* info) const;
   TimeStamp GetEarliestTimeStamp() const;

   void RecordSample(StatInfo& info, TimeStamp ts, StatVal value, StatVal maxVal);
   void UpdateRollups(TimeStamp ts);
   void PropagateStats(TimeStamp ts);
   void PropagateStats(Interval* coarse, Interval* fine, TimeStamp ts);
   Periods FindDuePeriods(const Interval& coarse, const Interval& fine, TimeStamp ts);
   void PropagateStat(StatId id, const Interval& coarse, const Interval& fine,
                      const Periods& periods);
   static void AddCoarseSample(StatsStore& store, const Periods& periods, StatId id, TimeStamp end,
                               StatVal value);

   const std::string _depotDir;
   const std::string _depotName;
   const int _maxStatsPurged;
   const JournalOptions _journalOptions;
   Corvax::Ref<Corvax::XmlConfig> _statsDepotConfig; ///< the description file
   IdMapFile _idMapFile;
   const Corvax::Ref<IntervalTable> _intervalTable;
   std::unordered_map<std::string, std::unique_ptr<StatMap>> _entityMap;
   std::unordered_map<StatId, Corvax::Ref<StatInfo>, StatIdHash> _statInfoMap;
   Corvax::Ref<SlotUsageMap> _slotUsageMap;
   /// When the next propagation is due; unset until the first sample after Create or Load.
   TimeStamp _nextUpdateTime = kUnset;
   const Corvax::Ref<Corvax::Logger> _logger;
   int _lockDepth = 0;
   std::vector<StatVal> _samples; ///< PropagateStat's buffer, reused to save allocations
};

} // namespace Metrix
