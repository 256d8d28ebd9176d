#pragma once

#include "metrix/statTypes.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

/// What a journal's records contain: changes of places and values, in order of happening, so that
/// applying them twice ends the same. docs/formats/journal.md has the encoding.
namespace Metrix {

/// How a row was changed as a whole.
enum class RowChange : uint8_t {
   CLEARED, ///< a used row without samples
   FREED,
};

/// A stat that was registered, with all or more of its series.
struct StatEntry {
   struct Series {
      StatId id;
      int32_t rollup;
   };

   std::string_view entityId;
   std::string_view statName;
   int32_t statType = 0;
   int32_t scalingFactor = 0;
   std::vector<Series> series;
};

/// Receives decoded entries. A store is numbered by its place in the interval table.
class JournalSink {
public:
   virtual ~JournalSink();
   /// A new column, newer than all others.
   virtual void OnColumn(uint32_t store, TimeStamp ts) = 0;
   virtual void OnCell(uint32_t store, uint32_t column, StatId id, StatVal value) = 0;
   virtual void OnRow(uint32_t store, StatId id, RowChange change) = 0;
   /// The stamp of the row in the file, before cells that do not follow it directly.
   virtual void OnRowBase(uint32_t store, StatId id, TimeStamp ts) = 0;
   /// The whole row.
   virtual void OnRowImage(uint32_t store, StatId id, std::span<const std::byte> bytes) = 0;
   /// All entries on `count` rows from `first` on are durable in the store's file; of cells, those
   /// in columns up to `ts`.
   virtual void OnRowsDurable(uint32_t store, StatId first, uint64_t count, TimeStamp ts) = 0;
   virtual void OnStat(const StatEntry& stat) = 0;
   /// The ids' records are free.
   virtual void OnIdsFreed(const std::vector<StatId>& ids) = 0;
   /// All entries on these ids are durable in the id map's file.
   virtual void OnIdsDurable(const std::vector<StatId>& ids) = 0;
};

/// Encodes entries into a buffer.
class JournalEntries {
public:
   void AddColumn(uint32_t store, TimeStamp ts);
   void AddCell(uint32_t store, uint32_t column, StatId id, StatVal value);
   /// The row's cells in consecutive columns.
   void AddRowCells(uint32_t store, uint32_t firstColumn, StatId id,
                    std::span<const StatVal> values);
   void AddRow(uint32_t store, StatId id, RowChange change);
   void AddRowBase(uint32_t store, StatId id, TimeStamp ts);
   void AddRowImage(uint32_t store, StatId id, std::span<const std::byte> bytes);
   void AddRowsDurable(uint32_t store, StatId first, uint64_t count, TimeStamp ts);
   void AddStat(const StatEntry& stat);
   void AddIdsFreed(const std::vector<StatId>& ids);
   void AddIdsDurable(const std::vector<StatId>& ids);

   bool IsEmpty() const { return _size == 0; }
   size_t GetSizeBytes() const { return _size; }
   void Clear();

   /// All entries, in parts of whole entries that each fit into a record. Valid until the next
   /// entry is added.
   std::vector<std::span<const std::byte>> GetParts();

private:
   void Begin(uint8_t kind, size_t contentSize);
   void EndCells();
   void Reserve(size_t size);
   void PutNumber(uint64_t number);
   void PutBytes(std::span<const std::byte> bytes);
   void PutText(std::string_view text);
   void PutIds(const std::vector<StatId>& ids);

   std::vector<std::byte> _bytes; ///< the first _size of them are in use
   size_t _size = 0;
   std::vector<size_t> _cuts; ///< offsets of entries at which the buffer may be cut
   // The cells that are being added: an entry has those of one column.
   bool _inCells = false;
   uint32_t _cellStore = 0;
   uint32_t _cellColumn = 0;
   StatId _lastCellId = 0;
   size_t _cellsBegin = 0;
};

/// Decodes entries in order. FileFormatException, naming the offset, for bytes that are no entry;
/// the sink has received the entries before them.
void DecodeEntries(std::span<const std::byte> bytes, JournalSink& sink);

} // namespace Metrix
