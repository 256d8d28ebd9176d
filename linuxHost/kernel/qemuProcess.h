#pragma once

#include "corvax/descriptor.h"
#include "linuxHost/kernel/kernelFile.h"

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace LinuxHost {

/// The processes that run virtual machines: UUID in lower case -> process id. Any process may have
/// the argument "-uuid", so the one in a virtual machine's control group wins. Where none is in
/// such a group, as without control groups, it is one whose program is named "qemu..." or "kvm...".
/// Of several, the one with the smallest id. `root` goes before the path of every file.
///
/// Cost: an open, two or more preads and a close for every process of the host; two more files of
/// those with that argument. A process that this user may not look at is skipped.
/// Errors: HostCtl::Lib::HostCtlException when the processes cannot be listed or read.
std::map<std::string, int32_t> FindQemuProcesses(const std::string& root);

/// Memory of a process that the kernel has merged with identical pages.
struct MergedMemory {
   uint64_t sharedKb = 0; ///< merged with other pages
   uint64_t zeroKb = 0;   ///< merged into the zero page
};

/// The process that has the id at construction, and no other: its directory is kept open, so that a
/// later process with the same id is not mistaken for it. Without a descriptor for that, its start
/// is compared at each reading.
///
/// Errors: HostCtl::Lib::HostCtlException when a file exists but cannot be read, unless this user
/// may not. A process that has ended has no figures.
/// Locking: none; one thread at a time.
class QemuProcess {
public:
   /// `root` goes before the path of every file.
   QemuProcess(const std::string& root, int32_t pid);

   /// Time from the host's start to the process's, in steps of a clock tick.
   std::optional<uint64_t> ReadStartUs();

   /// Path of the virtual machine's control group: the first that is libvirt's of version 2's and
   /// those of version 1's cpu and memory controllers, else the first that is not the top one.
   /// Empty when the process is in none. If the hypervisor has not created a group for it, this is
   /// the group of the process that started it; IsVmGroup tells.
   std::string ReadGroupPath();

   /// 0 where the kernel does not count it, and where this user may not read it.
   MergedMemory ReadMergedMemory();

   /// Memory in huge pages, in KB. Not in the resident memory that the kernel reports. The kernel
   /// formats 60 lines for it: for a virtual machine that is known to have huge pages.
   std::optional<uint64_t> ReadHugeKb();

private:
   std::string_view ReadKept(std::string_view fileName);
   std::string ReadOnce(std::string_view fileName);
   template <class Operation>
   auto Named(const Operation& operation) const;
   std::optional<uint64_t> ReadStartTicks(int directory) const;
   Corvax::BriefDescriptor OpenSame();

   const int32_t _pid;
   const std::string _path;
   KeptDescriptor _directory;           // none: there is no such process, or no descriptor
   bool _isGone = false;                // there was no such process
   std::optional<uint64_t> _startTicks; // identifies the process without a descriptor
   std::map<std::string, KernelFile, std::less<>> _files;
   std::string _text; // of the last file without a descriptor
};

} // namespace LinuxHost
