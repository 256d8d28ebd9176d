#include "linuxHost/kernel/qemuProcess.h"

#include "corvax/format.h"
#include "hostctl/lib.h"
#include "linuxHost/kernel/groupParsers.h"
#include "linuxHost/kernel/procParsers.h"
#include "linuxHost/kernel/saturate.h"

#include <fcntl.h>
#include <unistd.h>

#include <charconv>
#include <filesystem>
#include <system_error>
#include <vector>

namespace LinuxHost {

namespace {

namespace fs = std::filesystem;

std::optional<int32_t> ParsePid(std::string_view name)
{
   int32_t pid = 0;
   const char* const end = name.data() + name.size();
   const auto result = std::from_chars(name.data(), end, pid);
   const bool isPid = result.ec == std::errc() && result.ptr == end && pid > 0;
   return isPid ? std::optional(pid) : std::nullopt;
}

uint64_t PagesToKb(const std::optional<uint64_t>& pages)
{
   return Scale(pages.value_or(0), static_cast<uint64_t>(sysconf(_SC_PAGESIZE)), 1024);
}

bool IsNumbered(std::string_view name, std::string_view stem)
{
   return name.size() > stem.size() && name.starts_with(stem) &&
          name.find_first_not_of("0123456789", stem.size()) == std::string_view::npos;
}

/// libvirt's groups inside that of a virtual machine.
bool IsInnerGroup(std::string_view name)
{
   return name == "emulator" || name == "libvirt" || IsNumbered(name, "vcpu") ||
          IsNumbered(name, "iothread");
}

/// Without what is below the virtual machine's own group.
std::string_view VmGroup(std::string_view path)
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
   : _pid(pid), _directory(open(Corvax::Format("%1/proc/%2", root, pid).c_str(),
                                O_PATH | O_DIRECTORY | O_CLOEXEC)),
     _mergingPages(PathOf("ksm_merging_pages")), _ksmStat(PathOf("ksm_stat"))
{
}

QemuProcess::~QemuProcess()
{
   if (_directory >= 0) {
      close(_directory); // nothing was written: its result says nothing of use
   }
}

std::optional<uint64_t> QemuProcess::ReadStartUs()
{
   constexpr uint64_t kMicrosecondsPerSecond = 1'000'000;
   KernelFile file(PathOf("stat"));
   const std::optional<uint64_t> ticks = ParseStartTicks(Read(file));
   if (!ticks) {
      return std::nullopt;
   }
   return Scale(*ticks, kMicrosecondsPerSecond, static_cast<uint64_t>(sysconf(_SC_CLK_TCK)));
}

std::string QemuProcess::ReadGroupPath()
{
   KernelFile file(PathOf("cgroup"));
   const std::vector<GroupMembership> memberships = ParseMemberships(Read(file));
   for (const std::string_view controller : {"", "cpu", "memory"}) {
      for (const GroupMembership& one : memberships) {
         if (one.controller == controller && one.path != "/") {
            return std::string(VmGroup(one.path));
         }
      }
   }
   return "";
}

MergedMemory QemuProcess::ReadMergedMemory()
{
   return {PagesToKb(ParseNumberFile(Read(_mergingPages))),
           PagesToKb(ParseZeroPages(Read(_ksmStat)))};
}

/// A path through the descriptor of the directory, which stays that of this process.
std::string QemuProcess::PathOf(std::string_view fileName) const
{
   return Corvax::Format("/proc/self/fd/%1/%2", _directory, fileName);
}

/// Empty when the process or the file is not there.
std::string_view QemuProcess::Read(KernelFile& file) const
{
   try {
      return file.ReadIfPresent().value_or("");
   } catch (const HostCtl::Lib::HostCtlException& failure) {
      // The path in it names a descriptor only.
      throw HostCtl::Lib::HostCtlException(
         Corvax::Format("Process %1: %2", _pid, failure.GetMessage()));
   }
}

} // namespace LinuxHost
