#pragma once

#include "hostctl/resource.h"
#include "linuxHost/kernel/kernelFile.h"

#include <cstdint>
#include <string>

namespace LinuxHost {

/// Memory of the host.
///
/// Errors: HostCtl::Lib::HostCtlException when /proc/meminfo cannot be read or lacks what every
/// kernel writes; a kernel without swapping or page merging gives 0 for their figures.
/// Locking: none; one thread at a time.
class MemoryReader {
public:
   /// `root` goes before the path of every file.
   explicit MemoryReader(const std::string& root);

   /// Reserved memory is what is set aside for huge pages; CPU capacity is never reserved here.
   HostCtl::Resource::HostCapacity ReadCapacity();

   /// State, balloon and overhead are 0: the host itself has no source for them.
   HostCtl::Resource::HostMemoryStats ReadMemoryStats();

   uint64_t ReadPhysicalBytes();

private:
   void AddSwapTraffic(HostCtl::Resource::HostMemoryStats& stats);
   void AddMergedPages(HostCtl::Resource::HostMemoryStats& stats);
   uint64_t PagesToKb(uint64_t pages) const;
   uint64_t ReadPagesKb(KernelFile& file);

   const uint64_t _pageBytes;
   KernelFile _meminfo;
   KernelFile _vmstat;
   KernelFile _pagesShared;  // pages kept in place of those that were merged into them
   KernelFile _pagesSharing; // pages saved by that
   KernelFile _zeroPages;
};

} // namespace LinuxHost
