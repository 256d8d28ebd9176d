#pragma once

#include "linuxHost/kernel/kernelFile.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace LinuxHost {

/// The processes that run virtual machines: UUID in lower case -> process id. `root` goes before
/// the path of every file. Where two processes have the same UUID the one with the smaller id is
/// taken. The argument is all that tells them: any process may claim a UUID. Costs an open, two or
/// more preads and a close for every process of the host.
/// Errors: HostCtl::Lib::HostCtlException when a command line cannot be read.
std::map<std::string, int32_t> FindQemuProcesses(const std::string& root);

/// Memory of a process whose content the kernel found elsewhere too.
struct MergedMemory {
   uint64_t sharedKb = 0; ///< merged with other pages
   uint64_t zeroKb = 0;   ///< merged into the zero page
};

/// One process, from when it is constructed until its end: its directory is held open, so that
/// another process that gets its id later is not taken for it.
///
/// Errors: HostCtl::Lib::HostCtlException when a file is there but cannot be read. A process that
/// has ended gives nothing.
/// Locking: none; one thread at a time.
class QemuProcess {
public:
   /// `root` goes before the path of every file.
   QemuProcess(const std::string& root, int32_t pid);
   ~QemuProcess();
   QemuProcess(const QemuProcess&) = delete;
   QemuProcess& operator=(const QemuProcess&) = delete;

   /// Since the host's start, in steps of a clock tick.
   std::optional<uint64_t> ReadStartUs();

   /// Path of the virtual machine's control group: version 2's, or version 1's of the cpu or memory
   /// controller, whichever is the first that is not the top. Empty when the process is in none. Of
   /// a process that the hypervisor put into no group of its own it is that of who started it.
   std::string ReadGroupPath();

   /// 0 where the kernel does not count it.
   MergedMemory ReadMergedMemory();

private:
   std::string PathOf(std::string_view fileName) const;
   std::string_view Read(KernelFile& file) const;

   const int32_t _pid;
   const int _directory; // -1: there is no such process
   KernelFile _mergingPages;
   KernelFile _ksmStat;
};

} // namespace LinuxHost
