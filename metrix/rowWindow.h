#pragma once

#include "corvax/file.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace Metrix {

/// A buffer for a range of consecutive rows of a file, all of one size, through which the rows are
/// read and written.
///
/// Outside a batch each row is read and written alone and at once. In a batch, walking forward
/// through the rows reads longer and longer ranges, and dirty rows stay in the window until it
/// moves or the batch ends: two system calls per range instead of two per row. Clean rows between
/// dirty ones are written back as they were read.
///
/// A row that the file does not hold whole reads as zero bytes, and is cut off before the file
/// grows.
///
/// Errors: PlatformException if the file system fails, AssertionException if it writes rows
/// only in part. The changes of the failed write are lost, and later reads return the file's
/// content; other changes stay pending.
/// Locking: none; one thread at a time.
class RowWindow {
public:
   /// The file stays open while the window is used. Row 0 begins at `firstRowPos`. The first
   /// `headSizeBytes` of a row say what the rest means: if the process is killed while it writes,
   /// the file has no new head over an old rest.
   RowWindow(Corvax::Ref<Corvax::FileHandle> file, uint64_t firstRowPos, size_t rowSizeBytes,
             size_t headSizeBytes = 0);

   void BeginBatch() { _isBatch = true; }
   /// A batch that walks forward through the rows below `end`.
   void BeginWalk(uint64_t end);
   bool IsBatch() const { return _isBatch; }
   /// Writes everything pending and empties the window.
   void EndBatch();

   /// The row's bytes, valid until the next call. After changing them, call MarkDirty.
   std::byte* Get(uint64_t row);

   /// Has the row, which Get returned last, written: in a batch later, otherwise now.
   void MarkDirty(uint64_t row);

private:
   bool Holds(uint64_t row) const { return row >= _firstRow && row - _firstRow < _rowCount; }
   bool IsAcrossPages(uint64_t row) const;
   uint64_t GetRowPos(uint64_t row) const { return _firstRowPos + row * _rowSize; }
   void Read(uint64_t row, uint64_t count);
   void WriteDirty();
   void WriteRows(uint64_t first, uint64_t end);
   void SwapHeads(uint64_t first, uint64_t end);
   void CutIncompleteRow(uint64_t end);
   void MoveTo(uint64_t row);
   uint64_t ChooseRangeLength(uint64_t row) const;
   void WriteBack();
   std::byte* At(uint64_t row) { return &_bytes[(row - _firstRow) * _rowSize]; }

   const Corvax::Ref<Corvax::FileHandle> _file;
   const uint64_t _firstRowPos;
   const size_t _rowSize;
   const size_t _headSize;
   const uint64_t _maxRows; ///< most rows that the window holds
   std::unique_ptr<std::byte[]> _bytes;
   std::vector<std::byte> _heads; ///< of the rows, as the file has them
   bool _isBatch = false;
   uint64_t _walkEnd = UINT64_MAX; ///< no row from here on is read ahead
   uint64_t _firstRow = 0;
   uint64_t _rowCount = 0;
   uint64_t _dirtyFirst = 0; ///< the dirty rows, with the clean ones between them
   uint64_t _dirtyEnd = 0;   ///< after the last; equal to _dirtyFirst if no row is dirty
   uint64_t _fileEnd = 0;    ///< the file is at least as long, and ends with a whole row
};

} // namespace Metrix
