#include "linuxHost/kernel/diskReader.h"

#include "linuxHost/kernel/blockDevices.h"
#include "linuxHost/kernel/directory.h"
#include "linuxHost/kernel/saturate.h"
#include "linuxHost/kernel/textParts.h"

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <utility>

namespace LinuxHost {

namespace {

/// Drivers whose devices exist while they are empty.
constexpr std::string_view kMayBeEmpty[] = {"ram", "nbd", "sr", "fd", "dm-", "md"};

/// Drivers whose traffic ends on another disk, or in memory.
constexpr std::string_view kNeverCounted[] = {"loop", "zram"};

template <size_t Count>
bool IsOfDriver(std::string_view name, const std::string_view (&drivers)[Count])
{
   return std::ranges::any_of(drivers,
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
   const auto names = ListDirectory(path, Entries::ALL);
   return names && !names->empty();
}

} // namespace

DiskReader::Device::Device(std::string_view name, std::string devicePath)
   : path(std::move(devicePath)), isWholeDisk(!IsOfDriver(name, kNeverCounted) && Exists(path)),
     isMemory(IsNumbered(name, "ram"))
{
   if (!isWholeDisk) {
      return;
   }
   if (IsOfDriver(name, kMayBeEmpty)) {
      size.emplace(path + "/size");
   }
   if (const std::string file = path + "/device/iotmo_cnt"; Exists(file)) {
      timeouts.emplace(file);
   }
   if (const std::string file = path + "/diskseq"; Exists(file)) {
      sequence.emplace(file);
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
      if (IsCounted(device, counts) && IsSameDevice(device, counts.name)) {
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

/// Otherwise the kind of the new device is looked up in the next reading.
bool DiskReader::IsSameDevice(Device& device, std::string_view name)
{
   if (!device.sequence) {
      return true;
   }
   const std::optional<uint64_t> number = device.sequence->ReadNumberIfPresent();
   if (!device.sequenceNumber) {
      device.sequenceNumber = number;
   }
   if (number && number == device.sequenceNumber) {
      return true;
   }
   _devices.erase(_devices.find(name));
   return false;
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
