#include "linuxHost/kernel/qemuProcess.h"

#include "corvax/format.h"
#include "hostctl/lib.h"
#include "linuxHost/kernel/directory.h"
#include "linuxHost/kernel/procParsers.h"
#include "linuxHost/kernel/processParsers.h"
#include "linuxHost/kernel/units.h"
#include "linuxHost/kernel/vmGroups.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <utility>
#include <vector>

namespace LinuxHost {

namespace {

/// The group of one of a process's hierarchies; empty for none.
std::string_view FindGroup(const std::vector<GroupMembership>& memberships,
                           bool (*isWanted)(std::string_view))
{
   for (const std::string_view controller : {"", "cpu", "memory"}) {
      for (const GroupMembership& one : memberships) {
         if (one.controller == controller && isWanted(GetVmGroup(one.path))) {
            return GetVmGroup(one.path);
         }
      }
   }
   return {};
}

/// The smaller, the surer is it that the process runs a virtual machine.
enum class Rank { IN_VM_GROUP, NAMED_SO, OTHER };

Rank FindRank(const std::string& processPath)
{
   KernelFile cgroup(processPath + "/cgroup");
   const auto memberships = ParseMemberships(cgroup.ReadIfPermitted().value_or(""));
   if (!FindGroup(memberships, IsVmGroup).empty()) {
      return Rank::IN_VM_GROUP;
   }
   KernelFile comm(processPath + "/comm");
   const std::string_view name = comm.ReadIfPermitted().value_or("");
   return name.starts_with("qemu") || name.starts_with("kvm") ? Rank::NAMED_SO : Rank::OTHER;
}

std::string PathOf(int directory, std::string_view fileName)
{
   return Corvax::Format("/proc/self/fd/%1/%2", directory, fileName);
}

} // namespace

std::map<std::string, int32_t> FindQemuProcesses(const std::string& root)
{
   std::map<std::string, std::pair<Rank, int32_t>> best;
   const std::string proc = root + "/proc";
   const auto names = ListDirectory(proc, Entries::DIRECTORIES);
   for (const std::string& name : names.value_or(std::vector<std::string>())) {
      const std::optional<int32_t> pid = ParsePid(name);
      if (!pid) {
         continue;
      }
      const std::string path = Corvax::Format("%1/%2", proc, name);
      KernelFile cmdline(path + "/cmdline");
      const auto uuid = ParseUuidArgument(cmdline.ReadIfPermitted().value_or(""));
      if (!uuid) {
         continue;
      }
      if (const Rank rank = FindRank(path); rank != Rank::OTHER) {
         const auto [known, isNew] = best.try_emplace(*uuid, rank, *pid);
         known->second = std::min(known->second, std::pair(rank, *pid));
      }
   }
   std::map<std::string, int32_t> processes;
   for (const auto& [uuid, process] : best) {
      processes[uuid] = process.second;
   }
   return processes;
}

/// The paths in messages show a descriptor instead of the process.
template <class Operation>
auto QemuProcess::Named(const Operation& operation) const
{
   try {
      return operation();
   } catch (const HostCtl::Lib::HostCtlException& failure) {
      throw HostCtl::Lib::HostCtlException(
         Corvax::Format("Process %1: %2", _pid, failure.GetMessage()));
   }
}

QemuProcess::QemuProcess(const std::string& root, int32_t pid)
   : _pid(pid), _path(Corvax::Format("%1/proc/%2", root, pid))
{
   Corvax::Descriptor directory(::open(_path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
   _isGone = !directory && errno == ENOENT;
   _directory.Keep(std::move(directory));
   if (_directory) {
      return;
   }
   try {
      OpenSame();
   } catch (const HostCtl::Lib::HostCtlException&) {
      _startTicks.reset(); // the first reading that succeeds identifies the process
   }
}

std::optional<uint64_t> QemuProcess::ReadStartUs()
{
   const std::optional<uint64_t> ticks = ParseStartTicks(ReadOnce("stat"));
   return ticks ? std::optional(TicksToUs(*ticks)) : std::nullopt;
}

std::string QemuProcess::ReadGroupPath()
{
   const std::string text = ReadOnce("cgroup");
   const std::vector<GroupMembership> memberships = ParseMemberships(text);
   std::string_view group = FindGroup(memberships, IsVmGroup);
   if (group.empty()) {
      group = FindGroup(memberships, [](std::string_view path) { return path != "/"; });
   }
   return std::string(group);
}

MergedMemory QemuProcess::ReadMergedMemory()
{
   return {PagesToKb(ParseNumberFile(ReadKept("ksm_merging_pages")).value_or(0)),
           PagesToKb(ParseZeroPages(ReadKept("ksm_stat")).value_or(0))};
}

std::optional<uint64_t> QemuProcess::ReadHugeKb()
{
   return ParseHugeKb(ReadKept("status"));
}

/// Empty when the process or the file does not exist or may not be read. Valid until the next call.
/// The file stays open if the directory does.
std::string_view QemuProcess::ReadKept(std::string_view fileName)
{
   if (!_directory) {
      _text = ReadOnce(fileName);
      return _text;
   }
   auto file = _files.find(fileName);
   if (file == _files.end()) {
      file = _files.try_emplace(std::string(fileName), PathOf(_directory.Get(), fileName)).first;
   }
   return Named([&] { return file->second.ReadIfPermitted().value_or(""); });
}

std::string QemuProcess::ReadOnce(std::string_view fileName)
{
   const auto opened = _directory ? Corvax::BriefDescriptor() : OpenSame();
   if (!_directory && !opened) {
      return {};
   }
   KernelFile file(PathOf(_directory ? _directory.Get() : opened.Get(), fileName));
   return Named([&] { return std::string(file.ReadIfPermitted().value_or("")); });
}

std::optional<uint64_t> QemuProcess::ReadStartTicks(int directory) const
{
   KernelFile stat(PathOf(directory, "stat"));
   return Named([&] { return ParseStartTicks(stat.ReadIfPermitted().value_or("")); });
}

/// The directory of the process; none when it has ended.
Corvax::BriefDescriptor QemuProcess::OpenSame()
{
   if (_isGone) {
      return Corvax::BriefDescriptor();
   }
   Corvax::BriefDescriptor directory = Corvax::OpenBriefly(_path.c_str(), O_PATH | O_DIRECTORY);
   if (!directory && errno != ENOENT) {
      FailReading(_path, errno);
   }
   const auto ticks = directory ? ReadStartTicks(directory.Get()) : std::nullopt;
   if (!_startTicks) {
      _startTicks = ticks; // there was no descriptor until now
   }
   _isGone = !directory || ticks != _startTicks;
   return _isGone ? Corvax::BriefDescriptor() : std::move(directory);
}

} // namespace LinuxHost
