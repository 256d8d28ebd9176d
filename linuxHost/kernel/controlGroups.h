#pragma once

#include "linuxHost/kernel/kernelFile.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace LinuxHost {

/// CPU time of a group with all below it, since its making, microseconds.
struct GroupCpu {
   uint64_t usedUs = 0;
   uint64_t waitingUs = 0;   ///< some task of the group could have run, but had no CPU
   uint64_t throttledUs = 0; ///< held back by a limit
};

/// Memory of a group with all below it. Swap traffic is 0 where the kernel counts none by group.
struct GroupMemory {
   uint64_t grantedKb = 0; ///< anonymous and shared memory
   uint64_t activeKb = 0;  ///< recently touched, files included
   uint64_t swappedKb = 0;
   uint64_t swapInKb = 0;
   uint64_t swapOutKb = 0;
};

/// The host's control groups, whichever way they are mounted: version 2 alone, version 1 alone, or
/// both side by side, where figures come from version 2 as far as it has them. A group's path
/// starts at the top of its hierarchy, "/machine/gold.partition"; "/" is the whole host.
///
/// Cost: a file is opened at its first reading and kept open; after that its reading is two preads,
/// one for the text and one that finds the end. Files of a group: for the CPU cpu.stat and
/// cpu.pressure (version 2), cpuacct.usage and cpu.stat (version 1), or cpu.stat twice and
/// cpu.pressure (both); for the memory memory.stat and memory.swap.current (version 2) or
/// memory.stat (version 1); one for each virtual CPU. A file that is not there costs one failing
/// open each time. So the process holds up to four descriptors for a group, and one for each
/// virtual CPU.
/// Errors: HostCtl::Lib::HostCtlException when a file is there but cannot be read.
/// Locking: none; one thread at a time.
class ControlGroups {
public:
   /// `root` goes before the path of every file. What is mounted is looked at once, here.
   explicit ControlGroups(const std::string& root);

   /// Closes the files that were not read in the last two rounds, and starts another.
   void BeginReading();

   /// Names of the groups right below, sorted, of version 2 and of version 1's cpu, cpuacct and
   /// memory together: each may have groups that the others lack. Empty when the group is gone.
   std::vector<std::string> ListChildren(const std::string& path) const;

   /// Nothing when the group is gone.
   std::optional<GroupCpu> ReadCpu(const std::string& path);

   /// Nothing when the group is gone, or its memory is not counted.
   std::optional<GroupMemory> ReadMemory(const std::string& path);

   /// Time in the kernel of a virtual CPU, whose group is a child of its virtual machine's. Nothing
   /// when there is none, as with version 1 alone.
   std::optional<uint64_t> ReadVcpuSystemUs(const std::string& path, uint32_t vcpuNumber);

private:
   struct CachedFile {
      explicit CachedFile(std::string path) : file(std::move(path)) {}

      KernelFile file;
      uint64_t lastRound = 0;
      bool wasPresent = false;
   };

   std::optional<std::string_view> ReadFile(const std::string& filePath);
   std::string_view ReadText(const std::optional<std::string>& hierarchy, const std::string& path,
                             std::string_view fileName);
   std::string_view ReadPressure(const std::string& path);
   bool WasPresent(const std::string& filePath) const;

   const std::string _pressurePath; // of the whole host
   // Where the kernel was started without pressure figures there is no such file; the groups' own
   // are there, but fail.
   const bool _hasPressure;
   const uint64_t _pageBytes;
   // Directories of the hierarchies that there are.
   std::optional<std::string> _unified;
   std::optional<std::string> _unifiedMemory; // the same, when it counts memory
   std::optional<std::string> _cpu;
   std::optional<std::string> _accounting;
   std::optional<std::string> _memory;
   std::map<std::string, CachedFile> _files; // by path
   uint64_t _round = 0;
};

} // namespace LinuxHost
