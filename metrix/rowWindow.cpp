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

constexpr uint64_t kPageBytes = 4096;

} // namespace

RowWindow::RowWindow(Corvax::Ref<Corvax::FileHandle> file, uint64_t firstRowPos,
                     size_t rowSizeBytes, size_t headSizeBytes)
   : _file(std::move(file)), _firstRowPos(firstRowPos), _rowSize(rowSizeBytes),
     _headSize(headSizeBytes),
     _maxRows(rowSizeBytes > kMaxRowBytesInRange ? 1 : kMaxRangeBytes / rowSizeBytes),
     _bytes(new(std::nothrow) std::byte[_maxRows * _rowSize])
{
   Assert(_bytes != nullptr, "a row buffer can be allocated");
}

void RowWindow::BeginWalk(uint64_t end)
{
   EndBatch();
   _isBatch = true;
   _walkEnd = end;
}

void RowWindow::EndBatch()
{
   _isBatch = false;
   _walkEnd = UINT64_MAX;
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
   try {
      Read(row, count);
   } catch (const Corvax::PlatformException&) {
      if (count == 1) {
         throw;
      }
      Read(row, 1); // another row may be the unreadable one
   }
}

void RowWindow::Read(uint64_t row, uint64_t count)
{
   _file->Seek(GetRowPos(row));
   const size_t readBytes = _file->Read(_bytes.get(), count * _rowSize);
   const size_t wholeRowBytes = readBytes - readBytes % _rowSize;
   std::memset(&_bytes[wholeRowBytes], 0, count * _rowSize - wholeRowBytes);
   _firstRow = row;
   _rowCount = count;
   _heads.resize(count * _headSize);
   for (uint64_t i = 0; _headSize > 0 && i < count; ++i) {
      std::memcpy(&_heads[i * _headSize], At(row + i), _headSize);
   }
}

/// A walk is going on if the row lies at or shortly after the end of the range read last. Only then
/// are the rows after it likely to be used next, and worth reading with it.
uint64_t RowWindow::ChooseRangeLength(uint64_t row) const
{
   if (_walkEnd != UINT64_MAX) {
      return row < _walkEnd ? std::min(_walkEnd - row, _maxRows) : 1;
   }
   const uint64_t end = _firstRow + _rowCount;
   const bool isWalk = _isBatch && _rowCount > 0 && row >= end && row - end < kStepLimit;
   return isWalk ? std::min(_rowCount * kGrowth, _maxRows) : 1;
}

void RowWindow::WriteBack()
{
   if (_dirtyFirst == _dirtyEnd) {
      return;
   }
   try {
      WriteDirty();
   } catch (...) {
      _dirtyFirst = _dirtyEnd = 0;
      _rowCount = 0; // the file may have old rows or new ones
      throw;
   }
   _dirtyFirst = _dirtyEnd = 0;
}

/// A write that is killed ends at a page border. So rows that lie across one get their rest first,
/// under the old head.
void RowWindow::WriteDirty()
{
   CutIncompleteRow(GetRowPos(_dirtyEnd));
   bool anyAcross = false;
   for (uint64_t row = _dirtyFirst; _headSize > 0 && row < _dirtyEnd && !anyAcross; ++row) {
      anyAcross = IsAcrossPages(row);
   }
   if (anyAcross) {
      SwapHeads(_dirtyFirst, _dirtyEnd);
      WriteRows(_dirtyFirst, _dirtyEnd);
      SwapHeads(_dirtyFirst, _dirtyEnd);
   }
   WriteRows(_dirtyFirst, _dirtyEnd);
   for (uint64_t row = _dirtyFirst; _headSize > 0 && row < _dirtyEnd; ++row) {
      std::memcpy(&_heads[(row - _firstRow) * _headSize], At(row), _headSize);
   }
}

void RowWindow::WriteRows(uint64_t first, uint64_t end)
{
   const size_t sizeBytes = (end - first) * _rowSize;
   _file->Seek(GetRowPos(first));
   Assert(_file->Write(At(first), sizeBytes) == sizeBytes, "rows are written whole");
   _fileEnd = std::max(_fileEnd, GetRowPos(end));
}

/// Exchanges the heads of rows across pages for those that the file has.
void RowWindow::SwapHeads(uint64_t first, uint64_t end)
{
   for (uint64_t row = first; row < end; ++row) {
      if (IsAcrossPages(row)) {
         std::byte* const head = &_heads[(row - _firstRow) * _headSize];
         std::swap_ranges(head, head + _headSize, At(row));
      }
   }
}

bool RowWindow::IsAcrossPages(uint64_t row) const
{
   return GetRowPos(row) / kPageBytes != (GetRowPos(row + 1) - 1) / kPageBytes;
}

/// A row that is cut off at the end of the file would come back to life, filled up with zero bytes,
/// when rows are written behind it.
void RowWindow::CutIncompleteRow(uint64_t end)
{
   if (end <= _fileEnd) {
      return;
   }
   const uint64_t size = _file->GetSize();
   const uint64_t excess = size > _firstRowPos ? (size - _firstRowPos) % _rowSize : 0;
   if (excess != 0) {
      _file->Truncate(size - excess);
   }
   _fileEnd = size - excess;
}

} // namespace Metrix
