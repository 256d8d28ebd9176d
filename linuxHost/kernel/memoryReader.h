#pragma once

#include "hostctl/resource.h"
#include "linuxHost/kernel/kernelFile.h"

#include <cstdint>
#include <string>

namespace LinuxHost {

/// Memory of the host.
///
/// Errors: HostCtl::Lib::HostCtlException when /proc/meminfo cannot be read or lacks a field that
/// every kernel writes. Without swapping or page merging their figures are 0.
/// Locking: none; one thread at a time.
class MemoryReader {
public:
   /// `root` goes before the path of every file.
   explicit MemoryReader(const std::string& root);

   /// Reserved memory is that of the huge page pools; CPU capacity is never reserved here.
   HostCtl::Resource::HostCapacity ReadCapacity();

   /// State, balloon and overhead are 0: Linux has no source for them.
   HostCtl::Resource::HostMemoryStats ReadMemoryStats();

   uint64_t ReadPhysicalBytes();

private:
   void AddSwapTraffic(HostCtl::Resource::HostMemoryStats& stats);
   void AddMergedPages(HostCtl::Resource::HostMemoryStats& stats);
   KernelFile _meminfo;
   KernelFile _vmstat;
   KernelFile _pagesShared;  // pages that others were merged into
   KernelFile _pagesSharing; // pages saved by merging
   KernelFile _zeroPages;
};

} // namespace LinuxHost
