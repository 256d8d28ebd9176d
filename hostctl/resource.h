#pragma once

#include <cstdint>
#include <vector>

/// CPU and memory of the host, of resource groups and of virtual machines.
/// Ownership: what an operation returns as a raw pointer belongs to the caller.
/// Units: times in microseconds, memory in KB, CPU capacity in MHz, unless a field says otherwise.
namespace HostCtl::Resource {

/// One CPU of the host, since the host's start.
struct HostCpuStats {
   uint64_t usedUs = 0;
   uint64_t idleUs = 0;
};

/// What is set aside and therefore not to be given out.
struct HostCapacity {
   uint32_t reservedCpuMhz = 0;
   uint32_t reservedMemoryMb = 0;
};

struct HostMemoryStats {
   uint64_t freeKb = 0;
   uint64_t grantedKb = 0;    ///< machine memory that users of the host hold
   uint64_t activeKb = 0;     ///< recently touched
   uint64_t sharedKb = 0;     ///< memory that shares its content with other memory
   uint64_t zeroKb = 0;       ///< memory merged into the zero page
   uint64_t unreservedKb = 0; ///< memory that could still be given out
   uint64_t swapUsedKb = 0;
   uint64_t sharedCommonKb = 0; ///< machine memory behind all of `sharedKb`
   uint64_t heapKb = 0;         ///< the kernel's heap
   uint64_t heapFreeKb = 0;     ///< the part of the heap that the kernel can give back
   uint32_t state = 0;          ///< 0: no shortage
   uint64_t balloonKb = 0;
   uint64_t overheadKb = 0; ///< memory that running virtual machines costs beyond their own
   uint64_t swapInKb = 0;   ///< since the host's start
   uint64_t swapOutKb = 0;  ///< since the host's start
   uint64_t sysUsageKb = 0; ///< memory of the kernel itself
};

/// CPU use of a resource group or of a whole virtual machine, since its start.
struct CpuStats {
   uint64_t usedUs = 0;
};

/// One virtual CPU, since the virtual machine's start.
struct CpuTimes {
   uint64_t usedUs = 0;
   uint64_t systemUs = 0;
   uint64_t waitUs = 0;
   uint64_t readyUs = 0;
   uint64_t extraUs = 0;
   uint64_t guaranteedMs = 0;
   uint64_t uptimeUs = 0;
};

/// Memory of a resource pool or virtual machine.
struct MemoryStats {
   uint64_t grantedKb = 0;
   uint64_t activeKb = 0;
   uint64_t sharedKb = 0;
   uint64_t zeroKb = 0;
   uint64_t swappedKb = 0;
   uint64_t balloonKb = 0;
   uint64_t overheadKb = 0;
};

/// Swapping of one virtual machine.
struct SwapInfo {
   uint32_t targetKb = 0;
   uint32_t inKb = 0;
   uint32_t outKb = 0;
};

/// Memory as one virtual machine's guest sees it.
struct MemoryClientStats {
   uint64_t grantedKb = 0;
   uint64_t activeKb = 0;
   uint64_t savedBySharingKb = 0;
   uint64_t balloonTargetKb = 0;
};

/// Load over one period, in percent of one core.
struct CpuLoad {
   uint32_t activeAverage = 0; ///< running
   uint32_t activePeak = 0;
   uint32_t runAverage = 0; ///< running or waiting to run
   uint32_t runPeak = 0;
   uint32_t maxLimited = 0; ///< time held back by a limit
};

struct CpuLoadHistory {
   CpuLoad oneMinute;
   CpuLoad fiveMinutes;
   CpuLoad fifteenMinutes;
   uint32_t sampleCount = 0;
   uint32_t samplePeriodMs = 0;
};

class ResourceGroup {
public:
   virtual ~ResourceGroup();
   /// Null when the group keeps none.
   virtual CpuLoadHistory* GetCpuLoadHistory() = 0;
};

/// The host's resources. Errors: Lib::HostCtlException from every operation.
class ResourceInfo {
public:
   virtual ~ResourceInfo();
   /// One element a CPU; the position is the CPU's index.
   virtual std::vector<HostCpuStats> GetCpuStats() = 0;
   virtual uint64_t GetUptimeUs() = 0;
   virtual HostCapacity GetCapacity() = 0;
   virtual HostMemoryStats GetMemoryStats() = 0;
   virtual ResourceGroup* GetRootGroup() = 0;
};

} // namespace HostCtl::Resource
