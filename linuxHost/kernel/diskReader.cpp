#include "linuxHost/kernel/diskReader.h"

#include "linuxHost/kernel/blockDevices.h"
#include "linuxHost/kernel/saturate.h"
#include "linuxHost/kernel/textParts.h"

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <utility>

namespace LinuxHost {

namespace {

/// Drivers whose devices exist while they are empty.
constexpr std::string_view kMayBeEmpty[] = {"loop", "ram", "zram", "nbd", "sr", "fd", "dm-", "md"};

bool MayBeEmpty(std::string_view name)
{
   return std::any_of(std::begin(kMayBeEmpty), std::end(kMayBeEmpty),
                      [name](std::string_view driver) { return IsNumbered(name, driver); });
}

// An error counts as absence: devices come and go at any time.
bool Exists(const std::string& path)
{
   std::error_code ignored;
   return std::filesystem::exists(path, ignored);
}

bool HasEntries(const std::string& path)
{
   std::error_code failure;
   const std::filesystem::directory_iterator entry(path, failure);
   return !failure && entry != std::filesystem::directory_iterator();
}

} // namespace

DiskReader::Device::Device(std::string_view name, std::string devicePath)
   : path(std::move(devicePath)), isWholeDisk(Exists(path)), isMemory(IsNumbered(name, "ram"))
{
   if (isWholeDisk && MayBeEmpty(name)) {
      size.emplace(path + "/size");
   }
   const std::string timeoutsPath = path + "/device/iotmo_cnt";
   if (isWholeDisk && Exists(timeoutsPath)) {
      timeouts.emplace(timeoutsPath);
   }
}

DiskReader::DiskReader(const std::string& root)
   : _blockPath(root + "/sys/block/"), _diskstats(root + "/proc/diskstats")
{
}

std::vector<DiskFigures> DiskReader::ReadDisks()
{
   ++_reads;
   std::vector<DiskFigures> figures;
   for (const DiskCounts& counts : ParseDiskStats(_diskstats.Read())) {
      Device& device = FindDevice(counts.name);
      device.lastRead = _reads;
      if (IsCounted(device, counts)) {
         figures.push_back(MakeFigures(device, counts));
      }
   }
   std::erase_if(_devices, [this](const auto& entry) { return entry.second.lastRead != _reads; });
   return figures;
}

DiskReader::Device& DiskReader::FindDevice(std::string_view name)
{
   const auto known = _devices.find(name);
   if (known != _devices.end()) {
      return known->second;
   }
   std::string path = _blockPath + GetDeviceDirectory(name);
   return _devices.try_emplace(std::string(name), name, std::move(path)).first->second;
}

bool DiskReader::IsCounted(Device& device, const DiskCounts& counts)
{
   if (!device.isWholeDisk) {
      return false;
   }
   if (device.size && device.size->ReadNumberIfPresent().value_or(0) == 0) {
      device.isStacked.reset();
      return false;
   }
   // A stacked device gets its members before its size: while the size is 0 it is too early to
   // look.
   if (!device.isStacked) {
      device.isStacked = HasEntries(device.path + "/slaves");
   }
   return !*device.isStacked && !(device.isMemory && counts.reads == 0 && counts.writes == 0 &&
                                  counts.discards == 0 && counts.flushes == 0);
}

DiskFigures DiskReader::MakeFigures(Device& device, const DiskCounts& counts)
{
   DiskFigures figures{std::string(counts.name), {}};
   HostCtl::Storage::StorageStatistics& statistics = figures.statistics;
   statistics.blocksRead = counts.sectorsRead;
   statistics.blocksWritten = counts.sectorsWritten;
   statistics.readOperations = counts.reads;
   statistics.writeOperations = counts.writes;
   statistics.commands = SaturatingAdd(SaturatingAdd(counts.reads, counts.writes),
                                       SaturatingAdd(counts.discards, counts.flushes));
   statistics.abortedCommands =
      device.timeouts ? device.timeouts->ReadNumberIfPresent().value_or(0) : 0;
   return figures;
}

} // namespace LinuxHost
