#include "metrix/storeHead.h"

#include "corvax/exception.h"

#include <algorithm>
#include <array>
#include <new>

namespace Metrix {

using Corvax::Assert;
using StoreFormat::StatVector;

namespace {

constexpr uint32_t kTilesPerChunk = 512;

/// Sequences begin here, so that those before loading are numbers, too.
constexpr uint32_t kFirstSequence = 2 * StoreHead::kMaxColumns;

} // namespace

StoreHead::StoreHead(const ColumnRing& ring, uint32_t numSamples, uint32_t columns)
   : _ring(ring), _numSamples(numSamples), _columns(columns),
     _allSlots(UINT64_MAX >> (kMaxColumns - columns)),
     _tileBytes(sizeof(Tile) + columns * sizeof(StatVal)), _newest(kFirstSequence),
     _firstOwn(kFirstSequence + 1), _pendingInSlot(columns, 0), _replaced(columns, kUnset)
{
   Assert(columns >= 1 && columns <= kMaxColumns, "a head has 1 to 64 columns");
}

void StoreHead::Clear()
{
   _tileOf.clear();
   _chunks.clear();
   _tileCount = 0;
   _images.clear();
   _baseStamps.clear();
   std::ranges::fill(_pendingInSlot, 0);
   std::ranges::fill(_replaced, kUnset);
   EndReplay();
}

void StoreHead::AddColumn()
{
   Assert(HasRoom(), "no cell of the oldest column is pending");
   ++_newest;
   _newestSlot = _newestSlot + 1 == _columns ? 0 : _newestSlot + 1;
   _replaced[_newestSlot] = _ring.GetTimeStamp(_ring.GetColumnToAdd());
}

std::vector<StatId> StoreHead::FindRowsInTheWay()
{
   std::vector<StatId> rows;
   for (StatId id = 0; id < GetRowsEnd(); ++id) {
      const Tile* const tile = FindTile(id);
      if (tile && (tile->pending & Bit(GetOldest())) != 0) {
         rows.push_back(id);
      }
   }
   return rows;
}

/// Columns between this one and the ring's latest.
uint32_t StoreHead::GetAge(int32_t column) const
{
   const int32_t latest = _ring.GetLatest();
   if (latest < 0) {
      return UINT32_MAX;
   }
   const int32_t steps = latest - column;
   return static_cast<uint32_t>(steps < 0 ? steps + static_cast<int32_t>(_numSamples) : steps);
}

/// The bits of slots, moved so that the oldest column's is the lowest.
uint64_t StoreHead::SortByAge(uint64_t slots) const
{
   const uint32_t oldest = Slot(GetOldest());
   return oldest == 0 ? slots : (slots >> oldest | slots << (_columns - oldest)) & _allSlots;
}

uint32_t StoreHead::GetFirst(uint64_t slots) const
{
   return GetOldest() + static_cast<uint32_t>(std::countr_zero(SortByAge(slots)));
}

int32_t StoreHead::GetColumn(uint32_t sequence) const
{
   const int64_t column = int64_t{_ring.GetLatest()} - (_newest - sequence);
   return static_cast<int32_t>(column < 0 ? column + _numSamples : column);
}

TimeStamp StoreHead::GetTimeStamp(uint32_t sequence) const
{
   return _ring.GetTimeStamp(GetColumn(sequence));
}

StoreHead::Tile* StoreHead::FindTile(StatId id) const
{
   if (!HasTile(id)) {
      return nullptr;
   }
   const uint32_t index = _tileOf[id] - 1;
   std::byte* const bytes = &_chunks[index / kTilesPerChunk][index % kTilesPerChunk * _tileBytes];
   Tile* const tile = std::launder(reinterpret_cast<Tile*>(bytes));
   if (tile->seenNewest != _newest) {
      BringUpToDate(*tile);
   }
   return tile;
}

/// Clears the bits of slots that have been given to newer columns since.
void StoreHead::BringUpToDate(Tile& tile) const
{
   if (_newest - tile.seenNewest >= _columns) {
      tile.has = 0;
   } else {
      for (uint32_t sequence = tile.seenNewest + 1; sequence <= _newest; ++sequence) {
         tile.has &= ~Bit(sequence);
      }
   }
   tile.seenNewest = _newest;
   tile.knownFrom = std::max(tile.knownFrom, GetOldest());
}

StoreHead::Tile& StoreHead::GetTile(StatId id)
{
   if (Tile* const tile = FindTile(id)) {
      return *tile;
   }
   if (id >= _tileOf.size()) {
      _tileOf.resize(static_cast<size_t>(id) + 1, 0);
   }
   if (_tileCount == _chunks.size() * kTilesPerChunk) {
      _chunks.push_back(std::make_unique<std::byte[]>(kTilesPerChunk * _tileBytes));
   }
   const uint32_t index = _tileCount++;
   Tile* const tile =
      new (&_chunks[index / kTilesPerChunk][index % kTilesPerChunk * _tileBytes]) Tile;
   tile->seenNewest = _newest;
   tile->knownFrom = _newest + 1;
   _tileOf[id] = index + 1;
   return *tile;
}

StatVal* StoreHead::GetValues(const Tile& tile) const
{
   return const_cast<StatVal*>(reinterpret_cast<const StatVal*>(&tile + 1));
}

StoreHead::Base StoreHead::GetBase(StatId id) const
{
   const Tile* const tile = FindTile(id);
   return tile ? tile->base : Base::FILE;
}

TimeStamp StoreHead::GetStamp(StatId id) const
{
   const Tile* const tile = FindTile(id);
   return tile ? tile->stamp : kUnknown;
}

/// Whether a row with this stamp missed the column before that one.
bool StoreHead::HasGap(TimeStamp stamp, uint32_t sequence) const
{
   const TimeStamp previous = _ring.GetTimeStamp(_ring.GetPrevious(GetColumn(sequence)));
   return stamp != kUnset && previous != kUnset && stamp != previous;
}

StoreHead::Cell StoreHead::AddCell(StatId id, int32_t column, StatVal value, TimeStamp& base)
{
   const uint32_t age = GetAge(column);
   bool isNewer = _newest - age >= _firstOwn;
   if (const Tile* const tile = FindTile(id); tile && tile->stamp != kUnknown) {
      if (tile->stamp == kUnset && tile->base != Base::CLEARED) {
         return Cell::NO_ROW;
      }
      isNewer = tile->stamp == kUnset || tile->stamp < _ring.GetTimeStamp(column);
   }
   return isNewer && age < _columns ? SetCell(id, column, value, base) : Cell::NOT_NEWER;
}

StoreHead::Cell StoreHead::SetCell(StatId id, int32_t column, StatVal value, TimeStamp& base)
{
   Tile& tile = GetTile(id);
   const uint32_t sequence = _newest - GetAge(column);
   const uint32_t slot = Slot(sequence);
   const uint64_t bit = uint64_t{1} << slot;
   Cell result = Cell::SET;
   if (tile.stamp == kUnknown) {
      tile.needsBaseStamp = true;
   } else if (tile.pending == 0 && tile.base == Base::FILE && HasGap(tile.stamp, sequence)) {
      result = Cell::SET_AFTER_GAP;
      base = tile.stamp;
      _baseStamps[id] = base;
   }
   tile.knownFrom = std::min(tile.knownFrom, sequence);
   tile.isLaidDown = tile.isLaidDown && sequence == _newest;
   tile.has |= bit;
   if ((tile.pending & bit) == 0) {
      tile.pending |= bit;
      ++_pendingInSlot[slot];
   }
   tile.stamp = _ring.GetTimeStamp(column);
   GetValues(tile)[slot] = value;
   return result;
}

/// Forgets all cells; the row is what `base` says.
void StoreHead::Restart(StatId id, Tile& tile, Base base, TimeStamp stamp, uint32_t knownFrom)
{
   for (uint32_t slot = 0; slot < _columns; ++slot) {
      _pendingInSlot[slot] -= static_cast<uint32_t>(tile.pending >> slot & 1);
   }
   tile = {.stamp = stamp, .seenNewest = _newest, .knownFrom = knownFrom, .base = base};
   _baseStamps.erase(id);
   _images.erase(id);
}

void StoreHead::SetRow(StatId id, RowChange change)
{
   const Base base = change == RowChange::CLEARED ? Base::CLEARED : Base::FREED;
   Restart(id, GetTile(id), base, kUnset, GetOldest());
}

void StoreHead::SetImage(StatId id, std::span<const std::byte> bytes)
{
   std::vector<std::byte> image(bytes.begin(), bytes.end());
   const TimeStamp stamp = StatVector(image.data()).GetTimeStamp();
   Restart(id, GetTile(id), Base::IMAGE, stamp, _newest + 1);
   _images[id] = std::move(image);
}

void StoreHead::SetBaseStamp(StatId id, TimeStamp ts)
{
   Tile& tile = GetTile(id);
   if (tile.stamp == kUnknown) {
      tile.stamp = ts;
   }
   tile.needsBaseStamp = false;
   _baseStamps[id] = ts;
}

void StoreHead::DropOldest(StatId id)
{
   Tile& tile = GetTile(id);
   if ((tile.pending & Bit(GetOldest())) != 0) {
      tile.pending &= ~Bit(GetOldest());
      tile.has &= ~Bit(GetOldest());
      --_pendingInSlot[Slot(GetOldest())];
   }
}

bool StoreHead::Compose(StatId id, StatVector row, TimeStamp newestStamp) const
{
   const Tile* const tile = FindTile(id);
   if (tile == nullptr) {
      return row.IsUsed();
   }
   if (tile->base == Base::FREED) {
      row.SetFree();
      return false;
   }
   if (tile->base == Base::IMAGE) {
      row.Assign(_images.at(id));
   } else if (tile->base == Base::CLEARED || (tile->pending != 0 && !row.IsUsed())) {
      row.Clear(_numSamples);
   }
   if (!row.IsUsed()) {
      return false;
   }
   const auto known = _baseStamps.find(id);
   TimeStamp stamp = known == _baseStamps.end() ? row.GetTimeStamp() : known->second;
   ForEach(tile->pending, [&](uint32_t sequence) {
      const int32_t column = GetColumn(sequence);
      const TimeStamp ts = _ring.GetTimeStamp(column);
      if (ts > newestStamp) {
         return false;
      }
      // A file that has the cell already has a stamp that is not older.
      if (stamp < ts) {
         UnsetGap(row, sequence, stamp);
      }
      row.SetSample(static_cast<size_t>(column), GetValues(*tile)[Slot(sequence)]);
      row.SetTimeStamp(ts);
      stamp = ts;
      return true;
   });
   return true;
}

/// Unsets the samples between the row's last one and this column: they are left from before the
/// ring wrapped.
void StoreHead::UnsetGap(StatVector& row, uint32_t sequence, TimeStamp stamp) const
{
   if (!HasGap(stamp, sequence)) {
      return;
   }
   const int32_t chosen = GetColumn(sequence);
   const int32_t last = FindColumnAt(sequence, stamp);
   for (int32_t column = _ring.GetNext(last < 0 ? chosen : last); column != chosen;
        column = _ring.GetNext(column)) {
      row.SetSample(static_cast<size_t>(column), kUnset);
   }
}

/// The column that had the stamp when `sequence` was the newest one; -1 if there was none.
int32_t StoreHead::FindColumnAt(uint32_t sequence, TimeStamp ts) const
{
   const int32_t column = _ring.FindColumn(ts);
   for (uint32_t later = sequence + 1; column < 0 && later <= _newest; ++later) {
      if (_replaced[Slot(later)] == ts) {
         return GetColumn(later);
      }
   }
   return column;
}

int StoreHead::Read(StatId id, const ColumnRing::Range& range, std::span<StatVal> values) const
{
   const Tile* const tile = FindTile(id);
   const uint32_t age = GetAge(range.first);
   if (tile == nullptr || age >= _columns || _newest - age < tile->knownFrom) {
      return -1;
   }
   int count = 0;
   uint32_t sequence = _newest - age;
   for (StatVal& value : values) {
      const bool has = (tile->has & Bit(sequence)) != 0;
      value = has ? GetValues(*tile)[Slot(sequence)] : kUnset;
      count += value != kUnset ? 1 : 0;
      ++sequence;
   }
   return count;
}

bool StoreHead::IsPending(StatId id) const
{
   const Tile* const tile = FindTile(id);
   return tile && (tile->pending != 0 || tile->base != Base::FILE);
}

bool StoreHead::IsPending(StatId id, TimeStamp newestStamp) const
{
   const Tile* const tile = FindTile(id);
   if (tile == nullptr) {
      return false;
   }
   if (tile->base == Base::FREED) {
      return true;
   }
   if (tile->base == Base::IMAGE) {
      const std::vector<std::byte>& image = _images.at(id);
      const auto stamp = Decode<TimeStamp>(&image[StoreFormat::kRowTimeStampPos]);
      return stamp == kUnset || stamp <= newestStamp;
   }
   return tile->pending != 0 && GetTimeStamp(GetFirst(tile->pending)) <= newestStamp;
}

bool StoreHead::GetExtension(StatId id, TimeStamp newestStamp, Extension& extension) const
{
   const Tile* const tile = FindTile(id);
   if (tile == nullptr || tile->base != Base::FILE || tile->needsBaseStamp ||
       (!_baseStamps.empty() && _baseStamps.contains(id))) {
      return false;
   }
   extension.count = 0;
   uint32_t first = 0;
   ForEach(tile->pending, [&](uint32_t sequence) {
      const int32_t column = GetColumn(sequence);
      const TimeStamp ts = _ring.GetTimeStamp(column);
      if (ts > newestStamp) {
         return false;
      }
      if (extension.count == 0) {
         first = sequence;
         extension.firstColumn = column;
      }
      while (first + extension.count < sequence) {
         extension.samples[extension.count++] = kUnset;
      }
      extension.samples[extension.count++] = GetValues(*tile)[Slot(sequence)];
      extension.stamp = ts;
      return true;
   });
   return extension.count > 0;
}

StoreHead::Gap StoreHead::SettleBase(StatId id, const StatVector& fileRow, JournalEntries& entries,
                                     uint32_t store)
{
   Tile* const tile = FindTile(id);
   if (tile == nullptr || !tile->needsBaseStamp || tile->pending == 0) {
      return Gap::NONE;
   }
   tile->needsBaseStamp = false;
   const uint32_t first = GetFirst(tile->pending);
   const TimeStamp stamp = fileRow.GetTimeStamp();
   if (tile->base == Base::FILE && !fileRow.IsUsed()) {
      tile->base = Base::CLEARED;
   } else if (tile->base == Base::FILE && stamp < GetTimeStamp(first) && HasGap(stamp, first)) {
      _baseStamps[id] = stamp;
   } else {
      return Gap::NONE;
   }
   AddRowTo(entries, store, id, *tile);
   return Gap::JOURNALED;
}

void StoreHead::MarkLaidDown(StatId id, bool isLaidDown)
{
   GetTile(id).isLaidDown = isLaidDown;
}

bool StoreHead::IsLaidDown(StatId id) const
{
   const Tile* const tile = FindTile(id);
   return tile && tile->isLaidDown;
}

TimeStamp StoreHead::MarkDurable(StatId id, TimeStamp newestStamp)
{
   Tile* const tile = FindTile(id);
   if (tile == nullptr || !IsPending(id, newestStamp)) {
      return kUnknown;
   }
   TimeStamp last = kUnset;
   if (tile->base == Base::IMAGE) {
      last = Decode<TimeStamp>(&_images.at(id)[StoreFormat::kRowTimeStampPos]);
   }
   tile->base = Base::FILE;
   tile->isLaidDown = false;
   tile->needsBaseStamp = false;
   _images.erase(id);
   _baseStamps.erase(id);
   TimeStamp base = kUnknown;
   ForEach(tile->pending, [&](uint32_t sequence) {
      const TimeStamp ts = GetTimeStamp(sequence);
      if (ts > newestStamp) {
         if (HasGap(last, sequence)) {
            base = last;
            _baseStamps[id] = last;
         }
         return false;
      }
      tile->pending &= ~Bit(sequence);
      --_pendingInSlot[Slot(sequence)];
      last = ts;
      return true;
   });
   return base;
}

void StoreHead::AddTo(JournalEntries& entries, uint32_t store) const
{
   for (StatId id = 0; id < GetRowsEnd(); ++id) {
      const Tile* const tile = FindTile(id);
      if (tile && (tile->pending != 0 || tile->base != Base::FILE)) {
         AddRowTo(entries, store, id, *tile);
      }
   }
}

/// Adds entries from which the row comes out as it is now.
void StoreHead::AddRowTo(JournalEntries& entries, uint32_t store, StatId id, const Tile& tile) const
{
   if (tile.base == Base::IMAGE) {
      entries.AddRowImage(store, id, _images.at(id));
   } else if (tile.base != Base::FILE) {
      const bool isFreed = tile.base == Base::FREED;
      entries.AddRow(store, id, isFreed ? RowChange::FREED : RowChange::CLEARED);
   } else if (const auto base = _baseStamps.find(id); base != _baseStamps.end()) {
      entries.AddRowBase(store, id, base->second);
   }
   std::array<StatVal, kMaxColumns> run;
   uint32_t count = 0;
   int32_t nextColumn = -1;
   const auto endRun = [&] {
      if (count > 0) {
         const auto firstColumn = static_cast<uint32_t>(nextColumn) - count;
         entries.AddRowCells(store, firstColumn, id, {run.data(), count});
      }
      count = 0;
   };
   ForEach(tile.pending, [&](uint32_t sequence) {
      const int32_t column = GetColumn(sequence);
      if (column != nextColumn) {
         endRun();
      }
      run[count++] = GetValues(tile)[Slot(sequence)];
      nextColumn = column + 1;
      return true;
   });
   endRun();
}

} // namespace Metrix
