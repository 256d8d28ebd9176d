#include "linuxHost/kernel/controlGroups.h"

#include "corvax/format.h"
#include "hostctl/lib.h"
#include "linuxHost/kernel/directory.h"
#include "linuxHost/kernel/groupParsers.h"
#include "linuxHost/kernel/procParsers.h"
#include "linuxHost/kernel/textParts.h"
#include "linuxHost/kernel/units.h"
#include "linuxHost/kernel/vmGroups.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
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
   std::set<std::string> names;
   bool isPresent = false;
   const std::set<std::string> directories = DirectoriesOf(path);
   for (const std::string& directory : directories) {
      if (const auto children = ListDirectory(directory, Entries::DIRECTORIES)) {
         isPresent = true;
         names.insert(children->begin(), children->end());
      }
   }
   if (!isPresent && path == "/" && !directories.empty()) {
      FailReading(*directories.begin(), ENOENT);
   }
   return {names.begin(), names.end()};
}

bool ControlGroups::IsPresent(const std::string& path) const
{
   return std::ranges::any_of(DirectoriesOf(path), LinuxHost::IsPresent);
}

/// Of the hierarchies; controllers that are mounted together share one.
std::set<std::string> ControlGroups::DirectoriesOf(const std::string& path) const
{
   std::set<std::string> directories;
   for (const auto* hierarchy : {&_unified, &_cpu, &_accounting, &_memory}) {
      if (*hierarchy) {
         directories.insert(**hierarchy + std::string(BelowTop(path)));
      }
   }
   return directories;
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
   cpu.throttledUs = unified.throttledUs ? *unified.throttledUs : ReadThrottledV1(path).value_or(0);
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

std::vector<std::string> ControlGroups::FindLimitedVmGroups(const std::string& vmPath) const
{
   std::vector<std::string> limited;
   // With systemd all others are inside the one that is named after libvirt.
   for (const std::string& parent : {vmPath, vmPath + "/libvirt"}) {
      for (const std::string& name : ListChildren(parent)) {
         const std::string path = Corvax::Format("%1/%2", parent, name);
         if (IsInnerVmGroup(name) && HasLimit(path)) {
            limited.push_back(path);
         }
      }
   }
   return limited;
}

bool ControlGroups::HasLimit(const std::string& path) const
{
   // Without a limit the one has a word and the other a negative number.
   const auto isNumber = [](const std::string& filePath) {
      KernelFile file(filePath);
      std::string_view text = file.ReadIfPresent().value_or("");
      std::string_view line = TakePart(text, '\n');
      return ParseNumber(TakeWord(line)).has_value();
   };
   return (_unified && isNumber(*_unified + path + "/cpu.max")) ||
          (_cpu && isNumber(*_cpu + path + "/cpu.cfs_quota_us"));
}

std::optional<uint64_t> ControlGroups::ReadThrottledUs(const std::string& path)
{
   const auto throttledUs = ParseGroupCpuStat(ReadText(_unified, path, "cpu.stat")).throttledUs;
   return throttledUs ? throttledUs : ReadThrottledV1(path);
}

std::optional<uint64_t> ControlGroups::ReadThrottledV1(const std::string& path)
{
   const auto throttledNs = ParseGroupCpuStat(ReadText(_cpu, path, "cpu.stat")).throttledNs;
   return throttledNs ? std::optional(*throttledNs / kNanosecondsPerMicrosecond) : std::nullopt;
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
