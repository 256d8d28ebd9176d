#pragma once

#include "corvax/descriptor.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Bench {

/// The least that a sample can cost on this machine: bare loops that store one number in each row
/// of a file, without lookups, checks or rollups. The rows are contiguous and as long as those of
/// the finest interval.
class FloorFile {
public:
   /// Writes the file, full of rows.
   FloorFile(const std::string& directory, size_t rows);
   ~FloorFile();
   FloorFile(const FloorFile&) = delete;
   FloorFile& operator=(const FloorFile&) = delete;

   // Each stores the value in all rows.
   /// F1: a pread and a pwrite of every row.
   void StoreByRow(uint64_t value);
   /// A pread and a pwrite of 64 rows at a time.
   void StoreByBlock(uint64_t value);
   /// By a mapping of the file.
   void StoreByMapping(uint64_t value);

private:
   void StoreByRanges(size_t rowsPerRange, uint64_t value);

   const size_t _rows;
   const Corvax::Descriptor _file;
   std::byte* _mapping;
   std::vector<std::byte> _buffer;
};

} // namespace Bench
