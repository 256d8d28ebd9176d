#include "metrix/rowWindow.h"

#include "corvax/exception.h"
#include "metrix/littleEndian.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

namespace Metrix {

namespace {

using Corvax::Assert;

/// Long runs, because what the kernel does for one write grows with the pieces in which it keeps
/// the file in memory, not with the bytes that are written.
constexpr size_t kLongestRunBytes = 1024 * 1024;

/// Beyond this size copying the rows in between costs more than calls of their own.
constexpr size_t kLargestRowInRunBytes = 4096;

/// Rows that a walk may leave out and still count as one: a stat's rollup series lie behind its raw
/// series.
constexpr uint64_t kLongestStep = 16;

constexpr uint64_t kGrowth = 4;

constexpr size_t kMostPieces = 512;

} // namespace

RowWindow::RowWindow(Corvax::Ref<Corvax::FileHandle> file, uint64_t firstRowPos,
                     size_t rowSizeBytes)
   : _file(std::move(file)), _firstRowPos(firstRowPos), _rowSize(rowSizeBytes),
     _longestRun(rowSizeBytes > kLargestRowInRunBytes ? 1 : kLongestRunBytes / rowSizeBytes),
     _bytes(new(std::nothrow) std::byte[_longestRun * _rowSize])
{
   Assert(_bytes != nullptr, "a row buffer can be allocated");
}

void RowWindow::EndBatch()
{
   _isBatch = false;
   WriteBack();
   _count = 0;
}

std::byte* RowWindow::Get(uint64_t row)
{
   if (!_isBatch || !Holds(row)) {
      MoveTo(row);
   }
   return At(row);
}

void RowWindow::Put(uint64_t row)
{
   Assert(Holds(row), "the row that is put down was got");
   const bool isFirst = _putFirst == _putEnd;
   _putFirst = isFirst ? row : std::min(_putFirst, row);
   _putEnd = isFirst ? row + 1 : std::max(_putEnd, row + 1);
   if (!_isBatch) {
      WriteBack();
   }
}

void RowWindow::SetPiece(uint64_t row, size_t pos, uint64_t value)
{
   if (Holds(row)) {
      WriteBack();
      _count = 0; // it is not what the file will have
   }
   Piece& piece = _pieces.emplace_back();
   piece.offset = _firstRowPos + row * _rowSize + pos;
   Encode(value, piece.bytes.data());
   if (_pieces.size() >= kMostPieces) {
      WritePieces();
   }
}

void RowWindow::WritePieces()
{
   if (_pieces.empty()) {
      return;
   }
   const std::vector<Piece> pieces = std::exchange(_pieces, {});
   std::vector<Corvax::FilePiece> writes;
   writes.reserve(pieces.size());
   for (const Piece& piece : pieces) {
      writes.push_back({piece.offset, piece.bytes.data(), piece.bytes.size()});
   }
   try {
      _file->WritePieces(writes);
   } catch (...) {
      ++_losses;
      throw;
   }
   _pieces.reserve(kMostPieces);
}

void RowWindow::MoveTo(uint64_t row)
{
   WriteBack();
   const uint64_t count = ChooseRunLength(row);
   _count = 0; // nothing, should reading fail
   _file->Seek(_firstRowPos + row * _rowSize);
   const size_t readBytes = _file->Read(_bytes.get(), count * _rowSize);
   const size_t wholeRowBytes = readBytes - readBytes % _rowSize;
   std::memset(&_bytes[wholeRowBytes], 0, count * _rowSize - wholeRowBytes);
   _first = row;
   _count = count;
}

uint64_t RowWindow::ChooseRunLength(uint64_t row) const
{
   const uint64_t end = _first + _count;
   const bool isWalk = _isBatch && _count > 0 && row >= end && row - end < kLongestStep;
   return isWalk ? std::min(_count * kGrowth, _longestRun) : 1;
}

void RowWindow::WriteBack()
{
   WritePieces();
   if (_putFirst == _putEnd) {
      return;
   }
   const size_t sizeBytes = (_putEnd - _putFirst) * _rowSize;
   const std::byte* const bytes = At(_putFirst);
   const uint64_t pos = _firstRowPos + _putFirst * _rowSize;
   _putFirst = 0;
   _putEnd = 0;
   try {
      _file->Seek(pos);
      Assert(_file->Write(bytes, sizeBytes) == sizeBytes, "rows are written whole");
   } catch (...) {
      ++_losses;
      _count = 0;
      throw;
   }
}

} // namespace Metrix
