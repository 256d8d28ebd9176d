#include "metrix/statsDepotImpl.h"

#include "corvax/exception.h"
#include "corvax/format.h"
#include "corvax/system.h"
#include "metrix/storeFormat.h"

#include <algorithm>
#include <utility>

namespace Metrix {

namespace {

/// Id-map records that are written in one run.
constexpr size_t kIdsInStep = 4096;

/// Rows that are laid down with the lock held once.
constexpr uint64_t kSliceBytes = uint64_t{512} << 10;

/// Rows in the way of a new column that are kept as whole rows in memory, which saves a checkpoint.
constexpr size_t kMaxRowsInTheWay = 16;

} // namespace

// A run's share of the rows.

/// After a commit, without the lock: syncs the journal, and lays a share of the rows down.
void StatsDepotImpl::Maintain()
{
   Step step;
   try {
      if (const std::shared_ptr<Journal> journal = GetJournalToSync()) {
         journal->Sync();
      }
      if (!PrepareStep(step)) {
         return;
      }
      for (Share& share : step.shares) {
         LayDown(share, step.epoch);
      }
      const PlainLock lock(*this);
      LayDownIds(step, kIdsInStep);
   } catch (const std::exception& e) {
      const PlainLock lock(*this);
      ReportTrouble(e.what());
      if (!step.hasBegun) {
         return;
      }
      step.trouble = e.what();
   }
   SyncStep(step);
   const PlainLock lock(*this);
   try {
      FinishStep(step);
   } catch (const std::exception& e) {
      step.trouble = e.what();
   }
   _isMaintaining = false;
   ReportTrouble(step.trouble);
}

/// The journal, if it has to be synced now. One that failed is not: a new generation follows it.
std::shared_ptr<Journal> StatsDepotImpl::GetJournalToSync()
{
   const PlainLock lock(*this);
   const bool isDue = IsSyncDue();
   // Others may have failed to open the depot anew since; then there is none.
   return IsJournaled() && (isDue || IsStepDue()) && _journal->IsOpen() ? _journal : nullptr;
}

bool StatsDepotImpl::IsStepDue() const
{
   return IsJournaled() && !_isMaintaining && !_mustReopen &&
          (_needsGeneration || !_journal->IsOpen() ||
           _intervalTable->GetIntervalAt(0)->GetStore().GetLatestTimeStamp() != _lastStepStamp);
}

/// False if there is nothing to do. Rows are written after the journal is synced, and only with
/// samples of columns that the header has for certain.
bool StatsDepotImpl::PrepareStep(Step& step)
{
   const PlainLock lock(*this);
   if (!IsStepDue()) {
      return false;
   }
   if (!AreFilesInPlace()) {
      _mustReopen = true;
      _isReady = false;
      return false;
   }
   step.hasBegun = true;
   step.epoch = _epoch;
   _isMaintaining = true;
   SyncJournal(); // others may have committed since
   PlanShares(step);
   return true;
}

bool StatsDepotImpl::AreFilesInPlace()
{
   std::string missing = _idMapFile.IsInPlace() ? "" : GetIdMapFileName();
   for (const auto& interval : *_intervalTable) {
      missing = interval->GetStore().IsInPlace() ? missing : interval->_storeName;
   }
   if (!_journal->IsInPlace()) {
      missing = GetPrefix() + ".journal";
   }
   if (!missing.empty()) {
      ReportTrouble(missing + " was replaced, cut off or deleted; nothing is written over it");
   }
   return missing.empty();
}

/// The rows whose turn it is in each store: so many that all have had theirs within a cycle.
void StatsDepotImpl::PlanShares(Step& step)
{
   const Interval& finest = *_intervalTable->GetIntervalAt(0);
   step.stamp = finest.GetStore().GetLatestTimeStamp();
   const bool isFirst = _lastStepStamp == kUnset || step.stamp <= _lastStepStamp;
   const uint64_t elapsed = isFirst ? finest.GetPeriod() : step.stamp - _lastStepStamp;
   for (int i = 0; i < _intervalTable->GetNumIntervals(); ++i) {
      Schedule& schedule = _schedules[static_cast<size_t>(i)];
      Share& share = step.shares.emplace_back();
      share.interval = _intervalTable->GetIntervalAt(i);
      StatsStore& store = share.interval->GetStore();
      store.WriteHeader();
      share.newestStamp = store.GetSettledStamp();
      const StatId rows = store.GetHead()->GetRowsEnd();
      const uint64_t due = rows * std::min(elapsed, schedule.cycleSec);
      const StatId count = (due + schedule.cycleSec - 1) / schedule.cycleSec;
      share.first = schedule.cursor < rows ? schedule.cursor : 0;
      share.end = std::min(share.first + count, rows);
      share.postponedBefore = std::exchange(schedule.postponed, {});
   }
}

/// In slices, so that others wait for the lock a short time only.
void StatsDepotImpl::LayDown(Share& share, uint64_t epoch)
{
   StatsStore& store = share.interval->GetStore();
   const uint64_t rowBytes = StoreFormat::RowSize(store.GetNumSamples());
   const StatId rowsInSlice = std::max<uint64_t>(kSliceBytes / rowBytes, 1);
   const auto layDown = [&](StatId first, StatId end) {
      const PlainLock lock(*this);
      if (_epoch != epoch) {
         return std::vector<StatId>();
      }
      SyncJournal(); // others may have committed since
      StatsStore::LayDownResult result = store.LayDown(first, end, share.newestStamp);
      share.result.error = share.result.failed == 0 ? result.error : share.result.error;
      share.result.failed += result.failed;
      return result.postponed;
   };
   for (StatId first = share.first; first < share.end; first += rowsInSlice) {
      const auto postponed = layDown(first, std::min(first + rowsInSlice, share.end));
      share.result.postponed.insert(share.result.postponed.end(), postponed.begin(),
                                    postponed.end());
   }
   for (const StatId id : share.postponedBefore) {
      layDown(id, id + 1);
   }
}

/// Writes pending records into the id map's file, as they are now.
void StatsDepotImpl::LayDownIds(Step& step, size_t limit)
{
   std::vector<IdMapFile::Entry> used;
   std::vector<StatId> freed;
   decltype(step.ids) ids;
   for (const auto& [id, change] : _pendingIds) {
      if (ids.size() == limit) {
         break;
      }
      Corvax::Ref<StatInfo> info;
      if (GetStatInfo(id, info)) {
         used.push_back({id,
                         {*info->_entityId, *info->_statName, info->GetRollupType(id), info->_type,
                          info->_scalingFactor}});
      } else {
         freed.push_back(id);
      }
      ids[id] = change;
   }
   _idMapFile.WriteRecords(used);
   _idMapFile.ClearRecords(freed);
   step.ids = std::move(ids); // only now: those of a failed write stay pending
}

/// Without the lock: waiting for the disk must not make others wait.
void StatsDepotImpl::SyncStep(Step& step)
{
   for (Share& share : step.shares) {
      try {
         share.interval->GetStore().Flush();
         share.isSynced = true;
      } catch (const Corvax::Exception& e) {
         step.trouble = e.GetMessage();
      }
   }
   try {
      if (!step.ids.empty()) {
         _idMapFile.Sync();
      }
      step.areIdsSynced = true;
   } catch (const Corvax::Exception& e) {
      step.trouble = e.GetMessage();
   }
}

/// What is safe leaves memory, and what is not has its turn again in the next run.
void StatsDepotImpl::FinishStep(Step& step)
{
   if (step.epoch != _epoch) {
      return; // what was laid down is laid down again
   }
   bool isComplete = !step.shares.empty();
   for (size_t i = 0; i < step.shares.size(); ++i) {
      Share& share = step.shares[i];
      Schedule& schedule = _schedules[i];
      schedule.postponed = std::move(share.result.postponed);
      if (!share.isSynced) {
         isComplete = false;
         schedule.postponed.insert(schedule.postponed.end(), share.postponedBefore.begin(),
                                   share.postponedBefore.end());
         continue;
      }
      StatsStore& store = share.interval->GetStore();
      store.SetHeaderDurable();
      store.SetRowsDurable(share.first, share.end, share.newestStamp);
      for (const StatId id : share.postponedBefore) {
         store.SetRowsDurable(id, id + 1, share.newestStamp);
      }
      schedule.cursor = share.end;
      if (share.result.failed > 0) {
         step.trouble =
            Corvax::Format("%1 rows stay in memory: %2", share.result.failed, share.result.error);
      }
   }
   if (step.areIdsSynced) {
      SetIdsDurable(step);
   }
   if (isComplete) {
      _lastStepStamp = step.stamp;
   }
   if (_journal->IsLong()) {
      BeginGeneration(); // synced with the next commit; until then the file before counts
   }
}

void StatsDepotImpl::SetIdsDurable(const Step& step)
{
   std::vector<StatId> durable;
   for (const auto& [id, change] : step.ids) {
      const auto pending = _pendingIds.find(id);
      if (pending != _pendingIds.end() && pending->second == change) {
         _pendingIds.erase(pending);
         durable.push_back(id);
      }
   }
   if (!durable.empty()) {
      _entries.AddIdsDurable(durable);
   }
}

// Everything at once.

/// Lays down everything that is pending, with the lock held.
void StatsDepotImpl::CheckpointNow()
{
   ++_epoch;
   Commit();
   SyncJournal();
   LayEverythingDown();
   if (!_isMaintaining) {
      BeginGeneration();
      _journal->Sync();
   }
}

/// As in the order of writes, or `straight`: without the journal, which fails.
void StatsDepotImpl::LayEverythingDown(bool straight)
{
   for (const auto& interval : *_intervalTable) {
      interval->GetStore().WriteHeader();
      interval->GetStore().Flush();
      interval->GetStore().SetHeaderDurable();
   }
   Failures failures;
   const auto layDown = [&](StatsStore& store, StatId first, StatId end) {
      StatsStore::LayDownResult result = store.LayDown(first, end, kUnset);
      if (result.failed > 0) {
         failures.Add(Corvax::Exception(result.error));
      }
      return std::move(result.postponed);
   };
   std::vector<std::vector<StatId>> postponed;
   for (const auto& interval : *_intervalTable) {
      StatsStore& store = interval->GetStore();
      postponed.push_back(layDown(store, 0, store.GetHead()->GetRowsEnd()));
   }
   if (!straight) {
      Commit(); // the entries of those that were postponed
      SyncJournal();
   }
   for (size_t i = 0; i < postponed.size(); ++i) {
      for (const StatId id : postponed[i]) {
         layDown(_intervalTable->GetIntervalAt(static_cast<int>(i))->GetStore(), id, id + 1);
      }
   }
   Step step;
   LayDownIds(step, SIZE_MAX);
   _idMapFile.Sync();
   SetIdsDurable(step);
   for (const auto& interval : *_intervalTable) {
      StatsStore& store = interval->GetStore();
      store.Flush();
      store.SetRowsDurable(0, store.GetHead()->GetRowsEnd(), kUnset);
   }
   if (failures.count > 0) {
      throw Corvax::Exception("Not all rows can be written: " + failures.first);
   }
}

void StatsDepotImpl::Checkpoint()
{
   AssertOpen();
   const Corvax::Locker lock(this);
   if (IsJournaled()) {
      CheckpointNow();
   } else {
      Flush();
   }
}

/// Before a sample at `ts`: lays everything down if the head has no room for its column.
void StatsDepotImpl::MakeRoomFor(StatsStore& store, TimeStamp ts)
{
   if (store.HasRoom(ts) || store.GetHead()->FindRowsInTheWay().size() <= kMaxRowsInTheWay) {
      return;
   }
   try {
      CheckpointNow();
      return;
   } catch (const Corvax::Exception& e) {
      ReportTrouble(e.GetMessage());
   }
   try {
      // Rows that a crash may tear are better than samples that are given up for certain.
      LayEverythingDown(true);
   } catch (const Corvax::Exception& e) {
      ReportTrouble(e.GetMessage());
   }
}

int StatsDepotImpl::GiveUpColumnsAfter(TimeStamp ts)
{
   AssertOpen();
   PrepareChange();
   const Corvax::Locker lock(this);
   if (IsJournaled()) {
      CheckpointNow();
   } else {
      Flush();
   }
   int count = 0;
   for (const auto& interval : *_intervalTable) {
      count += interval->GetStore().GiveUpColumnsAfter(ts);
   }
   if (IsJournaled()) {
      BeginGeneration();
      _journal->Sync();
   }
   for (const Corvax::Ref<StatInfo>& info : _statInfoMap) {
      if (info && info->_lastTimeStamp != kUnset && info->_lastTimeStamp > ts) {
         info->_lastTimeStamp = info->_lastVal = kUnset;
      }
   }
   _lateRollups.clear();
   _nextUpdateTime = kUnset;
   _lastStepStamp = kUnset;
   return count;
}

} // namespace Metrix
