#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Bench {

/// The least that a sample costs on this machine: bare loops which put one number into each row of
/// a file, without looking up, checking or rolling up anything. The rows are of the size of the
/// finest interval's, and neighbours.
class FloorFile {
public:
   /// Writes the file, full of rows.
   FloorFile(const std::string& directory, size_t rows);
   ~FloorFile();
   FloorFile(const FloorFile&) = delete;
   FloorFile& operator=(const FloorFile&) = delete;

   // One pass over all rows each.
   /// F1: a pread and a pwrite of every row.
   void PassByRow(uint64_t value);
   /// A pread and a pwrite of 64 rows at a time.
   void PassByBlock(uint64_t value);
   /// Stores into a mapping of the file.
   void PassByMapping(uint64_t value);

private:
   void PassByRuns(size_t rowsPerRun, uint64_t value);

   const size_t _rows;
   int _file;
   std::byte* _mapping;
   std::vector<std::byte> _buffer;
};

} // namespace Bench
