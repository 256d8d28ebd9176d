#pragma once

#include "metrix/columnRing.h"
#include "metrix/journalEntries.h"
#include "metrix/statTypes.h"
#include "metrix/storeFormat.h"

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <unordered_map>
#include <vector>

namespace Metrix {

/// The newest columns of a store in memory: the cells that the store's file does not have yet, and
/// for a while longer those that it has got.
///
/// Columns are counted by sequence numbers, which do not wrap; the newest one's is that of the
/// ring's latest column. A row that was changed since it was last laid down has a tile: its cells
/// in the columns of the head. What a tile does not have is in the row of the file, its base,
/// unless the row was cleared, freed or replaced by an image since.
///
/// Knows places and values, not files: the store composes a row from its file and the head.
/// Locking: none; used under the depot's lock.
class StoreHead {
public:
   /// For `columns` of a ring, which it follows; at most kMaxColumns and fewer than the ring has.
   StoreHead(const ColumnRing& ring, uint32_t numSamples, uint32_t columns);

   static constexpr uint32_t kMaxColumns = 64;

   // Columns.

   /// Call it before the ring's AddColumn. Drops the oldest column, so only if HasRoom.
   void AddColumn();
   /// Whether no cell of the oldest column, which AddColumn drops, is pending.
   bool HasRoom() const { return _pendingInSlot[Slot(GetOldest())] == 0; }
   /// Rows with pending cells in the oldest column.
   std::vector<StatId> FindRowsInTheWay();
   /// Whether the column is one of the head's.
   bool HasColumn(int32_t column) const { return GetAge(column) < _columns; }

   // Rows. A tile is created by the first change.

   bool HasTile(StatId id) const { return id < _tileOf.size() && _tileOf[id] != 0; }

   enum class Base : uint8_t {
      FILE,    ///< the row as the file has it
      CLEARED, ///< used, without samples
      FREED,
      IMAGE, ///< kept in memory
   };
   Base GetBase(StatId id) const;

   static constexpr TimeStamp kUnknown = kUnset - 1;
   /// The row's stamp, with its pending cells; kUnknown if only the file has it.
   TimeStamp GetStamp(StatId id) const;

   enum class Cell {
      SET,
      SET_AFTER_GAP, ///< the only one pending, and the row missed the column before: the base's
                     ///< stamp must be journaled first
      NO_ROW,        ///< nothing done: the row is free, or has no sample
      NOT_NEWER,     ///< nothing done: the column is not newer than the row's stamp, or too old
   };
   /// Adds a sample to a row. Where only the file has the row's stamp, columns that were added
   /// since loading count as newer.
   Cell AddCell(StatId id, int32_t column, StatVal value, TimeStamp& base);
   /// As AddCell, for a column that is known to be newer.
   Cell SetCell(StatId id, int32_t column, StatVal value, TimeStamp& base);
   void SetRow(StatId id, RowChange change);
   void SetImage(StatId id, std::span<const std::byte> bytes);
   /// Sets the stamp that the file's row had before any of the pending cells.
   void SetBaseStamp(StatId id, TimeStamp ts);
   /// Gives up a pending cell in the oldest column.
   void DropOldest(StatId id);
   /// From now on added columns are newer than any stamp in the file.
   void EndReplay() { _firstOwn = _newest + 1; }

   /// Turns a row as the file has it into the current one, with pending cells in columns up to
   /// `newestStamp`. False if the row is free.
   bool Compose(StatId id, StoreFormat::StatVector row, TimeStamp newestStamp = kUnset) const;

   /// Fills in the values of the columns if the head has them all. -1 if it does not; otherwise the
   /// number of valid values.
   int Read(StatId id, const ColumnRing::Range& range, std::span<StatVal> values) const;

   // Laying down.

   /// Whether the row can be laid down with cells up to `newestStamp`, and differs from the file's.
   bool IsPending(StatId id, TimeStamp newestStamp) const;
   /// Whether anything on the row is pending.
   bool IsPending(StatId id) const;
   enum class Gap { NONE, JOURNALED };
   /// Settles how the row in the file and its pending cells join, once the file's row is known.
   /// JOURNALED: entries were added that must be synced before the row is laid down.
   Gap SettleBase(StatId id, const StoreFormat::StatVector& fileRow, JournalEntries& entries,
                  uint32_t store);
   /// A used row's pending cells up to `newestStamp`, if nothing else of the row has to change: the
   /// samples of consecutive columns, which may wrap, and unset ones between them. False if the
   /// whole row has to be composed.
   struct Extension {
      int32_t firstColumn = 0;
      uint32_t count = 0;
      std::array<StatVal, kMaxColumns> samples;
      TimeStamp stamp = kUnset; ///< that the row gets
   };
   bool GetExtension(StatId id, TimeStamp newestStamp, Extension& extension) const;
   /// The row was written into the file. A change of the row that is not newer takes that back.
   void MarkLaidDown(StatId id, bool isLaidDown);
   bool IsLaidDown(StatId id) const;
   /// Everything on the row is durable in the file; of cells, those up to `newestStamp`. Returns
   /// the base's stamp if it must be journaled because of a gap before the next cell; else
   /// kUnknown.
   TimeStamp MarkDurable(StatId id, TimeStamp newestStamp);

   /// Adds entries for all that is pending.
   void AddTo(JournalEntries& entries, uint32_t store) const;
   /// One more than the highest row with a tile.
   StatId GetRowsEnd() const { return _tileOf.size(); }
   void Clear();

private:
   struct Tile {
      uint64_t has = 0;     ///< a bit per slot: a sample in that column
      uint64_t pending = 0; ///< those that the file does not have for certain
      TimeStamp stamp = kUnknown;
      uint32_t seenNewest = 0; ///< newest column when the bits were last brought up to date
      uint32_t knownFrom = 0;  ///< all samples from this column on are known
      Base base = Base::FILE;
      bool isLaidDown = false;
      bool needsBaseStamp = false; ///< the cells' base is not known
   };

   /// Of one of the head's columns.
   uint32_t Slot(uint32_t sequence) const
   {
      const uint32_t age = _newest - sequence;
      return _newestSlot >= age ? _newestSlot - age : _newestSlot + _columns - age;
   }
   uint64_t Bit(uint32_t sequence) const { return uint64_t{1} << Slot(sequence); }
   uint64_t SortByAge(uint64_t slots) const;
   /// The oldest column of some.
   uint32_t GetFirst(uint64_t slots) const;
   /// Calls `handle(sequence)` for each of a tile's slots, oldest first, while it returns true.
   template <class Handle>
   void ForEach(uint64_t slots, Handle handle) const
   {
      bool goesOn = true;
      for (uint64_t left = SortByAge(slots); goesOn && left != 0; left &= left - 1) {
         goesOn = handle(GetOldest() + static_cast<uint32_t>(std::countr_zero(left)));
      }
   }
   uint32_t GetAge(int32_t column) const;
   int32_t GetColumn(uint32_t sequence) const;
   TimeStamp GetTimeStamp(uint32_t sequence) const;
   uint32_t GetOldest() const { return _newest - _columns + 1; }
   Tile* FindTile(StatId id) const;
   Tile& GetTile(StatId id);
   StatVal* GetValues(const Tile& tile) const;
   void BringUpToDate(Tile& tile) const;
   void Restart(StatId id, Tile& tile, Base base, TimeStamp stamp, uint32_t knownFrom);
   bool HasGap(TimeStamp stamp, uint32_t sequence) const;
   void AddRowTo(JournalEntries& entries, uint32_t store, StatId id, const Tile& tile) const;
   void UnsetGap(StoreFormat::StatVector& row, uint32_t sequence, TimeStamp stamp) const;
   int32_t FindColumnAt(uint32_t sequence, TimeStamp ts) const;

   const ColumnRing& _ring;
   const uint32_t _numSamples;
   const uint32_t _columns;
   const uint64_t _allSlots;
   const size_t _tileBytes;
   uint32_t _newest; ///< sequence of the ring's latest column
   uint32_t _newestSlot = 0;
   uint32_t _firstOwn;            ///< of the first column added since loading
   std::vector<uint32_t> _tileOf; ///< by row, plus one; 0: none
   std::vector<std::unique_ptr<std::byte[]>> _chunks;
   uint32_t _tileCount = 0;
   std::vector<uint32_t> _pendingInSlot;
   std::vector<TimeStamp> _replaced; ///< by slot: the stamp that the column had before
   std::unordered_map<StatId, TimeStamp> _baseStamps;
   std::unordered_map<StatId, std::vector<std::byte>> _images;
};

} // namespace Metrix
