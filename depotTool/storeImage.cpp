#include "depotTool/storeImage.h"

#include "corvax/exception.h"
#include "corvax/system.h"
#include "metrix/columnRing.h"

#include <algorithm>

namespace DepotTool {

namespace {

using Corvax::FileCreation;
using Metrix::kUnset;
using Metrix::StoreFormat::RowSize;
using Metrix::StoreFormat::RowsPos;
using Metrix::StoreFormat::StatVector;

constexpr size_t kWriteBytes = size_t{1} << 20;

Corvax::Ref<Corvax::FileHandle> OpenFile(const std::string& path, uint32_t access,
                                         FileCreation creation = FileCreation::OPEN_EXISTING)
{
   auto file = Corvax::System::GetFactory().NewFileHandle();
   file->Open(path, access, creation);
   return file;
}

/// FileFormatException if the file ends before.
std::vector<TimeStamp> ReadStamps(Corvax::FileHandle& file, uint32_t numSamples)
{
   std::vector<std::byte> bytes(numSamples * Metrix::StoreFormat::kTimeStampSize);
   file.Seek(Metrix::StoreFormat::kTimeStampPos);
   if (file.Read(bytes.data(), bytes.size()) < bytes.size()) {
      throw Corvax::FileFormatException("a store is shorter than its stamps");
   }
   std::vector<TimeStamp> stamps(numSamples);
   for (size_t i = 0; i < stamps.size(); ++i) {
      stamps[i] = Metrix::Decode<TimeStamp>(&bytes[i * Metrix::StoreFormat::kTimeStampSize]);
   }
   return stamps;
}

} // namespace

StoreHeader ReadStoreHeader(const std::string& path)
{
   std::byte bytes[Metrix::StoreFormat::kTimeStampPos] = {};
   OpenFile(path, Corvax::FILE_READ)->Read(bytes, sizeof bytes);
   return {Metrix::Decode<uint32_t>(&bytes[Metrix::StoreFormat::kNumSamplesPos]),
           Metrix::Decode<uint32_t>(&bytes[Metrix::StoreFormat::kSamplingPeriodPos])};
}

bool FitsStore(const std::string& path, uint32_t numSamples, int32_t periodSec)
{
   const auto file = OpenFile(path, Corvax::FILE_READ);
   const uint64_t size = file->GetSize();
   if (numSamples < 1 || size < RowsPos(numSamples) ||
       (size - RowsPos(numSamples)) % RowSize(numSamples) != 0) {
      return false;
   }
   const std::vector<TimeStamp> stamps = ReadStamps(*file, numSamples);
   return IsWhole(stamps, FindRing(stamps, periodSec, kUnset - 1));
}

std::vector<Column> FindRing(const std::vector<TimeStamp>& stamps, int32_t periodSec,
                             TimeStamp newestAllowed)
{
   std::vector<size_t> impossible =
      Metrix::FindImpossibleColumns(stamps, static_cast<uint64_t>(periodSec), newestAllowed);
   std::ranges::sort(impossible);
   std::vector<Column> columns;
   for (uint32_t index = 0; index < stamps.size(); ++index) {
      if (stamps[index] != kUnset && !std::ranges::binary_search(impossible, index)) {
         columns.push_back({stamps[index], index});
      }
   }
   std::ranges::sort(columns, {}, &Column::stamp);
   return columns;
}

bool IsWhole(const std::vector<TimeStamp>& stamps, const std::vector<Column>& ring)
{
   const auto unused = static_cast<size_t>(std::ranges::count(stamps, kUnset));
   if (stamps.size() - unused != ring.size()) {
      return false;
   }
   for (size_t i = 1; i < ring.size(); ++i) {
      if (ring[i].index != (ring[i - 1].index + 1) % stamps.size()) {
         return false;
      }
   }
   return true;
}

StoreImage::StoreImage(const std::string& path, uint32_t numSamples)
   : _file(OpenFile(path, Corvax::FILE_READ_WRITE)), _numSamples(numSamples),
     _stamps(ReadStamps(*_file, numSamples)),
     _rows(std::make_unique<Metrix::RowWindow>(_file, RowsPos(numSamples),
                                               static_cast<size_t>(RowSize(numSamples))))
{
   const uint64_t rowBytes = _file->GetSize() - RowsPos(numSamples);
   _rowCount = rowBytes / RowSize(numSamples);
   _excessBytes = rowBytes % RowSize(numSamples);
   _rows->BeginBatch();
}

void StoreImage::CutExcess()
{
   _file->Truncate(GetRowPos(_rowCount));
   _excessBytes = 0;
}

StatVector StoreImage::GetRow(StatId id)
{
   return StatVector(_rows->Get(id));
}

uint64_t StoreImage::GetRowPos(StatId id) const
{
   return RowsPos(_numSamples) + id * RowSize(_numSamples);
}

void StoreImage::MarkDirty(StatId id)
{
   _rows->MarkDirty(id);
   _rowCount = std::max(_rowCount, id + 1);
}

bool StoreImage::GetSeries(StatId id, std::vector<StatVal>& values)
{
   values.assign(_columns.size(), kUnset);
   if (id >= _rowCount) {
      return false;
   }
   const StatVector row = GetRow(id);
   if (!row.IsUsed()) {
      return false;
   }
   // Columns newer than the row's last sample hold values from before the ring wrapped.
   const TimeStamp newest = row.GetTimeStamp();
   bool any = false;
   for (size_t i = 0; i < _columns.size() && _columns[i].stamp <= newest; ++i) {
      values[i] = row.GetSample(_columns[i].index);
      any = any || values[i] != kUnset;
   }
   return any;
}

void StoreImage::SetSeries(StatId id, const std::vector<StatVal>& values)
{
   StatVector row = GetRow(id);
   row.Clear(_numSamples);
   for (size_t i = 0; i < _columns.size(); ++i) {
      row.SetSample(_columns[i].index, values[i]);
   }
   row.SetTimeStamp(_columns.empty() ? kUnset : _columns.back().stamp);
   MarkDirty(id);
}

void StoreImage::Finish()
{
   _rows->EndBatch();
   _rows->BeginBatch();
}

StoreWriter::StoreWriter(const std::string& path, uint32_t numSamples, int32_t periodSec,
                         const std::vector<TimeStamp>& stamps)
   : _file(OpenFile(path, Corvax::FILE_WRITE, FileCreation::CREATE_ALWAYS)),
     _numSamples(numSamples),
     _pending(Metrix::StoreFormat::EncodeEmptyStore(numSamples, static_cast<uint32_t>(periodSec)))
{
   for (size_t column = 0; column < stamps.size(); ++column) {
      Metrix::Encode(stamps[column], &_pending[Metrix::StoreFormat::TimeStampPos(column)]);
   }
}

void StoreWriter::AddRow(const std::vector<StatVal>& values, TimeStamp rowStamp)
{
   for (; _freeRows > 0; --_freeRows) {
      Append();
   }
   StatVector row(Append());
   row.Clear(_numSamples);
   for (size_t column = 0; column < values.size(); ++column) {
      row.SetSample(column, values[column]);
   }
   row.SetTimeStamp(rowStamp);
}

/// A free row, as the last of the pending ones.
std::byte* StoreWriter::Append()
{
   if (_pending.size() >= kWriteBytes) {
      _file->WriteAll(_pending.data(), _pending.size());
      _pending.clear();
   }
   const auto rowSize = static_cast<size_t>(RowSize(_numSamples));
   _pending.resize(_pending.size() + rowSize);
   return &_pending[_pending.size() - rowSize];
}

void StoreWriter::Finish()
{
   _file->WriteAll(_pending.data(), _pending.size());
   _file->Close();
}

} // namespace DepotTool
