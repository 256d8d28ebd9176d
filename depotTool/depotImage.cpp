#include "depotTool/depotImage.h"

#include "corvax/exception.h"
#include "corvax/format.h"
#include "corvax/system.h"
#include "depotTool/description.h"
#include "depotTool/journalRedo.h"
#include "depotTool/storeMending.h"

#include <algorithm>
#include <optional>

namespace DepotTool {

namespace {

using Corvax::Format;
using Metrix::kUnset;
using Metrix::StoreFormat::StatVector;

constexpr uint32_t kUsedFlag = 1;

/// What is wrong with a row's stamp, and the stamp that shows the same samples.
struct StampFault {
   std::string what;
   TimeStamp right;
};

std::optional<StampFault> FindStampFault(TimeStamp stamp, const std::vector<Column>& columns)
{
   if (columns.empty()) {
      return stamp == kUnset ? std::nullopt
                             : std::optional<StampFault>({"but the store has no column", kUnset});
   }
   if (stamp == kUnset || stamp > columns.back().stamp) {
      return StampFault{Format("but the newest column is %1", columns.back().stamp),
                        columns.back().stamp};
   }
   const auto next = std::ranges::upper_bound(columns, stamp, {}, &Column::stamp);
   if (next == columns.begin() || (next - 1)->stamp == stamp) {
      return std::nullopt; // older than all columns, or one of them
   }
   return StampFault{"which no column has", (next - 1)->stamp};
}

/// Whether a row without a stamp has samples, which would all be read.
bool HasSamples(const StatVector& row, const std::vector<Column>& columns)
{
   return std::ranges::any_of(
      columns, [&row](const Column& column) { return row.GetSample(column.index) != kUnset; });
}

} // namespace

DepotImage::DepotImage(const Mending& mending)
{
   if (!mending.files.HasDepot()) {
      throw Corvax::NotFoundException(
         Format("there is no depot %1 in %2", mending.origin.name, mending.origin.dir));
   }
   std::vector<IntervalEntry> described = ExamineDescription(mending);
   for (IntervalEntry& entry : described) {
      MendStoreHeader(mending, entry);
   }
   MendIdMapFile(mending);
   _isComplete = RedoJournal(mending, described);
   for (IntervalEntry& entry : described) {
      auto store = OpenStore(mending, entry);
      _intervals.push_back({entry.name, entry.periodSec, std::move(store)});
      entry.storePath = mending.home.GetStore(entry.periodSec);
   }
   std::vector<IntervalEntry> written;
   try {
      written = ReadDescription(mending.files);
   } catch (const Corvax::Exception&) {
      written.clear(); // reported above
   }
   if (written != described) {
      WriteDescription(mending.files, mending.home, described);
   }
   _stats.Load(mending);
   NoteLeftovers(mending);
}

void DepotImage::NoteLeftovers(const Mending& mending) const
{
   for (const int32_t periodSec : mending.files.FindStores()) {
      if (std::ranges::find(_intervals, periodSec, &IntervalImage::periodSec) == _intervals.end()) {
         mending.AddNote("file.unused", mending.files.GetStore(periodSec),
                         "the depot has no such interval", "remove the file if it is not needed");
      }
   }
}

void DepotImage::MendRows(const Mending& mending)
{
   _hasRow.assign(_stats.GetRecordCount(), false);
   for (const IntervalImage& interval : _intervals) {
      MendRowsOf(mending, interval);
   }
   NoteStatsWithoutRows(mending);
   _stats.AddMissingRollups(mending);
}

void DepotImage::MendRowsOf(const Mending& mending, const IntervalImage& interval)
{
   StoreImage& store = *interval.store;
   const auto report = [&](const char* kind, StatId id, std::string what, std::string remedy) {
      mending.AddFault(kind, mending.files.GetStore(interval.periodSec),
                       Format("row %1, offset %2", id, store.GetRowPos(id)), std::move(what),
                       std::move(remedy));
      store.MarkDirty(id);
   };
   for (StatId id = 0; id < store.GetRowCount(); ++id) {
      StatVector row = store.GetRow(id);
      if (!row.IsUsed()) {
         continue;
      }
      const Stat* const stat = _stats.Find(id);
      if (stat == nullptr) {
         row.SetFree();
         report("row.noRecord", id, "it is in use, but the id map has no record of it",
                "the row is freed");
         continue;
      }
      _hasRow[id] = true;
      const uint32_t flag = store.GetFlag(id);
      if (flag != kUsedFlag) {
         store.SetFlag(id, kUsedFlag);
         report("row.flag", id, Format("its flag is %1 instead of 1", flag), "it becomes 1");
      }
      const TimeStamp stamp = row.GetTimeStamp();
      const auto fault = FindStampFault(stamp, store.GetColumns());
      if (fault && (stamp != kUnset || HasSamples(row, store.GetColumns()))) {
         row.SetTimeStamp(fault->right);
         report(
            "row.stamp", id,
            Format("its newest sample is stamped %1, %2 (%3)", stamp, fault->what, stat->GetName()),
            Format("the stamp becomes %1", fault->right));
      }
   }
   store.Finish();
}

/// A stat has no row before its first sample. If its rows were lost, comparing rollups shows it.
void DepotImage::NoteStatsWithoutRows(const Mending& mending) const
{
   const auto hasRow = [this](const Series& series) { return bool{_hasRow[series.id]}; };
   const auto count = std::ranges::count_if(_stats.GetStats(), [&](const Stat& stat) {
      return std::ranges::none_of(stat.series, hasRow);
   });
   if (count > 0) {
      mending.AddNote("stat.noSamples", mending.files.GetIdMap(),
                      Format("%1 stats have no row in any store, hence no samples", count), "");
   }
}

} // namespace DepotTool
