#include "depotTool/storeMending.h"

#include "corvax/format.h"
#include "corvax/system.h"

#include <algorithm>

namespace DepotTool {

namespace {

using Corvax::Format;
using Metrix::kUnset;
using Metrix::StoreFormat::TimeStampPos;

constexpr uint32_t kMostSamples = 1 << 20; // of an interval

void CreateEmptyStore(const std::string& path, const IntervalEntry& interval)
{
   StoreWriter(path, static_cast<uint32_t>(interval.numSamples), interval.periodSec, {}).Finish();
}

void WriteHeader(const std::string& path, const IntervalEntry& interval)
{
   std::byte bytes[Metrix::StoreFormat::kTimeStampPos];
   Metrix::Encode(static_cast<uint32_t>(interval.numSamples),
                  &bytes[Metrix::StoreFormat::kNumSamplesPos]);
   Metrix::Encode(static_cast<uint32_t>(interval.periodSec),
                  &bytes[Metrix::StoreFormat::kSamplingPeriodPos]);
   const auto file = Corvax::System::GetFactory().NewFileHandle();
   file->Open(path, Corvax::FILE_READ_WRITE, Corvax::FileCreation::OPEN_EXISTING);
   file->WriteAll(bytes, sizeof bytes);
}

/// Makes header, description and file size agree. False if the store cannot be used.
bool MendHeader(const Mending& mending, const std::string& path, IntervalEntry& interval)
{
   const StoreHeader header = ReadStoreHeader(path);
   const auto described = static_cast<uint32_t>(interval.numSamples);
   const auto period = static_cast<uint32_t>(interval.periodSec);
   if (header.numSamples == described) {
      if (Corvax::System::GetFactory().GetFileSize(path) <
          Metrix::StoreFormat::RowsPos(described)) {
         return false;
      }
   } else if (header.numSamples <= kMostSamples &&
              FitsStore(path, header.numSamples, interval.periodSec)) {
      mending.AddFault(
         "description.columns", mending.files.GetDescription(), "interval " + interval.name,
         Format("it has %1 samples, but its store %2 columns", described, header.numSamples),
         "the description gets the store's number");
      interval.numSamples = static_cast<int32_t>(header.numSamples);
   } else if (!FitsStore(path, described, interval.periodSec)) {
      return false;
   }
   if (header.numSamples != static_cast<uint32_t>(interval.numSamples) ||
       header.periodSec != period) {
      mending.AddFault(
         "store.header", path, "offset 0",
         Format("the header says %1 columns of %2 s", header.numSamples, header.periodSec),
         Format("it gets the described %1 columns of %2 s", interval.numSamples, period));
      WriteHeader(path, interval);
   }
   return true;
}

void ReportColumns(const Mending& mending, const std::string& path, const IntervalEntry& interval,
                   const StoreImage& store, const std::vector<Column>& ring)
{
   const std::vector<TimeStamp>& stamps = store.GetStamps();
   std::vector<bool> isGood(stamps.size());
   for (const Column& column : ring) {
      isGood[column.index] = true;
   }
   for (size_t index = 0; index < stamps.size(); ++index) {
      const TimeStamp stamp = stamps[index];
      if (isGood[index] || stamp == kUnset) {
         continue;
      }
      const char* reason = "is not newer than those before it in the ring";
      if (stamp % static_cast<uint64_t>(interval.periodSec) != 0) {
         reason = "is not a multiple of the period";
      } else if (stamp > mending.newestAllowed) {
         reason = "is ahead of the clock";
      }
      mending.AddFault("column.stamp", path,
                       Format("column %1, offset %2", index, TimeStampPos(index)),
                       Format("its stamp %1 %2", stamp, reason), "the column is dropped");
   }
   // A dropped column leaves a gap, too, which is no finding of its own.
   for (size_t i = 1; i < ring.size(); ++i) {
      for (size_t index = (ring[i - 1].index + 1) % stamps.size(); index != ring[i].index;
           index = (index + 1) % stamps.size()) {
         if (stamps[index] == kUnset) {
            mending.AddFault("column.unused", path,
                             Format("column %1, offset %2", index, TimeStampPos(index)),
                             "it is unused between used ones, which hides the columns before it",
                             "the columns are moved together");
         }
      }
   }
}

/// Writes the store anew with these columns alone, from column 0 on.
void RewriteStore(const Mending& mending, const std::string& path, const IntervalEntry& interval,
                  StoreImage& store)
{
   std::vector<TimeStamp> stamps;
   for (const Column& column : store.GetColumns()) {
      stamps.push_back(column.stamp);
   }
   const std::string newPath = path + ".new";
   StoreWriter writer(newPath, store.GetNumSamples(), interval.periodSec, stamps);
   std::vector<StatVal> values;
   for (StatId id = 0; id < store.GetRowCount(); ++id) {
      const auto row = store.GetRow(id);
      if (!row.IsUsed()) {
         writer.AddFreeRow();
         continue;
      }
      const TimeStamp rowStamp = row.GetTimeStamp();
      store.GetSeries(id, values);
      writer.AddRow(values, rowStamp);
   }
   writer.Finish();
   if (mending.isKept) {
      const auto file = Corvax::System::GetFactory().NewFileHandle();
      file->Open(newPath, Corvax::FILE_READ_WRITE, Corvax::FileCreation::OPEN_EXISTING);
      file->Flush(); // before it replaces the old one
   }
   Corvax::System::GetFactory().Rename(newPath, path);
}

} // namespace

void MendStoreHeader(const Mending& mending, IntervalEntry& interval)
{
   Corvax::SystemFactory& factory = Corvax::System::GetFactory();
   const std::string path = mending.files.GetStore(interval.periodSec);
   if (!factory.Exists(path)) {
      mending.AddFault("store.missing", path, "", "the file is missing",
                       "an empty store is created");
      CreateEmptyStore(path, interval);
   } else if (!MendHeader(mending, path, interval)) {
      mending.AddFault("store.unusable", path, "",
                       Format("the file cannot be a store of %1 columns of %2 s",
                              interval.numSamples, interval.periodSec),
                       Format("it is renamed to %1.aside, and an empty store is created",
                              mending.GetOriginOf(path)));
      factory.Rename(path, path + ".aside");
      CreateEmptyStore(path, interval);
   }
}

std::unique_ptr<StoreImage> OpenStore(const Mending& mending, const IntervalEntry& interval)
{
   const std::string path = mending.files.GetStore(interval.periodSec);
   const auto numSamples = static_cast<uint32_t>(interval.numSamples);
   auto store = std::make_unique<StoreImage>(path, numSamples);
   if (store->GetExcessBytes() > 0) {
      mending.AddFault("store.partialRow", path,
                       Format("offset %1", store->GetRowPos(store->GetRowCount())),
                       Format("the file ends with %1 bytes of a row", store->GetExcessBytes()),
                       "they are cut off");
      store->CutExcess();
   }
   std::vector<Column> ring =
      FindRing(store->GetStamps(), interval.periodSec, mending.newestAllowed);
   const bool isWhole = IsWhole(store->GetStamps(), ring);
   store->SetColumns(ring);
   if (!isWhole) {
      ReportColumns(mending, path, interval, *store, ring);
      RewriteStore(mending, path, interval, *store);
      store = std::make_unique<StoreImage>(path, numSamples);
      store->SetColumns(FindRing(store->GetStamps(), interval.periodSec, mending.newestAllowed));
   }
   return store;
}

} // namespace DepotTool
