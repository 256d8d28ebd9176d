#include "linuxHost/kernel/diskReader.h"

#include "linuxHost/kernel/saturate.h"

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <utility>

namespace LinuxHost {

namespace {

/// Devices that exist without holding anything, or before they do.
constexpr std::string_view kMayBeEmpty[] = {"loop", "ram", "zram", "nbd", "sr", "fd", "dm-", "md"};

/// Whether the name is the driver's with a number.
bool IsNumbered(std::string_view name, std::string_view driver)
{
   return name.starts_with(driver) && name.size() > driver.size() &&
          name.find_first_not_of("0123456789", driver.size()) == std::string_view::npos;
}

bool MayBeEmpty(std::string_view name)
{
   return std::any_of(std::begin(kMayBeEmpty), std::end(kMayBeEmpty),
                      [name](std::string_view driver) { return IsNumbered(name, driver); });
}

// What cannot be looked at counts as not there, as the devices come and go at any time.
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

uint64_t ReadNumber(KernelFile& file)
{
   return ParseNumberFile(file.ReadIfPresent().value_or("")).value_or(0);
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
   ++_reading;
   std::vector<DiskFigures> figures;
   for (const DiskCounts& counts : ParseDiskStats(_diskstats.Read())) {
      Device& device = FindDevice(counts.name);
      device.lastReading = _reading;
      if (IsCounted(device, counts)) {
         figures.push_back(MakeFigures(device, counts));
      }
   }
   std::erase_if(_devices,
                 [this](const auto& entry) { return entry.second.lastReading != _reading; });
   return figures;
}

DiskReader::Device& DiskReader::FindDevice(std::string_view name)
{
   const auto known = _devices.find(name);
   if (known != _devices.end()) {
      return known->second;
   }
   std::string fileName(name);
   std::replace(fileName.begin(), fileName.end(), '/', '!'); // as the kernel spells it there
   return _devices.try_emplace(std::string(name), name, _blockPath + fileName).first->second;
}

bool DiskReader::IsCounted(Device& device, const DiskCounts& counts)
{
   if (!device.isWholeDisk) {
      return false;
   }
   if (device.size && ReadNumber(*device.size) == 0) {
      device.isStacked.reset();
      return false;
   }
   // A stacked device gets its members before its size: without a size it is too early to ask.
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
   statistics.abortedCommands = device.timeouts ? ReadNumber(*device.timeouts) : 0;
   return figures;
}

} // namespace LinuxHost
