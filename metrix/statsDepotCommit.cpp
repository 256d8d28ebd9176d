#include "metrix/statsDepotImpl.h"

#include "corvax/exception.h"
#include "corvax/system.h"

namespace Metrix {

namespace {

using Corvax::kLogError;
using Corvax::kMicrosecondsPerSecond;

/// Texts that differ in an offset only must not fill the log.
constexpr size_t kMaxTroublesLogged = 20;

} // namespace

/// Appends what has changed to the journal. If that fails, a snapshot in the other file, which was
/// allocated ahead, may still have it.
void StatsDepotImpl::Commit()
{
   if (!IsJournaled() || _entries.IsEmpty()) {
      return;
   }
   if (!_journal->IsOpen()) {
      _needsGeneration = true;
   }
   if (_needsGeneration) {
      _entries.Clear(); // they come with the snapshot
      return;
   }
   try {
      _journal->Append(_entries);
      _entries.Clear();
   } catch (const Corvax::PlatformException&) {
      BeginGeneration();
   }
}

/// Commits the changes of this lock. Whether there were any, so that Maintain has to follow.
bool StatsDepotImpl::CommitOrLog()
{
   if (!_hasChanges) {
      return false;
   }
   _hasChanges = false;
   try {
      Commit();
   } catch (const Corvax::Exception& e) {
      ReportTrouble(e.GetMessage());
   }
   LogLostSamples();
   return IsJournaled();
}

void StatsDepotImpl::LogLostSamples()
{
   uint64_t lost = 0;
   for (const auto& interval : *_intervalTable) {
      lost += interval->GetStore().GetLostSamples();
   }
   if (lost > _lostSamples) {
      _logger->Log(kLogError, "%1 samples are given up: they could not be written in time",
                   lost - _lostSamples);
   }
   _lostSamples = lost;
}

/// Logs each trouble once, until there is none.
void StatsDepotImpl::ReportTrouble(const std::string& trouble)
{
   if (trouble.empty()) {
      _loggedTroubles.clear();
   } else if (_loggedTroubles.size() < kMaxTroublesLogged &&
              _loggedTroubles.insert(trouble).second) {
      _logger->Log(kLogError, "Samples of depot %1 are not safe: %2", GetPrefix(), trouble);
   }
   _trouble = trouble;
}

std::string StatsDepotImpl::GetTrouble()
{
   return _trouble;
}

bool StatsDepotImpl::IsSyncDue()
{
   const int64_t now = Corvax::System::GetMonotonicTime();
   const int64_t afterUs = _journalOptions.syncSec * kMicrosecondsPerSecond;
   const bool isDue = _mustSync || _journalOptions.syncSec == 1 ||
                      (_journalOptions.syncSec > 0 && now - _lastSyncUs >= afterUs);
   if (isDue) {
      _lastSyncUs = now;
      _mustSync = false;
   }
   return isDue;
}

/// Syncs the journal, in a new generation if the last one failed.
void StatsDepotImpl::SyncJournal()
{
   if (_needsGeneration || !_journal->IsOpen()) {
      BeginGeneration();
   }
   _journal->Sync();
}

/// Begins a journal file with all that is pending.
void StatsDepotImpl::BeginGeneration()
{
   std::vector<JournalFormat::StoreShape> shapes;
   JournalEntries snapshot;
   for (int i = 0; i < _intervalTable->GetNumIntervals(); ++i) {
      StatsStore& store = _intervalTable->GetIntervalAt(i)->GetStore();
      shapes.push_back(store.GetShape());
      store.GetHead()->AddTo(snapshot, static_cast<uint32_t>(i));
   }
   AddSnapshotOfIds(snapshot);
   _needsGeneration = true;
   _journal->BeginGeneration(shapes, snapshot);
   _entries.Clear();
   _needsGeneration = false;
}

void StatsDepotImpl::AddSnapshotOfIds(JournalEntries& snapshot) const
{
   std::vector<StatId> freed;
   for (const auto& [id, change] : _pendingIds) {
      Corvax::Ref<StatInfo> info;
      if (!GetStatInfo(id, info)) {
         freed.push_back(id);
         continue;
      }
      snapshot.AddStat({*info->_entityId,
                        *info->_statName,
                        info->_type,
                        info->_scalingFactor,
                        {{id, info->GetRollupType(id)}}});
   }
   if (!freed.empty()) {
      snapshot.AddIdsFreed(freed);
   }
}

} // namespace Metrix
