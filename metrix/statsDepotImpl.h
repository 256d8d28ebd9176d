#pragma once

#include "corvax/file.h"
#include "corvax/xmlConfig.h"
#include "metrix/slotUsageMap.h"
#include "metrix/statsDepot.h"
#include "metrix/statsStore.h"

#include <array>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace Metrix {

/// The depot. Its sources: statsDepot.cpp has creation, loading, intervals and reading;
/// statsDepotRegistry.cpp the stats and the id-map file, with deletion and purging;
/// statsDepotRollup.cpp recording and rollups.
class StatsDepotImpl : public Corvax::LockableObjectImpl, public StatsDepot {
public:
   StatsDepotImpl(std::string depotDir, std::string depotName, Corvax::Logger* logger,
                  int maxStatsPurged);

   void Lock() override;
   void Unlock() override;

   void Create() override;
   void Load() override;
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

   /// One registered stat: its ids, one a rollup, and what recording needs to remember of it.
   class StatInfo : public Corvax::ObjectImpl {
   public:
      StatInfo(StatType type, int scalingFactor) : _type(type), _scalingFactor(scalingFactor) {}

      /// False, with nothing changed, when the rollup has an id or the id is present.
      bool AddStatId(StatId id, RollupType rollup);
      /// Unset when the rollup has no id.
      StatId GetStatId(RollupType rollup) const;
      /// Asking for an id of another stat is a programming error.
      RollupType GetRollupType(StatId id) const;
      bool HasStatId(StatId id) const;

      std::vector<StatId> _statIds;
      std::vector<RollupType> _rollupTypes; ///< parallel to _statIds
      const StatType _type;
      TimeStamp _lastTimeStamp = kUnset; ///< of the last raw reading
      StatVal _lastVal = kUnset;         ///< the last raw reading
      const int32_t _scalingFactor;
   };

   /// One resolution with its store.
   struct Interval : Corvax::ObjectImpl {
      Interval(std::string name, std::string storeName, int samplingPeriod, uint32_t numSamples)
         : _intervalName(std::move(name)), _storeName(std::move(storeName)),
           _samplingPeriod(samplingPeriod), _numSamples(numSamples)
      {
      }

      /// Assertion while the store is neither created nor loaded.
      StatsStore& GetStore() const;
      uint64_t GetPeriod() const { return static_cast<uint64_t>(_samplingPeriod); }

      const std::string _intervalName;
      const std::string _storeName; ///< the store file's path
      const int _samplingPeriod;    ///< seconds
      const uint32_t _numSamples;
      Corvax::Ref<StatsStore> _statsStore;
   };

   /// The intervals, finest first.
   class IntervalTable : public Corvax::ObjectImpl {
   public:
      explicit IntervalTable(Corvax::Logger* logger) : _logger(logger) {}

      void AddInterval(const std::string& name, const std::string& storeName, int samplingPeriod,
                       uint32_t numSamples);
      void LoadInterval(const std::string& name);
      void InitInterval(const std::string& name);
      /// Null when there is none.
      Interval* FindInterval(const std::string& name) const;
      Interval* GetIntervalAt(int index) const;
      int GetNumIntervals() const { return static_cast<int>(_intervalList.size()); }
      auto begin() const { return _intervalList.begin(); }
      auto end() const { return _intervalList.end(); }

   private:
      [[noreturn]] void Refuse(const char* pattern, int period, int otherPeriod) const;

      Corvax::RefVector<Interval> _intervalList;
      const Corvax::Ref<Corvax::Logger> _logger;
   };

   using RollupFunction = StatVal (*)(const std::vector<StatVal>& run);

   /// What a run of fine samples (oldest first, unset ones included) comes to. Sums wrap.
   static StatVal CalculateNop(const std::vector<StatVal>& run);
   static StatVal CalculateAverage(const std::vector<StatVal>& run);
   static StatVal CalculateMax(const std::vector<StatVal>& run);
   static StatVal CalculateMin(const std::vector<StatVal>& run);
   static StatVal CalculateLast(const std::vector<StatVal>& run);
   static StatVal CalculateSum(const std::vector<StatVal>& run);
   static const std::array<RollupFunction, 6> _rollupFunctions; ///< by rollup type

private:
   using StatMap = std::unordered_map<std::string, Corvax::Ref<StatInfo>>;

   struct StatIdHash {
      size_t operator()(StatId id) const { return static_cast<uint32_t>(id); }
   };

   /// What the id map keeps of an id. The names are the caller's.
   struct IdRecord {
      const std::string* entityId;
      const std::string* statName;
      RollupType rollup;
      StatType type;
      int scalingFactor;
      StatId id;
   };

   struct StatName {
      std::string entityId;
      std::string statName;
      Corvax::Ref<StatInfo> info;
   };

   /// The stores' rows are held back for the length of a scope, and beyond it while the depot is
   /// locked. End writes them and says what failed.
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

   /// A run of coarse periods to be computed; each summarises the fine samples begin .. end and is
   /// stamped end.
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
   /// The finest interval for an empty name, null when there is none; "Invalid argument" for an
   /// unknown name.
   Interval* SelectInterval(const std::string& intervalName) const;

   bool GetStatInfo(const std::string& entityId, const std::string& statName,
                    Corvax::Ref<StatInfo>& info) const;
   bool GetStatInfo(StatId id, Corvax::Ref<StatInfo>& info) const;
   StatId GetStatId(const std::string& entityId, const std::string& statName,
                    RollupType rollup) const;
   StatId AllocStatId();
   void AddNewIdMapping(const IdRecord& record);
   void LoadIdMapping();
   bool LoadIdRecord(const std::byte* record, StatId id);
   void DropStatsWithoutRawId();
   void DropStatOfLastRecord();
   bool AddIdMapping(const std::string& entityId, const std::string& statName, StatType type,
                     int scalingFactor, RollupType rollup, StatId id);
   void PersistIdMappingAddition(const std::vector<IdRecord>& records);
   static void EncodeRecord(const IdRecord& record, std::byte* out);
   void PersistIdMappingRemoval(const std::vector<StatId>& ids);
   void SyncIdMap();
   void TryPersistRemoval(const StatInfo& info);
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
   Corvax::Ref<Corvax::XmlConfig> _statsDepotConfig; ///< the description file
   Corvax::Ref<Corvax::FileHandle> _idMapFileHandle;
   const Corvax::Ref<IntervalTable> _intervalTable;
   std::unordered_map<std::string, std::unique_ptr<StatMap>> _entityMap;
   std::unordered_map<StatId, Corvax::Ref<StatInfo>, StatIdHash> _statInfoMap;
   Corvax::Ref<SlotUsageMap> _slotUsageMap;
   /// When rollups are due next; unset until the first sample after Create or Load.
   TimeStamp _nextUpdateTime = kUnset;
   const Corvax::Ref<Corvax::Logger> _logger;
   int _lockDepth = 0;
   std::vector<StatVal> _run; ///< PropagateStat's buffer, kept for its capacity
};

} // namespace Metrix
