#include "bench/floors.h"

#include "bench/workload.h"
#include "corvax/exception.h"
#include "metrix/storeFormat.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

namespace Bench {

namespace {

namespace Format = Metrix::StoreFormat;

constexpr size_t kRowBytes = Format::RowSize(kFineSamples);
constexpr size_t kRowsPerBlock = 64;

void Check(bool hasSucceeded, const char* operation)
{
   if (!hasSucceeded) {
      throw Corvax::Exception(std::string("Cannot ") + operation + " the floor's file");
   }
}

/// The three writes of a sample: flag, stamp and value.
void PutSample(std::byte* row, uint64_t value)
{
   const uint32_t used = 1;
   const size_t column = value % kFineSamples;
   std::memcpy(row + Format::kRowUsedPos, &used, sizeof used);
   std::memcpy(row + Format::kRowTimeStampPos, &value, sizeof value);
   std::memcpy(row + Format::SamplePos(column), &value, sizeof value);
}

} // namespace

FloorFile::FloorFile(const std::string& directory, size_t rows)
   : _rows(rows),
     _file(::open((directory + "floor").c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600)),
     _mapping(nullptr), _buffer(kRowsPerBlock * kRowBytes)
{
   Check(static_cast<bool>(_file), "create");
   for (size_t row = 0; row < rows; ++row) {
      Check(::write(_file.Get(), _buffer.data(), kRowBytes) == static_cast<ssize_t>(kRowBytes),
            "fill");
   }
   void* const mapping =
      ::mmap(nullptr, rows * kRowBytes, PROT_READ | PROT_WRITE, MAP_SHARED, _file.Get(), 0);
   Check(mapping != MAP_FAILED, "map");
   _mapping = static_cast<std::byte*>(mapping);
}

FloorFile::~FloorFile()
{
   ::munmap(_mapping, _rows * kRowBytes);
}

void FloorFile::StoreByRow(uint64_t value)
{
   StoreByRanges(1, value);
}

void FloorFile::StoreByBlock(uint64_t value)
{
   StoreByRanges(kRowsPerBlock, value);
}

void FloorFile::StoreByRanges(size_t rowsPerRange, uint64_t value)
{
   for (size_t first = 0; first < _rows; first += rowsPerRange) {
      const size_t rows = std::min(rowsPerRange, _rows - first);
      const size_t sizeBytes = rows * kRowBytes;
      const auto offset = static_cast<off_t>(first * kRowBytes);
      Check(::pread(_file.Get(), _buffer.data(), sizeBytes, offset) ==
               static_cast<ssize_t>(sizeBytes),
            "read");
      for (size_t row = 0; row < rows; ++row) {
         PutSample(_buffer.data() + row * kRowBytes, value);
      }
      Check(::pwrite(_file.Get(), _buffer.data(), sizeBytes, offset) ==
               static_cast<ssize_t>(sizeBytes),
            "write");
   }
}

void FloorFile::StoreByMapping(uint64_t value)
{
   for (size_t row = 0; row < _rows; ++row) {
      PutSample(_mapping + row * kRowBytes, value);
   }
}

} // namespace Bench
