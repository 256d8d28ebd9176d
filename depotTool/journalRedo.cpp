#include "depotTool/journalRedo.h"

#include "corvax/exception.h"
#include "corvax/format.h"
#include "corvax/system.h"
#include "depotTool/depotCopy.h"
#include "depotTool/storeImage.h"
#include "metrix/columnRing.h"
#include "metrix/idMapFile.h"
#include "metrix/journalEntries.h"
#include "metrix/journalReader.h"
#include "metrix/statsStore.h"
#include "metrix/storeHead.h"

#include <algorithm>
#include <map>
#include <optional>
#include <set>

namespace DepotTool {

namespace {

using Corvax::FileFormatException;
using Corvax::Format;
using Metrix::JournalReader;
using Metrix::kUnset;
using Metrix::StoreHead;
using State = JournalReader::State;

class NoLogger : public Corvax::Logger, public Corvax::ObjectImpl {
public:
   bool IsEnabled(int /*level*/) const override { return false; }
   void SetLevel(const std::string& /*levelName*/) override {}
   void Write(int /*level*/, const std::string& /*text*/) override {}
};

Corvax::Ref<Metrix::StatsStore> LoadStore(const std::string& path)
{
   Corvax::Ref<Metrix::StatsStore> store;
   Metrix::GetStatsStore(path, Corvax::MakeRef<NoLogger>().Get(), store);
   store->Load();
   return store;
}

/// A record of the id map that the journal has; free if there is none.
struct PendingRecord {
   std::string entityId;
   std::string statName;
   int32_t rollup;
   int32_t statType;
   int32_t scalingFactor;
};

/// A store with the journal's changes in its head.
class JournaledStore {
public:
   JournaledStore(const std::string& path, const IntervalEntry& interval,
                  const Metrix::JournalFormat::StoreShape& shape, Metrix::JournalEntries& entries)
      : _interval(interval), _shape(shape), _store(LoadStore(path)), _ring(shape.columns),
        _oldest(_ring.GetEarliest() < 0 ? 0 : _ring.GetEarliestTimeStamp())
   {
      if (shape.samplingPeriod != _store->GetSamplingPeriod() ||
          shape.columns.size() != _store->GetNumSamples()) {
         throw FileFormatException("its stores have other intervals");
      }
      const uint32_t inRing = _store->GetNumSamples() > 2 ? _store->GetNumSamples() - 2 : 1;
      _store->AttachHead(std::min(StoreHead::kMaxColumns, inRing), 0, &entries);
      _store->SetColumns(shape.columns);
      for (uint32_t column = 0; column < shape.columns.size(); ++column) {
         _stamps.emplace(column, shape.columns[column]);
      }
   }

   Metrix::StatsStore& Get() const { return *_store; }
   StoreHead& GetHead() const { return *_store->GetHead(); }

   void AddColumn(TimeStamp ts)
   {
      _store->ReplayColumn(ts);
      _stamps.emplace(_ring.GetColumnToAdd(), ts);
      _ring.AddColumn(ts);
   }

   /// Call it after the last entry. FileFormatException if the file is of another time than the
   /// journal. `isWhole`: the journal has all that the file may have.
   void EndReplay(TimeStamp newestAllowed, bool isWhole)
   {
      const std::vector<Column> inFile =
         FindRing(_store->GetFileColumns(), _interval.periodSec, newestAllowed);
      const TimeStamp newest = inFile.empty() ? kUnset : inFile.back().stamp;
      if (_shape.headerStamp != kUnset && (newest == kUnset || newest < _shape.headerStamp)) {
         throw FileFormatException(_store->GetFileName() +
                                   " is older than the journal has seen it");
      }
      if (isWhole && IsNewer(newest)) {
         throw FileFormatException(_store->GetFileName() + " is newer than the journal");
      }
      _isWhole = isWhole;
      if (!isWhole) {
         _store->HideNewerColumns();
      }
   }

   /// Whether the file can have this stamp there: an earlier one of the column, unless the journal
   /// is sure that the file has a later one.
   bool IsPossible(uint32_t column, TimeStamp inFile) const
   {
      const TimeStamp stamp = _shape.columns[column];
      const bool isSure =
         stamp != kUnset && _shape.headerStamp != kUnset && stamp <= _shape.headerStamp;
      return _stamps.contains({column, inFile}) || (!_isWhole && IsNewer(inFile)) ||
             (!isSure && (inFile == kUnset || inFile < _oldest));
   }
   TimeStamp GetStamp(uint32_t column) const
   {
      return _ring.GetTimeStamp(static_cast<int32_t>(column));
   }

   uint64_t CountPendingRows() const
   {
      uint64_t count = 0;
      for (StatId id = 0; id < GetHead().GetRowsEnd(); ++id) {
         count += GetHead().IsPending(id) ? 1 : 0;
      }
      return count;
   }

   void LayDown()
   {
      _store->WriteHeader();
      const auto layDown = [this](StatId first, StatId end) {
         const auto result = _store->LayDown(first, end, kUnset);
         if (result.failed > 0) {
            throw Corvax::Exception(result.error);
         }
         return result.postponed;
      };
      for (const StatId id : layDown(0, GetHead().GetRowsEnd())) {
         layDown(id, id + 1);
      }
      if (!_isWhole) {
         // In columns that the journal has lost, not all rows have their samples.
         const TimeStamp latest = _store->GetLatestTimeStamp();
         _store->SetRowsDurable(0, GetHead().GetRowsEnd(), kUnset);
         _store->GiveUpColumnsAfter(latest == kUnset ? 0 : latest);
      }
   }

private:
   /// Than the journal's newest column.
   bool IsNewer(TimeStamp stamp) const
   {
      return stamp != kUnset && (_ring.GetLatest() < 0 || stamp > _ring.GetLatestTimeStamp());
   }

   const IntervalEntry& _interval;
   const Metrix::JournalFormat::StoreShape& _shape;
   Corvax::Ref<Metrix::StatsStore> _store;
   Metrix::ColumnRing _ring; ///< with the columns added since
   TimeStamp _oldest;        ///< when the journal began
   bool _isWhole = true;
   std::set<std::pair<uint32_t, TimeStamp>> _stamps; ///< that the journal has given the columns
};

/// Gathers what the journal says, in memory.
class Redo : public Metrix::JournalSink {
public:
   Redo(const Mending& mending, const std::vector<IntervalEntry>& intervals,
        const JournalReader& reader)
   {
      const auto& shapes = reader.GetStores();
      if (shapes.size() != intervals.size()) {
         throw FileFormatException("its stores have other intervals");
      }
      for (size_t i = 0; i < shapes.size(); ++i) {
         stores.emplace_back(mending.files.GetStore(intervals[i].periodSec), intervals[i],
                             shapes[i], _entries);
      }
      for (const auto payload : reader.GetPayloads()) {
         Metrix::DecodeEntries(payload, *this);
      }
      for (JournaledStore& store : stores) {
         store.EndReplay(mending.newestAllowed, reader.GetState() != State::DAMAGED);
      }
   }

   void OnColumn(uint32_t store, TimeStamp ts) override { GetStore(store).AddColumn(ts); }
   void OnCell(uint32_t store, uint32_t column, StatId id, StatVal value) override
   {
      GetStore(store).Get().ReplayCell(column, id, value);
   }
   void OnRow(uint32_t store, StatId id, Metrix::RowChange change) override
   {
      GetStore(store).GetHead().SetRow(CheckId(id), change);
   }
   void OnRowBase(uint32_t store, StatId id, TimeStamp ts) override
   {
      GetStore(store).GetHead().SetBaseStamp(CheckId(id), ts);
   }
   void OnRowImage(uint32_t store, StatId id, std::span<const std::byte> bytes) override
   {
      GetStore(store).Get().ReplayImage(id, bytes);
   }
   void OnRowsDurable(uint32_t store, StatId first, uint64_t count, TimeStamp ts) override
   {
      StoreHead& head = GetStore(store).GetHead();
      const StatId end = first + std::min(count, head.GetRowsEnd());
      for (StatId id = first; id < std::min(end, head.GetRowsEnd()); ++id) {
         head.MarkDurable(id, ts);
      }
   }
   void OnStat(const Metrix::StatEntry& stat) override
   {
      for (const auto& [id, rollup] : stat.series) {
         records[CheckId(id)] =
            PendingRecord{std::string(stat.entityId), std::string(stat.statName), rollup,
                          stat.statType, stat.scalingFactor};
      }
   }
   void OnIdsFreed(const std::vector<StatId>& ids) override
   {
      for (const StatId id : ids) {
         records[CheckId(id)] = std::nullopt;
      }
   }
   void OnIdsDurable(const std::vector<StatId>& ids) override
   {
      for (const StatId id : ids) {
         records.erase(id);
      }
   }

   std::vector<JournaledStore> stores;
   std::map<StatId, std::optional<PendingRecord>> records;

private:
   JournaledStore& GetStore(uint32_t store)
   {
      if (store >= stores.size()) {
         throw FileFormatException("it has a store too many");
      }
      return stores[store];
   }
   static StatId CheckId(StatId id)
   {
      if (id >= INT32_MAX) {
         throw FileFormatException(Format("it has the impossible id %1", id));
      }
      return id;
   }

   Metrix::JournalEntries _entries; ///< that a running depot would add to its journal
};

std::vector<std::string> ListJournal(const DepotPaths& files)
{
   std::vector<std::string> paths;
   for (size_t i = 0; i < Metrix::kJournalFiles; ++i) {
      const std::string path = files.GetJournal(i);
      if (Corvax::System::GetFactory().Exists(path)) {
         paths.push_back(path);
      }
   }
   return paths;
}

void SetJournalAside(const DepotPaths& files)
{
   for (const std::string& path : ListJournal(files)) {
      Corvax::System::GetFactory().Rename(path, path + ".aside");
   }
}

void WriteRecords(const DepotPaths& files, const Redo& redo)
{
   std::vector<Metrix::IdMapFile::Entry> used;
   std::vector<StatId> freed;
   for (const auto& [id, record] : redo.records) {
      if (record) {
         used.push_back({id,
                         {record->entityId, record->statName, record->rollup, record->statType,
                          record->scalingFactor}});
      } else {
         freed.push_back(id);
      }
   }
   Metrix::IdMapFile file;
   file.Open(files.GetIdMap(), false);
   file.WriteRecords(used);
   file.ClearRecords(freed);
}

void ReportStamps(const Mending& mending, const JournaledStore& store)
{
   const std::vector<TimeStamp>& inFile = store.Get().GetFileColumns();
   for (uint32_t column = 0; column < inFile.size(); ++column) {
      if (!store.IsPossible(column, inFile[column])) {
         mending.AddFault(
            "column.stamp", store.Get().GetFileName(),
            Format("column %1, offset %2", column, Metrix::StoreFormat::TimeStampPos(column)),
            Format("its stamp %1 is none that the journal has given it", inFile[column]),
            Format("it becomes %1", store.GetStamp(column)));
      }
   }
}

void LayDown(const Mending& mending, Redo& redo)
{
   for (JournaledStore& store : redo.stores) {
      ReportStamps(mending, store);
      store.LayDown();
   }
   WriteRecords(mending.files, redo);
   if (mending.isKept) {
      SyncDepot(mending.files); // before the journal is removed
   }
}

void NotePending(const Mending& mending, const std::string& path, const JournalReader& reader,
                 const Redo& redo)
{
   uint64_t rows = 0;
   for (const JournaledStore& store : redo.stores) {
      rows += store.CountPendingRows();
   }
   mending.AddNote(
      "journal.pending", path,
      Format("journal of generation %1.%2, %3 records; not in the other files: samples "
             "of %4 rows, %5 records of the id map",
             reader.GetGeneration() >> 32, reader.GetGeneration() & UINT32_MAX,
             reader.GetLastSequence() + 1, rows, redo.records.size()),
      "");
}

} // namespace

bool RedoJournal(const Mending& mending, const std::vector<IntervalEntry>& intervals)
{
   JournalReader reader;
   reader.Read(mending.files.dir + mending.files.name);
   const std::string path = mending.files.GetJournal(reader.GetFileIndex());
   const std::string detail = mending.ToOrigin(reader.GetDetail());
   const bool isDamaged = reader.GetState() == State::DAMAGED;
   if (reader.GetState() == State::UNREADABLE) {
      mending.AddFault("journal.unreadable", path, "", detail, "use a program that knows it",
                       false);
      return false;
   }
   if (isDamaged) {
      mending.AddFault("journal.damaged", path, "", detail,
                       "what it has before is laid down, newer columns are given up, and its files "
                       "are renamed to *.aside");
   } else if (reader.GetState() == State::TORN) {
      mending.AddNote("journal.torn", path, detail,
                      "nothing: a crash or a running agent does that");
   }
   if (reader.HasRecords()) {
      try {
         Redo redo(mending, intervals, reader);
         NotePending(mending, path, reader, redo);
         LayDown(mending, redo);
      } catch (const FileFormatException& e) {
         mending.AddFault("journal.unusable", path, "", mending.ToOrigin(e.GetMessage()),
                          "its files are renamed to *.aside");
         SetJournalAside(mending.files);
      }
   }
   if (isDamaged) {
      SetJournalAside(mending.files);
   }
   for (const std::string& file : ListJournal(mending.files)) {
      Corvax::System::GetFactory().Remove(file);
   }
   return true;
}

} // namespace DepotTool
