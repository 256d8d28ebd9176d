#pragma once

#include "corvax/file.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace Metrix {

/// Rows of one size, one behind the other in a file, read and written through a window on
/// neighbouring rows.
///
/// Alone, every row is read and written by itself and straight through. Within a batch, walking
/// forward through the rows reads ever longer runs of them at once, and rows put down stay in the
/// window until it moves on or the batch ends: two system calls a run instead of two a row. Rows
/// between those that were put down are written as they were read.
///
/// Long rows are not worth copying for the few bytes that a sample is: within a batch such bytes
/// can be put down by themselves, and go out many at a time.
///
/// A row that the file does not have, or not whole, reads as zero bytes.
/// Errors: PlatformException where the file system fails, AssertionException when it took only a
/// part; what the window held back is then lost, and later reads show what the file has.
/// Locking: none; one thread at a time.
class RowWindow {
public:
   /// The file is open for as long as the window is used; row 0 begins at `firstRowPos`.
   RowWindow(Corvax::Ref<Corvax::FileHandle> file, uint64_t firstRowPos, size_t rowSizeBytes);

   void BeginBatch() { _isBatch = true; }
   /// Writes what was held back, and forgets what was read.
   void EndBatch();

   /// The row's bytes, to be looked at or changed until the next call.
   std::byte* Get(uint64_t row);

   /// Puts down the row that Get gave last, as it is now.
   void Put(uint64_t row);

   /// How often something that was held back could not be written.
   uint64_t GetLosses() const { return _losses; }

   /// Whether rows are long and this is a batch, so that SetPiece saves copying them.
   bool TakesPieces() const { return _isBatch && _longestRun == 1; }

   /// Puts down eight bytes of a row that the file has, at their place within the row. In a batch.
   void SetPiece(uint64_t row, size_t pos, uint64_t value);

private:
   struct Piece {
      uint64_t offset;
      std::array<std::byte, 8> bytes;
   };

   bool Holds(uint64_t row) const { return row >= _first && row - _first < _count; }
   void MoveTo(uint64_t row);
   uint64_t ChooseRunLength(uint64_t row) const;
   void WriteBack();
   void WritePieces();
   std::byte* At(uint64_t row) { return &_bytes[(row - _first) * _rowSize]; }

   const Corvax::Ref<Corvax::FileHandle> _file;
   const uint64_t _firstRowPos;
   const size_t _rowSize;
   const uint64_t _longestRun; // rows
   std::unique_ptr<std::byte[]> _bytes;
   bool _isBatch = false;
   uint64_t _first = 0; // of the rows in the window
   uint64_t _count = 0;
   uint64_t _putFirst = 0; // of the rows held back
   uint64_t _putEnd = 0;   // behind the last; the same as the first when none are
   uint64_t _losses = 0;
   std::vector<Piece> _pieces; // held back, in the order in which they were put down
};

} // namespace Metrix
