#include "metrix/rowWindow.h"

#include "corvax/exception.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

namespace Metrix {

namespace {

using Corvax::Assert;

/// Large, because the kernel's cost of a read or write is mostly per call and per page-cache folio,
/// hardly per byte.
constexpr size_t kMaxRangeBytes = size_t{1} << 20;

/// Longer rows are handled one by one: copying the rows between two that are used would cost more
/// than the system calls that it saves.
constexpr size_t kMaxRowBytesInRange = 4096;

/// A step over fewer rows than this continues a walk: the rollup series of a stat lie between its
/// raw series and the next stat's.
constexpr uint64_t kStepLimit = 16;

/// The range grows by this factor while a walk continues: a lone access reads one row, a long walk
/// soon reads full ranges, and one that ends has read less than four times the rows it passed.
constexpr uint64_t kGrowth = 4;

} // namespace

RowWindow::RowWindow(Corvax::Ref<Corvax::FileHandle> file, uint64_t firstRowPos,
                     size_t rowSizeBytes)
   : _file(std::move(file)), _firstRowPos(firstRowPos), _rowSize(rowSizeBytes),
     _maxRows(rowSizeBytes > kMaxRowBytesInRange ? 1 : kMaxRangeBytes / rowSizeBytes),
     _bytes(new(std::nothrow) std::byte[_maxRows * _rowSize])
{
   Assert(_bytes != nullptr, "a row buffer can be allocated");
}

void RowWindow::EndBatch()
{
   _isBatch = false;
   WriteBack();
   _rowCount = 0;
}

std::byte* RowWindow::Get(uint64_t row)
{
   if (!_isBatch || !Holds(row)) {
      MoveTo(row);
   }
   return At(row);
}

void RowWindow::MarkDirty(uint64_t row)
{
   Assert(Holds(row), "a row is read before it is marked dirty");
   const bool isFirst = _dirtyFirst == _dirtyEnd;
   _dirtyFirst = isFirst ? row : std::min(_dirtyFirst, row);
   _dirtyEnd = isFirst ? row + 1 : std::max(_dirtyEnd, row + 1);
   if (!_isBatch) {
      WriteBack();
   }
}

void RowWindow::MoveTo(uint64_t row)
{
   WriteBack();
   const uint64_t count = ChooseRangeLength(row);
   _rowCount = 0; // holds nothing if reading fails
   _file->Seek(_firstRowPos + row * _rowSize);
   const size_t readBytes = _file->Read(_bytes.get(), count * _rowSize);
   const size_t wholeRowBytes = readBytes - readBytes % _rowSize;
   std::memset(&_bytes[wholeRowBytes], 0, count * _rowSize - wholeRowBytes);
   _firstRow = row;
   _rowCount = count;
}

/// A walk is going on if the row lies at or shortly after the end of the range read last. Only then
/// are the rows after it likely to be used next, and worth reading with it.
uint64_t RowWindow::ChooseRangeLength(uint64_t row) const
{
   const uint64_t end = _firstRow + _rowCount;
   const bool isWalk = _isBatch && _rowCount > 0 && row >= end && row - end < kStepLimit;
   return isWalk ? std::min(_rowCount * kGrowth, _maxRows) : 1;
}

void RowWindow::WriteBack()
{
   if (_dirtyFirst == _dirtyEnd) {
      return;
   }
   const size_t sizeBytes = (_dirtyEnd - _dirtyFirst) * _rowSize;
   const std::byte* const bytes = At(_dirtyFirst);
   const uint64_t pos = _firstRowPos + _dirtyFirst * _rowSize;
   _dirtyFirst = 0;
   _dirtyEnd = 0;
   try {
      _file->Seek(pos);
      Assert(_file->Write(bytes, sizeBytes) == sizeBytes, "rows are written whole");
   } catch (...) {
      _rowCount = 0; // the file may have old rows or new ones
      throw;
   }
}

} // namespace Metrix
