#include "linuxHost/kernel/qemuProcess.h"

#include "corvax/format.h"
#include "hostctl/lib.h"
#include "linuxHost/kernel/procParsers.h"
#include "linuxHost/kernel/processParsers.h"
#include "linuxHost/kernel/textParts.h"
#include "linuxHost/kernel/units.h"

#include <fcntl.h>

#include <filesystem>
#include <system_error>
#include <vector>

namespace LinuxHost {

namespace {

namespace fs = std::filesystem;

/// libvirt's groups inside that of a virtual machine.
bool IsInnerGroup(std::string_view name)
{
   return name == "emulator" || name == "libvirt" || IsNumbered(name, "vcpu") ||
          IsNumbered(name, "iothread");
}

/// The path up to the virtual machine's own group.
std::string_view GetVmGroup(std::string_view path)
{
   for (size_t slash = path.rfind('/'); slash != 0 && slash != std::string_view::npos;
        slash = path.rfind('/')) {
      if (!IsInnerGroup(path.substr(slash + 1))) {
         break;
      }
      path = path.substr(0, slash);
   }
   return path;
}

} // namespace

std::map<std::string, int32_t> FindQemuProcesses(const std::string& root)
{
   std::map<std::string, int32_t> processes;
   std::error_code failure;
   for (fs::directory_iterator entry(root + "/proc", failure), end; !failure && entry != end;
        entry.increment(failure)) {
      const std::optional<int32_t> pid = ParsePid(entry->path().filename().string());
      if (!pid) {
         continue;
      }
      KernelFile cmdline(entry->path().string() + "/cmdline");
      const auto uuid = ParseUuidArgument(cmdline.ReadIfPresent().value_or(""));
      if (!uuid) {
         continue;
      }
      const auto [known, isNew] = processes.emplace(*uuid, *pid);
      if (!isNew && *pid < known->second) {
         known->second = *pid;
      }
   }
   return processes;
}

QemuProcess::QemuProcess(const std::string& root, int32_t pid)
   : _pid(pid), _directory(::open(Corvax::Format("%1/proc/%2", root, pid).c_str(),
                                  O_PATH | O_DIRECTORY | O_CLOEXEC)),
     _mergingPages(PathOf("ksm_merging_pages")), _ksmStat(PathOf("ksm_stat"))
{
}

std::optional<uint64_t> QemuProcess::ReadStartUs()
{
   KernelFile file(PathOf("stat"));
   const std::optional<uint64_t> ticks = ParseStartTicks(Read(file));
   return ticks ? std::optional(TicksToUs(*ticks)) : std::nullopt;
}

std::string QemuProcess::ReadGroupPath()
{
   KernelFile file(PathOf("cgroup"));
   const std::vector<GroupMembership> memberships = ParseMemberships(Read(file));
   for (const std::string_view controller : {"", "cpu", "memory"}) {
      for (const GroupMembership& one : memberships) {
         if (one.controller == controller && one.path != "/") {
            return std::string(GetVmGroup(one.path));
         }
      }
   }
   return "";
}

MergedMemory QemuProcess::ReadMergedMemory()
{
   return {PagesToKb(ParseNumberFile(Read(_mergingPages)).value_or(0)),
           PagesToKb(ParseZeroPages(Read(_ksmStat)).value_or(0))};
}

/// A path through the directory's descriptor, which stays this process's.
std::string QemuProcess::PathOf(std::string_view fileName) const
{
   return Corvax::Format("/proc/self/fd/%1/%2", _directory.Get(), fileName);
}

/// Empty when the process or the file does not exist.
std::string_view QemuProcess::Read(KernelFile& file) const
{
   try {
      return file.ReadIfPresent().value_or("");
   } catch (const HostCtl::Lib::HostCtlException& failure) {
      // The path in its message shows a descriptor instead of the process.
      throw HostCtl::Lib::HostCtlException(
         Corvax::Format("Process %1: %2", _pid, failure.GetMessage()));
   }
}

} // namespace LinuxHost
