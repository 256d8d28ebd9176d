#pragma once

#include "corvax/file.h"
#include "metrix/rowWindow.h"
#include "metrix/storeFormat.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace DepotTool {

using Metrix::StatId;
using Metrix::StatVal;
using Metrix::TimeStamp;

/// The first bytes of a store; zero where the file has none.
struct StoreHeader {
   uint32_t numSamples = 0;
   uint32_t periodSec = 0;
};

StoreHeader ReadStoreHeader(const std::string& path);

/// Whether the file can be a store with that many columns: it has all stamps, no part of a row at
/// its end, and the stamps form a ring.
bool FitsStore(const std::string& path, uint32_t numSamples, int32_t periodSec);

/// A column in use.
struct Column {
   TimeStamp stamp;
   uint32_t index;
};

/// The columns that form a ring, oldest first: as many as possible. Leaves out stamps that are not
/// multiples of the period, later than `newestAllowed`, or not newer than those before.
std::vector<Column> FindRing(const std::vector<TimeStamp>& stamps, int32_t periodSec,
                             TimeStamp newestAllowed);

/// Whether these columns are all that are in use, without an unused one between them.
bool IsWhole(const std::vector<TimeStamp>& stamps, const std::vector<Column>& ring);

/// A store file, open for reading and writing, whose header is known to be right.
///
/// Cost: rows visited in ascending order are read and written in ranges.
class StoreImage {
public:
   StoreImage(const std::string& path, uint32_t numSamples);

   uint32_t GetNumSamples() const { return _numSamples; }
   /// Bytes of an incomplete row at the end of the file.
   uint64_t GetExcessBytes() const { return _excessBytes; }
   void CutExcess();
   uint64_t GetRowCount() const { return _rowCount; }
   const std::vector<TimeStamp>& GetStamps() const { return _stamps; }

   /// The columns in use, oldest first; set by whoever knows the period.
   const std::vector<Column>& GetColumns() const { return _columns; }
   void SetColumns(std::vector<Column> columns) { _columns = std::move(columns); }

   /// The row, which is free if the file does not have it; valid until the next call.
   Metrix::StoreFormat::StatVector GetRow(StatId id);
   uint32_t GetFlag(StatId id) { return Metrix::Decode<uint32_t>(_rows->Get(id)); }
   void SetFlag(StatId id, uint32_t flag) { Metrix::Encode(flag, _rows->Get(id)); }
   /// Offset of the row in the file.
   uint64_t GetRowPos(StatId id) const;
   /// Has the row, which GetRow returned last, written.
   void MarkDirty(StatId id);

   /// One value per column; unset where the series has none. False if all are.
   bool GetSeries(StatId id, std::vector<StatVal>& values);
   /// Replaces the row by these samples; its stamp becomes that of the newest column.
   void SetSeries(StatId id, const std::vector<StatVal>& values);

   /// Writes all changes.
   void Finish();

private:
   Corvax::Ref<Corvax::FileHandle> _file;
   const uint32_t _numSamples;
   uint64_t _rowCount = 0;
   uint64_t _excessBytes = 0;
   std::vector<TimeStamp> _stamps;
   std::vector<Column> _columns;
   std::unique_ptr<Metrix::RowWindow> _rows;
};

/// Writes a store, row after row, with these columns in this order.
class StoreWriter {
public:
   StoreWriter(const std::string& path, uint32_t numSamples, int32_t periodSec,
               const std::vector<TimeStamp>& stamps);

   /// Adds a row with these samples, one per column. `rowStamp` is the stamp of the newest.
   void AddRow(const std::vector<StatVal>& values, TimeStamp rowStamp);
   void AddFreeRow() { ++_freeRows; }
   void Finish();

private:
   std::byte* Append();

   const Corvax::Ref<Corvax::FileHandle> _file;
   const uint32_t _numSamples;
   uint64_t _freeRows = 0; ///< since the last used one
   std::vector<std::byte> _pending;
};

} // namespace DepotTool
