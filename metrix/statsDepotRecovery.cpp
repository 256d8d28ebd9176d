#include "metrix/statsDepotImpl.h"

#include "corvax/exception.h"
#include "corvax/system.h"

#include <algorithm>

namespace Metrix {

namespace {

using Corvax::kLogError;
using Corvax::kLogNotice;
using Corvax::kLogWarning;

/// Columns that a head has beyond those of a cycle: the one that is being filled, the one whose
/// stamp the header gets next, and one in reserve.
constexpr uint64_t kSpareColumns = 3;

/// Rows of the coarser intervals wait so many times longer: they get fewer samples.
constexpr uint64_t kCoarseFactor = 12;

} // namespace

/// Applies a journal's entries to the stores' heads, and gathers those on ids.
class StatsDepotImpl::Recovery : public JournalSink {
public:
   explicit Recovery(const IntervalTable& intervals) : _intervals(intervals) {}

   void OnColumn(uint32_t store, TimeStamp ts) override { GetStore(store).ReplayColumn(ts); }
   void OnCell(uint32_t store, uint32_t column, StatId id, StatVal value) override
   {
      GetStore(store).ReplayCell(column, id, value);
   }
   void OnRow(uint32_t store, StatId id, RowChange change) override
   {
      CheckId(id);
      GetStore(store).GetHead()->SetRow(id, change);
   }
   void OnRowBase(uint32_t store, StatId id, TimeStamp ts) override
   {
      CheckId(id);
      GetStore(store).GetHead()->SetBaseStamp(id, ts);
   }
   void OnRowImage(uint32_t store, StatId id, std::span<const std::byte> bytes) override
   {
      GetStore(store).ReplayImage(id, bytes);
   }
   void OnRowsDurable(uint32_t store, StatId first, uint64_t count, TimeStamp ts) override
   {
      StoreHead& head = *GetStore(store).GetHead();
      const StatId end = std::min(first + count, head.GetRowsEnd());
      for (StatId id = first; id < end; ++id) {
         head.MarkDurable(id, ts);
      }
   }
   void OnStat(const StatEntry& stat) override
   {
      for (const StatEntry::Series& series : stat.series) {
         CheckId(series.id);
         _stats[series.id] = PendingStat{std::string(stat.entityId), std::string(stat.statName),
                                         series.rollup, stat.statType, stat.scalingFactor};
      }
   }
   void OnIdsFreed(const std::vector<StatId>& ids) override
   {
      for (const StatId id : ids) {
         CheckId(id);
         _stats[id] = std::nullopt;
      }
   }
   void OnIdsDurable(const std::vector<StatId>& ids) override
   {
      for (const StatId id : ids) {
         _stats.erase(id);
      }
   }

   const PendingStats& GetStats() const { return _stats; }
   void Clear() { _stats.clear(); }

private:
   StatsStore& GetStore(uint32_t store) const
   {
      if (store >= static_cast<uint32_t>(_intervals.GetNumIntervals())) {
         throw Corvax::FileFormatException("the journal has a store too many");
      }
      return _intervals.GetIntervalAt(static_cast<int>(store))->GetStore();
   }
   static void CheckId(StatId id)
   {
      if (id >= INT32_MAX) {
         throw Corvax::FileFormatException("the journal has the impossible id " +
                                           std::to_string(id));
      }
   }

   const IntervalTable& _intervals;
   PendingStats _stats;
};

/// Reads the journal into memory. One that cannot be used is left alone, with an error; the first
/// change sets it aside.
void StatsDepotImpl::Recover()
{
   _found = std::make_unique<JournalReader>();
   _found->Read(GetPrefix());
   const bool hasJournal = _found->HasRecords();
   if (hasJournal || _journalOptions.checkpointSec > 0) {
      AttachHeads(_journalOptions.checkpointSec <= 0);
   }
   HideImpossibleColumns();
   Recovery recovery(*_intervalTable);
   using State = JournalReader::State;
   if (_found->GetState() == State::DAMAGED || _found->GetState() == State::UNREADABLE) {
      _logger->Log(kLogError, "The journal of depot %1 has lost samples: %2", GetPrefix(),
                   _found->GetDetail());
   } else if (_found->GetState() == State::TORN) {
      _logger->Log(kLogNotice,
                   "The journal of depot %1 ends with an unfinished write, as after "
                   "a crash: %2",
                   GetPrefix(), _found->GetDetail());
   }
   if (hasJournal) {
      try {
         CheckJournalFits(*_found);
         ApplyJournal(*_found, recovery);
      } catch (const Corvax::FileFormatException& e) {
         _logger->Log(kLogError, "The journal of depot %1 is not used: %2", GetPrefix(),
                      e.GetMessage());
         _refusesFound = true;
         recovery.Clear();
         for (const auto& interval : *_intervalTable) {
            interval->GetStore().SetColumns(interval->GetStore().GetFileColumns());
         }
         HideImpossibleColumns();
      }
   }
   _entries.Clear();
   for (const auto& interval : *_intervalTable) {
      if (StoreHead* const head = interval->GetStore().GetHead()) {
         head->EndReplay();
      }
   }
   LoadIdMapping(recovery.GetStats());
   for (const auto& [id, stat] : recovery.GetStats()) {
      _pendingIds[id] = ++_idChanges;
   }
}

/// Columns whose stamps are damaged would stop rolling up, or show samples at wrong times.
void StatsDepotImpl::HideImpossibleColumns()
{
   // The finest interval's may be ahead of the clock; a coarse one is rolled up from older samples.
   auto newest = static_cast<TimeStamp>(Corvax::System::GetTime() / Corvax::kMicrosecondsPerSecond);
   bool isFinest = true;
   for (const auto& interval : *_intervalTable) {
      StatsStore& store = interval->GetStore();
      const TimeStamp limit = isFinest ? kUnset : newest + interval->GetPeriod();
      for (const TimeStamp ts : store.HideImpossibleColumns(limit)) {
         _logger->Log(kLogError,
                      "Interval %1 has a column with the impossible stamp %2, which is given up",
                      interval->_intervalName, ts);
      }
      const TimeStamp latest = store.GetLatestTimeStamp();
      newest = latest == kUnset ? newest : std::max(newest, latest);
      isFinest = false;
   }
}

/// A journal belongs to stores of the same shape that are neither newer than it nor older than it
/// has seen them.
void StatsDepotImpl::CheckJournalFits(const JournalReader& reader) const
{
   const std::vector<JournalFormat::StoreShape>& shapes = reader.GetStores();
   bool fits = shapes.size() == static_cast<size_t>(_intervalTable->GetNumIntervals());
   for (size_t i = 0; fits && i < shapes.size(); ++i) {
      StatsStore& store = _intervalTable->GetIntervalAt(static_cast<int>(i))->GetStore();
      fits = shapes[i].samplingPeriod == store.GetSamplingPeriod() &&
             shapes[i].columns.size() == store.GetNumSamples();
      const TimeStamp inFile = store.GetHeaderStamp();
      if (fits && shapes[i].headerStamp != kUnset &&
          (inFile == kUnset || inFile < shapes[i].headerStamp)) {
         throw Corvax::FileFormatException(store.GetFileName() +
                                           " is older than the journal has seen it");
      }
   }
   if (!fits) {
      throw Corvax::FileFormatException("its stores have other intervals");
   }
}

void StatsDepotImpl::ApplyJournal(const JournalReader& reader, Recovery& recovery)
{
   for (int i = 0; i < _intervalTable->GetNumIntervals(); ++i) {
      const auto& shape = reader.GetStores()[static_cast<size_t>(i)];
      _intervalTable->GetIntervalAt(i)->GetStore().SetColumns(shape.columns);
   }
   for (const auto payload : reader.GetPayloads()) {
      DecodeEntries(payload, recovery);
   }
   for (const auto& interval : *_intervalTable) {
      StatsStore& store = interval->GetStore();
      if (reader.GetState() == JournalReader::State::DAMAGED) {
         store.HideNewerColumns(); // the store may be newer, as far as records are missing
         continue;
      }
      const TimeStamp latest = store.GetLatestTimeStamp();
      const TimeStamp inFile = store.GetHeaderStamp();
      if (inFile != kUnset && (latest == kUnset || inFile > latest)) {
         throw Corvax::FileFormatException(store.GetFileName() +
                                           " is newer: another program has written it since");
      }
   }
}

void StatsDepotImpl::AttachHeads(bool asLargeAsPossible)
{
   _schedules.clear();
   const Interval& finest = *_intervalTable->GetIntervalAt(0);
   const uint64_t finestSpanSec = finest.GetPeriod() * finest._numSamples;
   for (int i = 0; i < _intervalTable->GetNumIntervals(); ++i) {
      const Interval& interval = *_intervalTable->GetIntervalAt(i);
      const uint64_t period = interval.GetPeriod();
      const auto wantedSec = static_cast<uint64_t>(std::max(_journalOptions.checkpointSec, 1)) *
                             (i == 0 ? 1 : kCoarseFactor);
      uint64_t columns = (wantedSec + period - 1) / period + kSpareColumns;
      if (i > 0) {
         // What is rolled up after a pause are the finest interval's samples, at most.
         columns = std::max(columns, finestSpanSec / period + kSpareColumns);
      }
      if (i + 1 < _intervalTable->GetNumIntervals()) {
         // Rolling up takes a period that ended up to a period ago, from memory.
         const uint64_t coarse = _intervalTable->GetIntervalAt(i + 1)->GetPeriod();
         columns = std::max(columns, 2 * coarse / period + 1);
      }
      const uint64_t inRing = interval._numSamples > 2 ? interval._numSamples - 2 : 1;
      const uint64_t limit = std::min<uint64_t>(StoreHead::kMaxColumns, inRing);
      columns = asLargeAsPossible ? limit : std::min(columns, limit);
      const uint64_t cycle = columns > kSpareColumns ? columns - kSpareColumns : 1;
      interval.GetStore().AttachHead(static_cast<uint32_t>(columns), static_cast<uint32_t>(i),
                                     &_entries);
      _schedules.push_back({std::min(cycle * period, std::max(wantedSec, period)), 0, {}});
   }
}

// The first change.

/// Once a lock: every record of a run would try it again.
void StatsDepotImpl::TryMakeReady()
{
   if (_whyNotReady) {
      std::rethrow_exception(_whyNotReady);
   }
   try {
      MakeReady();
   } catch (const Corvax::Exception& e) {
      ReportTrouble(e.GetMessage());
      _whyNotReady = IsLocked() ? std::current_exception() : nullptr;
      throw;
   }
}

void StatsDepotImpl::MakeReady()
{
   Corvax::Assert(!_readOnly, "the depot was opened for writing");
   if (_mustReopen) {
      Corvax::Assert(!_isMaintaining, "no checkpoint is under way");
      _mustReopen = false;
      try {
         Reopen();
      } catch (...) {
         _mustReopen = true;
         throw;
      }
   }
   CreatePlannedStores();
   MendDescription();
   if (_journalOptions.checkpointSec > 0) {
      StartJournal();
   } else if (_found && _found->HasRecords() && !_refusesFound) {
      RetireJournal();
   }
   for (const auto& interval : *_intervalTable) {
      if (interval->GetStore().HasHiddenColumns()) {
         const TimeStamp latest = interval->GetStore().GetLatestTimeStamp();
         interval->GetStore().GiveUpColumnsAfter(latest == kUnset ? 0 : latest);
      }
   }
   _found = nullptr;
   _openedJournal = nullptr;
   _isReady = true;
   if (!_droppedIds.empty()) {
      std::ranges::sort(_droppedIds);
      PersistIdMappingRemoval(_droppedIds);
      _droppedIds.clear();
   }
}

void StatsDepotImpl::CreatePlannedStores()
{
   for (const auto& interval : *_intervalTable) {
      StatsStore& store = interval->GetStore();
      if (!store.IsPlanned()) {
         continue;
      }
      Corvax::SystemFactory& factory = Corvax::System::GetFactory();
      if (factory.Exists(store.GetFileName())) {
         const std::string aside = store.GetFileName() + ".aside";
         factory.Rename(store.GetFileName(), aside);
         _logger->Log(kLogWarning, "The damaged store %1 is kept as %2", store.GetFileName(),
                      aside);
      }
      store.Create(interval->_samplingPeriod, static_cast<int>(interval->_numSamples));
      factory.SyncDirectory(_depotDir);
   }
}

void StatsDepotImpl::MendDescription()
{
   if (!_mustMendDescription) {
      return;
   }
   std::vector<std::string> elements;
   _statsDepotConfig->GetChildren("intervals", "interval", elements);
   for (size_t i = 0; i < elements.size(); ++i) {
      const Interval& interval = *_intervalTable->GetIntervalAt(static_cast<int>(i));
      _statsDepotConfig->Set("intervals/" + elements[i] + "/storeName", interval._storeName);
   }
   _statsDepotConfig->Save();
   _mustMendDescription = false;
}

void StatsDepotImpl::StartJournal()
{
   if (_intervalTable->GetNumIntervals() == 0) {
      return; // comes with the first interval
   }
   if (_found && !_openedJournal &&
       (_refusesFound || _found->GetState() == JournalReader::State::DAMAGED ||
        _found->GetState() == JournalReader::State::UNREADABLE)) {
      SetJournalAside();
   }
   if (!_found || static_cast<int>(_schedules.size()) != _intervalTable->GetNumIntervals()) {
      AttachHeads(false); // of a depot that was just created
   }
   OpenJournal();
   try {
      BeginGeneration();
      SyncJournal();
      AllocateOtherFile();
      // A checkpoint of what replaying found would only cost time: rows have their turns.
      const bool givesUp = std::ranges::any_of(*_intervalTable, [](const auto& interval) {
         return interval->GetStore().HasHiddenColumns();
      });
      if (givesUp) {
         LayEverythingDown();
      }
   } catch (...) {
      _journal = nullptr;
      throw;
   }
}

/// So that a disk that fills up later stops no run. A disk that is full already is no reason not to
/// start.
void StatsDepotImpl::AllocateOtherFile()
{
   try {
      BeginGeneration();
      SyncJournal();
   } catch (const Corvax::PlatformException& e) {
      _logger->Log(kLogWarning, "The journal of depot %1 has one file only: %2", GetPrefix(),
                   e.GetMessage());
   }
}

/// A journal that continues the generations of the files that are there. Without knowing them it
/// could begin one over the newest, or one that the files' next reader takes for older.
void StatsDepotImpl::OpenJournal()
{
   if (!_openedJournal) {
      JournalReader reader;
      reader.Read(GetPrefix());
      if (reader.GetState() == JournalReader::State::UNREADABLE) {
         throw Corvax::Exception("The journal cannot be continued: " + reader.GetDetail());
      }
      auto journal = std::make_shared<Journal>(_depotDir, _depotName);
      journal->Continue(reader);
      _openedJournal = std::move(journal);
   }
   _journal = _openedJournal;
}

/// Lays down what a journal has that is not used any more, and deletes it.
void StatsDepotImpl::RetireJournal()
{
   OpenJournal();
   BeginGeneration();
   _journal->Sync();
   LayEverythingDown();
   _journal->Remove();
   _journal = nullptr;
   for (const auto& interval : *_intervalTable) {
      interval->GetStore().DetachHead();
   }
   _schedules.clear();
   _entries.Clear();
   Corvax::System::GetFactory().SyncDirectory(_depotDir);
   _logger->Log(kLogNotice, "The journal of depot %1 is laid down and deleted", GetPrefix());
}

/// Keeps the journal files under another name, the newest ones only.
void StatsDepotImpl::SetJournalAside()
{
   Corvax::SystemFactory& factory = Corvax::System::GetFactory();
   for (size_t i = 0; i < kJournalFiles; ++i) {
      const std::string fileName = GetJournalFileName(GetPrefix(), i);
      if (factory.Exists(fileName)) {
         factory.Rename(fileName, fileName + ".aside");
         _logger->Log(kLogWarning, "The journal file %1 is kept as %1.aside", fileName);
      }
   }
   factory.SyncDirectory(_depotDir);
}

/// The files were replaced or deleted while the depot was open: keeps what was pending for the old
/// ones aside, and opens what is there now.
void StatsDepotImpl::Reopen()
{
   Corvax::SystemFactory& factory = Corvax::System::GetFactory();
   // The lock's file may be a new one, too: of another process, whose depot this is now.
   _writerLock = nullptr;
   if (factory.Exists(_depotDir)) {
      _writerLock = factory.Lock(GetPrefix() + ".lock");
   }
   if (_journal && _journal->IsInPlace()) {
      SetJournalAside(); // otherwise it belongs to what is there now
   }
   const Corvax::Ref<IntervalTable> before = _intervalTable;
   _journal = nullptr;
   _openedJournal = nullptr;
   _found = nullptr;
   _refusesFound = false;
   _entries.Clear();
   _pendingIds.clear();
   _droppedIds.clear();
   _lateRollups.clear();
   _schedules.clear();
   ++_deletions;
   _entityMap.clear();
   _statInfoMap.clear();
   _intervalTable = Corvax::MakeRef<IntervalTable>(_logger.Get());
   _lastStepStamp = kUnset;
   _needsGeneration = false;
   if (factory.Exists(GetDepotFileName()) || factory.Exists(GetIdMapFileName())) {
      Open(false);
   } else {
      Create();
      for (const auto& interval : *before) {
         AddInterval(interval->_intervalName, interval->_samplingPeriod, interval->_numSamples);
      }
   }
   _trouble.clear();
   _logger->Log(kLogNotice, "Depot %1 is opened anew", GetPrefix());
}

} // namespace Metrix
