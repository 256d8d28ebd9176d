#pragma once

#include "linuxHost/kernel/kernelFile.h"

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace LinuxHost {

/// CPU time of a group and those below it, since its creation.
struct GroupCpu {
   uint64_t usedUs = 0;
   uint64_t waitingUs = 0;   ///< at least one task of the group was ready, but had no CPU
   uint64_t throttledUs = 0; ///< stopped by the group's own limit
};

/// Memory of a group and those below it. Swap traffic is 0 where the kernel does not count it by
/// group.
struct GroupMemory {
   uint64_t grantedKb = 0; ///< anonymous and shared memory
   uint64_t activeKb = 0;  ///< recently used, including file pages
   uint64_t swappedKb = 0;
   uint64_t swapInKb = 0;
   uint64_t swapOutKb = 0;
};

/// The host's control groups, however they are mounted: version 2 alone, version 1 alone, or both,
/// where figures come from version 2 if it has them. A group's path starts at the top of its
/// hierarchy, "/machine/gold.partition"; "/" is the whole host.
///
/// Cost: a file is opened when it is first read and kept open; after that it costs a pread.
/// Files of a group: for the CPU cpu.stat and cpu.pressure
/// (version 2), cpuacct.usage and cpu.stat (version 1), or cpu.stat twice and cpu.pressure (both);
/// for the memory memory.stat and memory.swap.current (version 2) or memory.stat (version 1); one
/// for each virtual CPU. A file that does not exist costs one failing open each time. So up to four
/// files are open for a group, and one for each virtual CPU, as far as the process's share allows.
/// Errors: HostCtl::Lib::HostCtlException when a file exists but cannot be read. Locking: none; one
/// thread at a time.
class ControlGroups {
public:
   /// `root` goes before the path of every file. Finds out what is mounted, once.
   explicit ControlGroups(const std::string& root);

   /// To be called before the files are read again. Closes those that were not read since the last
   /// call but one.
   void BeginReading();

   /// Names of the groups directly below, sorted, of version 2 and of version 1's cpu, cpuacct and
   /// memory together: each may have groups that the others lack. Empty when the group is gone.
   /// HostCtlException when one of its directories exists but cannot be listed, and when "/" has
   /// none, because the hierarchies are mounted no more.
   std::vector<std::string> ListChildren(const std::string& path) const;

   /// Whether a hierarchy has the group. HostCtlException when that cannot be found out.
   bool IsPresent(const std::string& path) const;

   /// Unset when the group is gone.
   std::optional<GroupCpu> ReadCpu(const std::string& path);

   /// Unset when the group is gone, or its memory is not counted.
   std::optional<GroupMemory> ReadMemory(const std::string& path);

   /// Time in the kernel of a virtual CPU, whose group is a child of its virtual machine's. Unset
   /// when there is none, as with version 1 alone.
   std::optional<uint64_t> ReadVcpuSystemUs(const std::string& path, uint32_t vcpuNumber);

   /// Paths of libvirt's groups inside a virtual machine's that have a limit of CPU time.
   std::vector<std::string> FindLimitedVmGroups(const std::string& vmPath) const;

   /// Time in which the group's own limit stopped it, without the groups below. Unset when it is
   /// gone, or has no such figure.
   std::optional<uint64_t> ReadThrottledUs(const std::string& path);

private:
   struct CachedFile {
      explicit CachedFile(std::string path) : file(std::move(path)) {}

      KernelFile file;
      uint64_t lastGeneration = 0; // the one it was last read in
      bool wasPresent = false;
   };

   std::optional<std::string_view> ReadFile(const std::string& filePath);
   std::string_view ReadText(const std::optional<std::string>& hierarchy, const std::string& path,
                             std::string_view fileName);
   std::string_view ReadPressure(const std::string& path);
   bool WasPresent(const std::string& filePath) const;
   bool HasLimit(const std::string& path) const;
   std::optional<uint64_t> ReadThrottledV1(const std::string& path);
   std::set<std::string> DirectoriesOf(const std::string& path) const;

   const std::string _pressurePath; // of the whole host
   // False where the kernel was started without pressure figures: the whole host has no such file
   // then, and those of the groups cannot be read.
   const bool _hasPressure;
   // Directories of the hierarchies; unset: not mounted.
   std::optional<std::string> _unified;
   std::optional<std::string> _unifiedMemory; // the same one, if it counts memory
   std::optional<std::string> _cpu;
   std::optional<std::string> _accounting;
   std::optional<std::string> _memory;
   std::map<std::string, CachedFile> _files; // by path
   uint64_t _generation = 0;                 // number of calls of BeginReading
};

} // namespace LinuxHost
