#pragma once

#include "corvax/exception.h"
#include "corvax/xmlConfig.h"
#include "metrix/idMapFile.h"
#include "metrix/intervalTable.h"
#include "metrix/journal.h"
#include "metrix/rollupFunctions.h"
#include "metrix/slotUsageMap.h"
#include "metrix/statsDepot.h"

#include <array>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

namespace Metrix {

/// The depot. statsDepotImpl.cpp: creating, loading, recording, reading. statsDepotRegistry.cpp:
/// stats and their ids. statsDepotDeletion.cpp: deleting and purging. statsDepotPropagation.cpp:
/// filling the coarse intervals. statsDepotRecovery.cpp: what the journal has, and the first change
/// after loading. statsDepotCommit.cpp: what goes to the journal. statsDepotCheckpoint.cpp: laying
/// down what is pending.
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

      // Keys of the entity map.
      const std::string* _entityId = nullptr;
      const std::string* _statName = nullptr;
      StatId _rawId = kUnset; ///< of ROLLUP_NONE
      std::vector<StatId> _statIds;
      std::vector<RollupType> _rollupTypes; ///< parallel to _statIds
      const StatType _type;
      TimeStamp _lastTimeStamp = kUnset; ///< of the last reading
      StatVal _lastVal = kUnset;         ///< the last reading
      const int32_t _scalingFactor;
      /// The stat that got the next sample in the last run, while _deletions is the depot's.
      StatInfo* _follower = nullptr;
      uint64_t _followerDeletions = 0;
   };

   using Interval = Metrix::Interval;
   using IntervalTable = Metrix::IntervalTable;

   /// By rollup type.
   static constexpr std::array<RollupFunction, 6> _rollupFunctions = {
      CalculateNop, CalculateAverage, CalculateMax, CalculateMin, CalculateLast, CalculateSum,
   };

private:
   using StatMap = std::unordered_map<std::string, Corvax::Ref<StatInfo>>;

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

   /// A series as the journal has it, if its id is not free.
   struct PendingStat {
      std::string entityId;
      std::string statName;
      int32_t rollup;
      int32_t statType;
      int32_t scalingFactor;

      IdMapFormat::Record GetRecord() const
      {
         return {entityId, statName, rollup, statType, scalingFactor};
      }
   };
   using PendingStats = std::map<StatId, std::optional<PendingStat>>;

   class Recovery;

   /// Locks the depot, but neither begins a batch nor commits.
   class PlainLock {
   public:
      explicit PlainLock(StatsDepotImpl& depot) : _depot(depot)
      {
         _depot.LockableObjectImpl::Lock();
      }
      ~PlainLock() { _depot.LockableObjectImpl::Unlock(); }
      PlainLock(const PlainLock&) = delete;
      PlainLock& operator=(const PlainLock&) = delete;

   private:
      StatsDepotImpl& _depot;
   };

   /// Rows of a store that are laid down together.
   struct Share {
      Corvax::Ref<Interval> interval;
      StatId first = 0;
      StatId end = 0;
      TimeStamp newestStamp = 0;
      std::vector<StatId> postponedBefore;
      StatsStore::LayDownResult result;
      bool isSynced = false;
   };
   /// What one run lays down.
   struct Step {
      bool hasBegun = false;
      uint64_t epoch = 0;
      TimeStamp stamp = kUnset; ///< newest column of the finest interval
      std::vector<Share> shares;
      std::map<StatId, uint64_t> ids; ///< of _pendingIds
      bool areIdsSynced = false;
      std::string trouble;
   };
   /// How an interval's rows are laid down.
   struct Schedule {
      uint64_t cycleSec; ///< in which each row has its turn
      StatId cursor = 0;
      std::vector<StatId> postponed;
   };

   void BeginBatch();
   void EndBatch();
   void EndBatchOrLog();

   // Recovery.
   void Open(bool readOnly);
   void Recover();
   void HideImpossibleColumns();
   void AttachHeads(bool asLargeAsPossible);
   void ApplyJournal(const JournalReader& reader, Recovery& recovery);
   void CheckJournalFits(const JournalReader& reader) const;
   /// Makes the depot ready for its first change. Costs nothing from then on.
   void PrepareChange()
   {
      if (!_isReady) {
         TryMakeReady();
      }
      _hasChanges = true;
   }
   void TryMakeReady();
   void MakeReady();
   void CreatePlannedStores();
   void MendDescription();
   void StartJournal();
   void AllocateOtherFile();
   void OpenJournal();
   void RetireJournal();
   void SetJournalAside();
   void Reopen();
   std::string GetPrefix() const { return _depotDir + _depotName; }

   // Checkpoint.
   bool IsJournaled() const { return _journal != nullptr; }
   void Commit();
   bool CommitOrLog();
   void LogLostSamples();
   bool IsSyncDue();
   void Maintain();
   std::shared_ptr<Journal> GetJournalToSync();
   bool IsStepDue() const;
   bool PrepareStep(Step& step);
   void PlanShares(Step& step);
   void LayDown(Share& share, uint64_t epoch);
   void SyncStep(Step& step);
   void FinishStep(Step& step);
   void LayDownIds(Step& step, size_t limit);
   void SetIdsDurable(const Step& step);
   void BeginGeneration();
   void SyncJournal();
   void CheckpointNow();
   void LayEverythingDown(bool straight = false);
   void MakeRoomFor(StatsStore& store, TimeStamp ts);
   void AddSnapshotOfIds(JournalEntries& snapshot) const;
   bool AreFilesInPlace();
   void ReportTrouble(const std::string& trouble);

   void AssertOpen() const;
   std::string GetDepotFileName() const { return _depotDir + _depotName + ".xml"; }
   std::string GetIdMapFileName() const { return _depotDir + _depotName + ".idMap"; }
   std::string GetStoreName(int samplingPeriod) const;
   void LoadInterval(const std::string& element);
   void FindLostRecords() const;
   /// The finest interval for an empty name, or null if there is none; "Invalid argument" for an
   /// unknown name.
   Interval* SelectInterval(const std::string& intervalName) const;

   bool GetStatInfo(const std::string& entityId, const std::string& statName,
                    Corvax::Ref<StatInfo>& info) const;
   bool GetStatInfo(StatId id, Corvax::Ref<StatInfo>& info) const;
   StatId GetStatId(const std::string& entityId, const std::string& statName,
                    RollupType rollup) const;
   StatInfo* FindStat(const std::string& entityId, const std::string& statName);
   StatId AllocStatId();
   void ReserveIds(size_t count);
   void TakeBackStat(const std::string& entityId, const std::string& statName);
   void LoadIdMapping(const PendingStats& pending);
   bool LoadIdRecord(const IdMapFormat::Record& record, StatId id);
   void DropStatsWithoutRawId();
   bool AddIdMapping(const std::string& entityId, const std::string& statName, StatType type,
                     int scalingFactor, RollupType rollup, StatId id);
   void PersistIdMappingAddition(const std::vector<IdMapFile::Entry>& entries);
   void PersistIdMappingRemoval(const std::vector<StatId>& ids);
   void SyncIdMap();
   /// The first failure of several items of one kind, and how many failed.
   struct Failures {
      uint64_t count = 0;
      std::string first;
      void Add(const Corvax::Exception& e);
   };
   void ForgetStat(const std::string& entityId, const std::string& statName, const StatInfo& info);
   void DeleteStatInt(const std::string& entityId, const std::string& statName);
   void DeleteStats(const std::vector<StatName>& stats);
   void PurgeUnusedStats();
   TimeStamp GetLatestTimeStamp(StatInfo* info) const;
   TimeStamp GetEarliestTimeStamp() const;

   void RecordSample(StatInfo& info, TimeStamp ts, StatVal value, StatVal maxVal);
   void UpdateRollups(TimeStamp ts);
   void PropagateStats(TimeStamp ts);
   void PropagateStats(Interval* coarse, int coarseIndex, TimeStamp ts);
   void PropagateLate(TimeStamp ts);
   Periods FindDuePeriods(const Interval& coarse, const Interval& fine, TimeStamp ts);
   void PropagateStat(StatId id, const Interval& coarse, const Interval& fine,
                      const Periods& periods);
   void AddCoarseSample(StatsStore& store, const Periods& periods, StatId id, TimeStamp end,
                        StatVal value);

   const std::string _depotDir;
   const std::string _depotName;
   const int _maxStatsPurged;
   const JournalOptions _journalOptions;
   Corvax::Ref<Corvax::XmlConfig> _statsDepotConfig; ///< the description file
   IdMapFile _idMapFile;
   Corvax::Ref<IntervalTable> _intervalTable;
   std::unordered_map<std::string, std::unique_ptr<StatMap>> _entityMap;
   /// By id, null for free ones: ids are dense, so they are their own hashes.
   std::vector<Corvax::Ref<StatInfo>> _statInfoMap;
   Corvax::Ref<SlotUsageMap> _slotUsageMap;
   /// When the next propagation is due; unset until the first sample after Create or Load.
   TimeStamp _nextUpdateTime = kUnset;
   const Corvax::Ref<Corvax::Logger> _logger;
   int _lockDepth = 0;
   std::vector<StatVal> _samples; ///< PropagateStat's buffer, reused to save allocations

   StatInfo* _lastRecorded = nullptr; ///< while _recordedDeletions is _deletions
   uint64_t _recordedDeletions = 0;
   uint64_t _deletions = 0; ///< grows when stats are deleted

   /// A stat that could not be rolled up, and is tried again.
   struct LateRollup {
      int coarse; ///< index of the interval
      StatId id;
      Periods periods;
   };
   std::vector<LateRollup> _lateRollups;
   TimeStamp _lateRollupsTs = 0; ///< when they were tried last

   std::unique_ptr<Corvax::FileLock> _writerLock;
   bool _readOnly = false;
   bool _isReady = false;           ///< for changes
   std::exception_ptr _whyNoRoom;   ///< for more stats, while the depot stays locked
   std::exception_ptr _whyNotReady; ///< while the depot stays locked
   bool _mustReopen = false;        ///< the files are not those that were opened
   bool _mustMendDescription = false;
   std::vector<StatId> _droppedIds; ///< of stats that were damaged; cleared with the first change
   std::unique_ptr<JournalReader> _found; ///< until the first change
   bool _refusesFound = false;            ///< it does not fit to the stores

   std::shared_ptr<Journal> _journal; ///< null without one, and before the first change
   /// Until it has started: another attempt must know which of its files failed to sync, because
   /// what can be read of them need not be on the disk.
   std::shared_ptr<Journal> _openedJournal;
   JournalEntries _entries; ///< not committed yet
   bool _needsGeneration = false;
   bool _hasChanges = false; ///< since the depot was locked
   bool _mustSync = false;   ///< when unlocking, whatever the options say
   int64_t _lastSyncUs = 0;
   std::map<StatId, uint64_t> _pendingIds; ///< that the id map's file has not; with their changes
   uint64_t _idChanges = 0;
   std::vector<Schedule> _schedules; ///< by interval
   TimeStamp _lastStepStamp = kUnset;
   bool _isMaintaining = false;
   uint64_t _lostSamples = 0; ///< that were logged
   std::string _trouble;
   std::set<std::string> _loggedTroubles;
   /// Grows when everything is laid down, or columns are given up: a step under way must end then.
   uint64_t _epoch = 0;
};

} // namespace Metrix
