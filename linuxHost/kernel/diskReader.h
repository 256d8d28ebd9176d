#pragma once

#include "hostctl/storage.h"
#include "linuxHost/kernel/kernelFile.h"
#include "linuxHost/kernel/procParsers.h"

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace LinuxHost {

/// Unit of the kernel's block counts, whatever the disk's own sector size is.
constexpr uint64_t kBlockSizeBytes = 512;

struct DiskFigures {
   std::string name; ///< the kernel's, "sda"
   HostCtl::Storage::StorageStatistics statistics;
};

/// Traffic of the host's whole disks.
///
/// Left out: partitions; devices made of other disks, which count that traffic themselves; loop
/// devices, whose traffic is counted on the disk of their file; compressed memory (zram); card
/// slots and the like while they are empty; RAM disks that were never used; a device in the reading
/// that finds another one behind its name, so that nobody takes the difference of two devices'
/// counters. The kernel numbers devices since 5.15: before, such a device is not noticed.
/// Cost: reads /proc/diskstats, one small file for each disk, and one more for each SCSI disk and
/// each device that may be empty. The kind of a device is looked up once, and again when its name
/// was gone meanwhile.
/// Errors: HostCtl::Lib::HostCtlException.
/// Locking: none; one thread at a time.
class DiskReader {
public:
   /// `root` goes before the path of every file.
   explicit DiskReader(const std::string& root);

   /// In the kernel's order. Commands are reads, writes, discards and flushes together; aborted
   /// ones are a SCSI disk's timeouts, 0 for other disks; bus resets have no source and are 0.
   std::vector<DiskFigures> ReadDisks();

private:
   /// The device behind a name of /proc/diskstats.
   struct Device {
      /// `path` is the device's directory in /sys/block.
      Device(std::string_view name, std::string path);

      const std::string path;
      const bool isWholeDisk; // and neither a loop device nor zram
      const bool isMemory;
      std::optional<KernelFile> size;         // of a device that may be empty
      std::optional<KernelFile> timeouts;     // of a SCSI disk
      std::optional<KernelFile> sequence;     // number of the device since the host's start
      std::optional<uint64_t> sequenceNumber; // unset until it is read
      std::optional<bool> isStacked;          // unset until it is looked up
      uint64_t lastRead = 0;                  // number of the last call that met it
   };

   Device& FindDevice(std::string_view name);
   static bool IsCounted(Device& device, const DiskCounts& counts);
   bool IsSameDevice(Device& device, std::string_view name);
   static DiskFigures MakeFigures(Device& device, const DiskCounts& counts);

   const std::string _blockPath;
   KernelFile _diskstats;
   std::map<std::string, Device, std::less<>> _devices;
   uint64_t _reads = 0; // number of calls of ReadDisks
};

} // namespace LinuxHost
