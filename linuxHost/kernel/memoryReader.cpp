#include "linuxHost/kernel/memoryReader.h"

#include "linuxHost/kernel/procParsers.h"
#include "linuxHost/kernel/units.h"

#include <algorithm>
#include <limits>

namespace LinuxHost {

namespace {

/// Memory of the kernel itself. VmallocUsed includes the kernel's stacks where the kernel fills
/// that field in; where it does not, the field is 0.
uint64_t SystemUsageKb(const MemInfo& info)
{
   uint64_t usageKb = std::max(info.kernelStack.value_or(0), info.vmallocUsed.value_or(0));
   for (const auto& part : {info.slab, info.pageTables, info.secPageTables, info.percpu}) {
      usageKb = SaturatingAdd(usageKb, part.value_or(0));
   }
   return usageKb;
}

/// 0 when the kernel does not have the file.
uint64_t ReadPagesKb(KernelFile& file)
{
   return PagesToKb(file.ReadNumberIfPresent().value_or(0));
}

} // namespace

MemoryReader::MemoryReader(const std::string& root)
   : _meminfo(root + "/proc/meminfo"), _vmstat(root + "/proc/vmstat"),
     _pagesShared(root + "/sys/kernel/mm/ksm/pages_shared"),
     _pagesSharing(root + "/sys/kernel/mm/ksm/pages_sharing"),
     _zeroPages(root + "/sys/kernel/mm/ksm/ksm_zero_pages")
{
}

HostCtl::Resource::HostCapacity MemoryReader::ReadCapacity()
{
   const uint64_t hugeMb = ParseMemInfo(_meminfo.Read()).hugetlb.value_or(0) / kKbPerMb;
   HostCtl::Resource::HostCapacity capacity;
   capacity.reservedMemoryMb =
      static_cast<uint32_t>(std::min<uint64_t>(hugeMb, std::numeric_limits<uint32_t>::max()));
   return capacity;
}

HostCtl::Resource::HostMemoryStats MemoryReader::ReadMemoryStats()
{
   const MemInfo info = ParseMemInfo(_meminfo.Read());
   if (!info.memFree) {
      _meminfo.FailLacking("MemFree");
   }
   HostCtl::Resource::HostMemoryStats stats;
   stats.freeKb = *info.memFree;
   stats.grantedKb = SaturatingAdd(info.anonPages.value_or(0), info.shmem.value_or(0));
   stats.activeKb = info.active.value_or(0);
   stats.unreservedKb = info.memAvailable.value_or(0);
   stats.swapUsedKb = SaturatingSubtract(info.swapTotal.value_or(0), info.swapFree.value_or(0));
   stats.heapKb = info.slab.value_or(0);
   stats.heapFreeKb = info.sReclaimable.value_or(0);
   stats.sysUsageKb = SystemUsageKb(info);
   AddSwapTraffic(stats);
   AddMergedPages(stats);
   return stats;
}

uint64_t MemoryReader::ReadPhysicalBytes()
{
   const uint64_t totalKb = ParseMemInfo(_meminfo.Read()).memTotal.value_or(0);
   if (totalKb == 0) {
      _meminfo.FailLacking("MemTotal");
   }
   return SaturatingMultiply(totalKb, kBytesPerKb);
}

void MemoryReader::AddSwapTraffic(HostCtl::Resource::HostMemoryStats& stats)
{
   const SwapTraffic traffic = ParseSwapTraffic(_vmstat.ReadIfPresent().value_or(""));
   stats.swapInKb = PagesToKb(traffic.inPages.value_or(0));
   stats.swapOutKb = PagesToKb(traffic.outPages.value_or(0));
}

void MemoryReader::AddMergedPages(HostCtl::Resource::HostMemoryStats& stats)
{
   stats.sharedCommonKb = ReadPagesKb(_pagesShared);
   stats.sharedKb = SaturatingAdd(stats.sharedCommonKb, ReadPagesKb(_pagesSharing));
   stats.zeroKb = ReadPagesKb(_zeroPages);
}

} // namespace LinuxHost
