#pragma once

#include "corvax/descriptor.h"
#include "linuxHost/kernel/kernelFile.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace LinuxHost {

/// The processes that run virtual machines: UUID in lower case -> process id. They are recognised
/// by their argument "-uuid" alone, which any process may have. Where two have the same UUID, the
/// one with the smaller id wins. `root` goes before the path of every file.
///
/// Cost: an open, two or more preads and a close for every process of the host.
/// Errors: HostCtl::Lib::HostCtlException when a command line cannot be read.
std::map<std::string, int32_t> FindQemuProcesses(const std::string& root);

/// Memory of a process that the kernel has merged with identical pages.
struct MergedMemory {
   uint64_t sharedKb = 0; ///< merged with other pages
   uint64_t zeroKb = 0;   ///< merged into the zero page
};

/// The process that has the id at construction, and no other: its directory is kept open, so that a
/// later process with the same id is not mistaken for it.
///
/// Errors: HostCtl::Lib::HostCtlException when a file exists but cannot be read. A process that has
/// ended has no figures.
/// Locking: none; one thread at a time.
class QemuProcess {
public:
   /// `root` goes before the path of every file.
   QemuProcess(const std::string& root, int32_t pid);

   /// Time from the host's start to the process's, in steps of a clock tick.
   std::optional<uint64_t> ReadStartUs();

   /// Path of the virtual machine's control group: the first that is not the top one of version 2's
   /// and those of version 1's cpu and memory controllers. Empty when the process is in none. If
   /// the hypervisor has not created a group for it, this is the group of the process that started
   /// it.
   std::string ReadGroupPath();

   /// 0 where the kernel does not count it.
   MergedMemory ReadMergedMemory();

private:
   std::string PathOf(std::string_view fileName) const;
   std::string_view Read(KernelFile& file) const;

   const int32_t _pid;
   const Corvax::Descriptor _directory; // none: there is no such process
   KernelFile _mergingPages;
   KernelFile _ksmStat;
};

} // namespace LinuxHost
