#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// Disks of the host. Ownership: the caller owns every raw pointer that is returned.
namespace HostCtl::Storage {

/// Counts since the disk, or the world that uses it, appeared. Blocks have the disk's block size.
struct StorageStatistics {
   uint64_t blocksRead = 0;
   uint64_t blocksWritten = 0;
   uint64_t readOperations = 0;
   uint64_t writeOperations = 0;
   uint64_t commands = 0;
   uint64_t abortedCommands = 0;
   uint64_t busResets = 0;
};

/// The part of a disk's traffic that one world caused.
struct WorldStatistics {
   int32_t worldId = -1;
   StorageStatistics statistics;
};

/// Errors: Lib::HostCtlException from every operation.
class DiskLun {
public:
   virtual ~DiskLun();
   virtual std::string GetScsiName() = 0;
   virtual uint64_t GetBlockSizeBytes() = 0;
   virtual StorageStatistics GetStatistics() = 0;
   virtual std::vector<WorldStatistics> GetWorldStatistics() = 0;
};

class StorageInfo {
public:
   virtual ~StorageInfo();
   virtual std::vector<DiskLun*> GetDiskLuns() = 0;
   /// To be added to the sum of the KB that the disks of the last GetDiskLuns read and wrote, so
   /// that it grows by their traffic alone when one joins or leaves them. 0 until one does.
   virtual int64_t GetSumCorrectionKb();
};

} // namespace HostCtl::Storage
