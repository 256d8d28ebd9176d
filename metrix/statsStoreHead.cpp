#include "metrix/statsStoreImpl.h"

#include "corvax/exception.h"
#include "corvax/system.h"

#include <algorithm>
#include <array>

namespace Metrix {

using Base = StoreHead::Base;
using Corvax::PlatformException;
using StoreFormat::StatVector;

namespace {

/// From here on copying a row costs more than two writes of a few bytes.
constexpr size_t kLongRowBytes = 4096;

/// What whole rows may take up in memory when they can be neither journaled nor written.
constexpr size_t kMaxImageBytes = size_t{32} << 20;

/// Rows that are reserved at a time, because each step is a system call.
constexpr uint64_t kReserveStep = 256;

[[noreturn]] void RefuseEntry(const std::string& fileName, const std::string& reason)
{
   throw Corvax::FileFormatException("the journal does not fit " + fileName + ": " + reason);
}

} // namespace

void StatsStoreImpl::AttachHead(uint32_t columns, uint32_t store, JournalEntries* entries)
{
   _head = std::make_unique<StoreHead>(_columns, _numSamples, columns);
   _storeNumber = store;
   _entries = entries;
   _composed.resize(_rowSize);
   OpenWindow();
}

void StatsStoreImpl::DetachHead()
{
   _head = nullptr;
   OpenWindow();
}

/// With a journal, heads of rows need no care: after a crash the journal writes such rows again.
void StatsStoreImpl::OpenWindow()
{
   if (_storeHandle) {
      _rows = std::make_unique<RowWindow>(_storeHandle, _statVectorPos, _rowSize,
                                          _head ? 0 : StoreFormat::kRowSamplesPos);
   }
}

JournalFormat::StoreShape StatsStoreImpl::GetShape()
{
   return {_samplingPeriod, _headerStamp, _columns.GetAllTimeStamps()};
}

// Replaying.

void StatsStoreImpl::ReplayColumn(TimeStamp ts)
{
   if (ts == kUnset || (_columns.GetLatest() >= 0 && ts <= _columns.GetLatestTimeStamp())) {
      RefuseEntry(_fileName, "column " + std::to_string(ts) + " is not newer than all others");
   }
   if (!_head->HasRoom()) {
      MakeRoom();
   }
   _head->AddColumn();
   _columns.AddColumn(ts);
}

void StatsStoreImpl::ReplayCell(uint32_t column, StatId id, StatVal value)
{
   const auto index = static_cast<int32_t>(column);
   if (column >= _numSamples || id >= INT32_MAX || !_head->HasColumn(index) ||
       _columns.GetTimeStamp(index) == kUnset) {
      RefuseEntry(_fileName,
                  "there is no column " + std::to_string(column) + " for id " + std::to_string(id));
   }
   TimeStamp base = kUnset;
   _head->SetCell(id, index, value, base);
   _numStats = std::max(_numStats, static_cast<uint32_t>(id) + 1);
}

void StatsStoreImpl::ReplayImage(StatId id, std::span<const std::byte> bytes)
{
   if (bytes.size() != _rowSize || id >= INT32_MAX) {
      RefuseEntry(_fileName, "the row of id " + std::to_string(id) + " has another size");
   }
   _head->SetImage(id, bytes);
   _numStats = std::max(_numStats, static_cast<uint32_t>(id) + 1);
}

// Recording.

bool StatsStoreImpl::HasRoom(TimeStamp ts)
{
   const bool isNewColumn = _columns.GetLatest() < 0 || ts > _columns.GetLatestTimeStamp();
   return !_head || !isNewColumn || _head->HasRoom();
}

void StatsStoreImpl::AddHeadColumn(TimeStamp ts)
{
   if (!_head->HasRoom()) {
      MakeRoom();
   }
   _head->AddColumn();
   _columns.AddColumn(ts);
   _entries->AddColumn(_storeNumber, ts);
}

/// Keeps the rows that have samples in the head's oldest column as whole rows in memory. Gives up
/// the samples of rows that cannot be read, and all if they are too many: the disk has failed for
/// as long as the head goes back.
void StatsStoreImpl::MakeRoom()
{
   const std::vector<StatId> rows = _head->FindRowsInTheWay();
   const bool areTooMany = rows.size() * _rowSize > kMaxImageBytes;
   for (const StatId id : rows) {
      if (areTooMany) {
         ++_lostSamples;
         _head->DropOldest(id);
         continue;
      }
      try {
         if (ComposeRow(id)) {
            _head->SetImage(id, _composed);
            _entries->AddRowImage(_storeNumber, id, _composed);
         }
      } catch (const PlatformException& e) {
         ++_lostSamples;
         _head->DropOldest(id);
         _logger->Log(Corvax::kLogError, "A sample of stat id %1 is given up: %2", id,
                      e.GetMessage());
      }
   }
}

void StatsStoreImpl::AddHeadSample(StatId statId, int32_t column, TimeStamp ts, StatVal value)
{
   using Cell = StoreHead::Cell;
   TimeStamp base = kUnset;
   const bool isBeyondEnd = statId >= _numStats && !_head->HasTile(statId);
   Cell result = isBeyondEnd ? Cell::NO_ROW : _head->AddCell(statId, column, value, base);
   if (result == Cell::NO_ROW) {
      // It starts over, and must not be mixed with what the file has in its place.
      _head->SetRow(statId, RowChange::CLEARED);
      _entries->AddRow(_storeNumber, statId, RowChange::CLEARED);
      _numStats = std::max(_numStats, static_cast<uint32_t>(statId) + 1);
      result = _head->AddCell(statId, column, value, base);
   }
   if (result == Cell::NOT_NEWER) {
      ReplaceRow(statId, column, ts, value);
      return;
   }
   if (result == Cell::SET_AFTER_GAP) {
      _entries->AddRowBase(_storeNumber, statId, base);
   }
   _entries->AddCell(_storeNumber, static_cast<uint32_t>(column), statId, value);
}

/// A sample that is not newer than the row's last one changes more of the row than its cell.
void StatsStoreImpl::ReplaceRow(StatId statId, int32_t column, TimeStamp ts, StatVal value)
{
   std::optional<StatVector> row = ComposeRow(statId);
   if (!row) {
      row.emplace(_composed.data());
      row->Clear(_numSamples);
   }
   InvalidateGap(*row, column);
   row->SetSample(static_cast<size_t>(column), value);
   row->SetTimeStamp(ts);
   _head->SetImage(statId, _composed);
   _entries->AddRowImage(_storeNumber, statId, _composed);
}

/// The row with its pending cells, in _composed; nothing if it is free.
std::optional<StatVector> StatsStoreImpl::ComposeRow(StatId statId)
{
   const Base base = _head->GetBase(statId);
   if (const std::byte* const row = base == Base::FILE ? GetFileRow(statId) : nullptr) {
      std::copy_n(row, _rowSize, _composed.begin());
   } else {
      std::ranges::fill(_composed, std::byte{0});
   }
   const StatVector row(_composed.data());
   return _head->Compose(statId, row) ? std::optional(row) : std::nullopt;
}

/// The row as the file has it; null if there is no file.
std::byte* StatsStoreImpl::GetFileRow(StatId statId)
{
   return _rows ? _rows->Get(statId) : nullptr;
}

void StatsStoreImpl::ReserveRows(StatId end)
{
   if (end <= _reservedRows || !_storeHandle) {
      return;
   }
   const uint64_t size = std::min(_storeHandle->GetSize(), _statVectorPos + end * _rowSize);
   const uint64_t needed = _statVectorPos + end * _rowSize - size;
   try {
      _storeHandle->Allocate(size, needed + kReserveStep * _rowSize);
      _reservedRows = end + kReserveStep;
   } catch (const PlatformException&) {
      if (needed > 0) {
         _storeHandle->Allocate(size, needed);
      }
      _reservedRows = end;
   }
}

// Laying down.

StatsStore::LayDownResult StatsStoreImpl::LayDown(StatId first, StatId end, TimeStamp newestStamp)
{
   LayDownResult result;
   const bool wasBatch = _rows->IsBatch();
   _rows->BeginWalk(end);
   _extensions.clear();
   bool isDone = TryLayDown(first, end, newestStamp, result);
   try {
      _rows->EndBatch();
   } catch (const Corvax::Exception&) {
      isDone = false;
   }
   // Some write failed, of several rows: row by row only those that cannot be written are left.
   for (StatId id = first; id < end && !isDone; ++id) {
      TryLayDown(id, id + 1, newestStamp, result);
   }
   StoreHead::Extension extension;
   for (const StatId id : _extensions) {
      try {
         _head->GetExtension(id, newestStamp, extension);
         Extend(id, extension);
         _head->MarkLaidDown(id, true);
      } catch (const Corvax::Exception& e) {
         result.error = result.failed++ == 0 ? e.GetMessage() : result.error;
      }
   }
   if (wasBatch) {
      _rows->BeginBatch();
   }
   return result;
}

/// False if some row failed.
bool StatsStoreImpl::TryLayDown(StatId first, StatId end, TimeStamp newestStamp,
                                LayDownResult& result)
{
   const bool isAlone = end - first == 1;
   bool isDone = true;
   StoreHead::Extension extension;
   for (StatId id = first; id < end; ++id) {
      if (!_head->IsPending(id, newestStamp)) {
         continue;
      }
      if (_rowSize > kLongRowBytes && _head->GetExtension(id, newestStamp, extension)) {
         _extensions.push_back(id);
         continue;
      }
      try {
         LayDownRow(id, newestStamp, result);
      } catch (const Corvax::Exception& e) {
         isDone = false;
         if (isAlone) {
            result.error = result.failed++ == 0 ? e.GetMessage() : result.error;
            _head->MarkLaidDown(id, false);
         }
      }
   }
   return isDone;
}

void StatsStoreImpl::LayDownRow(StatId id, TimeStamp newestStamp, LayDownResult& result)
{
   const StatVector row(GetFileRow(id));
   if (_head->SettleBase(id, row, *_entries, _storeNumber) == StoreHead::Gap::JOURNALED) {
      result.postponed.push_back(id);
      return;
   }
   const bool wasUsed = row.IsUsed();
   if (_head->Compose(id, row, newestStamp) || wasUsed) {
      _rows->MarkDirty(id);
   }
   _head->MarkLaidDown(id, true);
}

void StatsStoreImpl::Extend(StatId id, const StoreHead::Extension& extension)
{
   const uint64_t rowPos = _statVectorPos + id * _rowSize;
   std::array<std::byte, StoreHead::kMaxColumns * StoreFormat::kSampleSize> bytes;
   for (size_t i = 0; i < extension.count; ++i) {
      Encode(extension.samples[i], &bytes[i * StoreFormat::kSampleSize]);
   }
   const auto firstColumn = static_cast<size_t>(extension.firstColumn);
   const size_t beforeWrap = std::min<size_t>(extension.count, _numSamples - firstColumn);
   const size_t bytesBeforeWrap = beforeWrap * StoreFormat::kSampleSize;
   _storeHandle->Seek(rowPos + StoreFormat::SamplePos(firstColumn));
   _storeHandle->WriteAll(bytes.data(), bytesBeforeWrap);
   if (beforeWrap < extension.count) {
      _storeHandle->Seek(rowPos + StoreFormat::SamplePos(0));
      _storeHandle->WriteAll(&bytes[bytesBeforeWrap],
                             extension.count * StoreFormat::kSampleSize - bytesBeforeWrap);
   }
   Encode(extension.stamp, bytes.data());
   _storeHandle->Seek(rowPos + StoreFormat::kRowTimeStampPos);
   _storeHandle->WriteAll(bytes.data(), sizeof extension.stamp);
}

void StatsStoreImpl::SetRowsDurable(StatId first, StatId end, TimeStamp newestStamp)
{
   StatId rangeFirst = first;
   const auto endRange = [&](StatId rangeEnd) {
      if (rangeEnd > rangeFirst) {
         _entries->AddRowsDurable(_storeNumber, rangeFirst, rangeEnd - rangeFirst, newestStamp);
      }
      rangeFirst = rangeEnd + 1;
   };
   std::vector<std::pair<StatId, TimeStamp>> bases;
   for (StatId id = first; id < end; ++id) {
      if (!_head->IsLaidDown(id)) {
         if (_head->IsPending(id, newestStamp)) {
            endRange(id);
         }
         continue;
      }
      const TimeStamp base = _head->MarkDurable(id, newestStamp);
      if (base != StoreHead::kUnknown) {
         bases.emplace_back(id, base);
      }
   }
   endRange(end);
   for (const auto& [id, base] : bases) {
      _entries->AddRowBase(_storeNumber, id, base);
   }
}

bool StatsStoreImpl::IsInPlace()
{
   return !_storeHandle || (_storeHandle->IsAt(_fileName) && _storeHandle->GetSize() >= _fileSize);
}

} // namespace Metrix
