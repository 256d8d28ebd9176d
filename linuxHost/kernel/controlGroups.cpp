#include "linuxHost/kernel/controlGroups.h"

#include "corvax/format.h"
#include "hostctl/lib.h"
#include "linuxHost/kernel/groupParsers.h"
#include "linuxHost/kernel/procParsers.h"
#include "linuxHost/kernel/textParts.h"
#include "linuxHost/kernel/units.h"

#include <filesystem>
#include <set>
#include <system_error>

namespace LinuxHost {

namespace {

namespace fs = std::filesystem;

constexpr uint64_t kGenerationsKept = 2;

bool HasWord(std::string_view list, char separator, std::string_view word)
{
   while (!list.empty()) {
      if (TakePart(list, separator) == word) {
         return true;
      }
   }
   return false;
}

/// Directory of a version 1 controller: named after it alone, or after several controllers that are
/// mounted together, "cpu,cpuacct". Links are resolved, so that one hierarchy has one path.
std::optional<std::string> FindV1(const std::string& top, std::string_view controller)
{
   std::error_code failure;
   for (fs::directory_iterator entry(top, failure), end; !failure && entry != end;
        entry.increment(failure)) {
      if (HasWord(entry->path().filename().string(), ',', controller)) {
         const fs::path directory = fs::canonical(entry->path(), failure);
         return failure ? std::nullopt : std::optional(directory.string());
      }
   }
   return std::nullopt;
}

/// A group that is removed meanwhile ends the list.
void AddChildren(const std::string& directory, std::set<std::string>& names)
{
   std::error_code failure;
   for (fs::directory_iterator entry(directory, failure), end; !failure && entry != end;
        entry.increment(failure)) {
      std::error_code gone;
      if (entry->is_directory(gone)) {
         names.insert(entry->path().filename().string());
      }
   }
}

/// The path to append to a hierarchy's directory.
std::string_view BelowTop(const std::string& path)
{
   return path == "/" ? std::string_view() : std::string_view(path);
}

bool CanRead(const std::string& filePath)
{
   try {
      return KernelFile(filePath).ReadIfPresent().has_value();
   } catch (const HostCtl::Lib::HostCtlException&) {
      return false;
   }
}

uint64_t BytesToKb(const std::optional<uint64_t>& bytes)
{
   return bytes.value_or(0) / kBytesPerKb;
}

} // namespace

ControlGroups::ControlGroups(const std::string& root)
   : _pressurePath(root + "/proc/pressure/cpu"), _hasPressure(CanRead(_pressurePath))
{
   const std::string top = root + "/sys/fs/cgroup";
   for (const std::string& directory : {top, top + "/unified"}) {
      KernelFile file(directory + "/cgroup.controllers");
      std::optional<std::string_view> controllers = file.ReadIfPresent();
      if (controllers) {
         _unified = directory;
         if (HasWord(TakePart(*controllers, '\n'), ' ', "memory")) {
            _unifiedMemory = directory;
         }
         break;
      }
   }
   if (_unified != top) {
      _cpu = FindV1(top, "cpu");
      _accounting = FindV1(top, "cpuacct");
      _memory = FindV1(top, "memory");
   }
}

void ControlGroups::BeginReading()
{
   ++_generation;
   std::erase_if(_files, [this](const auto& entry) {
      return entry.second.lastGeneration + kGenerationsKept < _generation;
   });
}

std::vector<std::string> ControlGroups::ListChildren(const std::string& path) const
{
   std::set<std::string> directories; // controllers mounted together share one
   for (const auto* hierarchy : {&_unified, &_cpu, &_accounting, &_memory}) {
      if (*hierarchy) {
         directories.insert(**hierarchy + std::string(BelowTop(path)));
      }
   }
   std::set<std::string> names;
   for (const std::string& directory : directories) {
      AddChildren(directory, names);
   }
   return {names.begin(), names.end()};
}

std::optional<GroupCpu> ControlGroups::ReadCpu(const std::string& path)
{
   const GroupCpuStat unified = ParseGroupCpuStat(ReadText(_unified, path, "cpu.stat"));
   GroupCpu cpu;
   if (unified.usageUs) {
      cpu.usedUs = *unified.usageUs;
   } else {
      const auto usedNs = ParseNumberFile(ReadText(_accounting, path, "cpuacct.usage"));
      if (!usedNs) {
         return std::nullopt;
      }
      cpu.usedUs = *usedNs / kNanosecondsPerMicrosecond;
   }
   cpu.waitingUs = ParsePressureUs(ReadPressure(path)).value_or(0);
   if (unified.throttledUs) {
      cpu.throttledUs = *unified.throttledUs;
   } else {
      const GroupCpuStat own = ParseGroupCpuStat(ReadText(_cpu, path, "cpu.stat"));
      cpu.throttledUs = own.throttledNs.value_or(0) / kNanosecondsPerMicrosecond;
   }
   return cpu;
}

std::optional<GroupMemory> ControlGroups::ReadMemory(const std::string& path)
{
   const std::string_view text =
      ReadText(_unifiedMemory ? _unifiedMemory : _memory, path, "memory.stat");
   if (text.empty()) {
      return std::nullopt;
   }
   GroupMemoryStat stat =
      _unifiedMemory ? ParseGroupMemoryStat(text) : ParseGroupMemoryStatV1(text);
   if (_unifiedMemory) {
      stat.swapBytes = ParseNumberFile(ReadText(_unifiedMemory, path, "memory.swap.current"));
   }
   GroupMemory memory;
   memory.grantedKb = SaturatingAdd(BytesToKb(stat.anonBytes), BytesToKb(stat.shmemBytes));
   memory.activeKb =
      SaturatingAdd(BytesToKb(stat.activeAnonBytes), BytesToKb(stat.activeFileBytes));
   memory.swappedKb = BytesToKb(stat.swapBytes);
   memory.swapInKb = PagesToKb(stat.swapInPages.value_or(0));
   memory.swapOutKb = PagesToKb(stat.swapOutPages.value_or(0));
   return memory;
}

std::optional<uint64_t> ControlGroups::ReadVcpuSystemUs(const std::string& path,
                                                        uint32_t vcpuNumber)
{
   if (!_unified) {
      return std::nullopt;
   }
   // Where systemd creates the groups, libvirt adds one of its own in between.
   const std::string ending = Corvax::Format("/vcpu%1/cpu.stat", vcpuNumber);
   std::string direct = *_unified + path + ending;
   std::string nested = *_unified + path + "/libvirt" + ending;
   if (WasPresent(nested)) {
      direct.swap(nested); // saves the failing open of the direct one
   }
   std::optional<std::string_view> text = ReadFile(direct);
   if (!text) {
      text = ReadFile(nested);
   }
   return ParseGroupCpuStat(text.value_or("")).systemUs;
}

/// Unset when there is no such file. The text is valid until the same file is read again.
std::optional<std::string_view> ControlGroups::ReadFile(const std::string& filePath)
{
   CachedFile& cached = _files.try_emplace(filePath, filePath).first->second;
   cached.lastGeneration = _generation;
   const std::optional<std::string_view> text = cached.file.ReadIfPresent();
   cached.wasPresent = text.has_value();
   return text;
}

/// Empty when there is no such hierarchy, group or file.
std::string_view ControlGroups::ReadText(const std::optional<std::string>& hierarchy,
                                         const std::string& path, std::string_view fileName)
{
   if (!hierarchy) {
      return {};
   }
   return ReadFile(Corvax::Format("%1%2/%3", *hierarchy, BelowTop(path), fileName)).value_or("");
}

std::string_view ControlGroups::ReadPressure(const std::string& path)
{
   if (!_hasPressure) {
      return {};
   }
   return path == "/" ? ReadFile(_pressurePath).value_or("")
                      : ReadText(_unified, path, "cpu.pressure");
}

bool ControlGroups::WasPresent(const std::string& filePath) const
{
   const auto cached = _files.find(filePath);
   return cached != _files.end() && cached->second.wasPresent;
}

} // namespace LinuxHost
