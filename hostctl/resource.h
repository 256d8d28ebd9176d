#pragma once

#include <cstdint>
#include <vector>

/// CPU and memory of the host, of resource groups and of virtual machines.
/// Ownership: the caller owns every raw pointer that is returned.
/// Units: times in microseconds, memory in KB, CPU capacity in MHz, unless a field says otherwise.
namespace HostCtl::Resource {

/// In place of a figure that cannot be read.
constexpr uint64_t kUnknown = UINT64_MAX;
constexpr uint32_t kUnknown32 = UINT32_MAX;

/// Times of one CPU of the host since the host started.
struct HostCpuStats {
   uint64_t usedUs = 0;
   uint64_t idleUs = 0;
};

/// Capacity of the host that is reserved.
struct HostCapacity {
   uint32_t reservedCpuMhz = 0;
   uint32_t reservedMemoryMb = 0;
};

struct HostMemoryStats {
   uint64_t freeKb = 0;
   uint64_t grantedKb = 0;    ///< memory of the host in use by processes
   uint64_t activeKb = 0;     ///< recently touched
   uint64_t sharedKb = 0;     ///< pages merged with others of equal content
   uint64_t zeroKb = 0;       ///< pages merged into the zero page
   uint64_t unreservedKb = 0; ///< memory that is still available
   uint64_t swapUsedKb = 0;
   uint64_t sharedCommonKb = 0; ///< memory of the host behind all of `sharedKb`
   uint64_t heapKb = 0;         ///< the kernel's heap
   uint64_t heapFreeKb = 0;     ///< the part of the heap that the kernel can free
   uint32_t state = 0;          ///< 0: no shortage of memory
   uint64_t balloonKb = 0;
   uint64_t overheadKb = 0; ///< cost of running virtual machines, beyond their own memory
   uint64_t swapInKb = 0;   ///< since the host started
   uint64_t swapOutKb = 0;  ///< since the host started
   uint64_t sysUsageKb = 0; ///< memory of the kernel itself
};

/// CPU time of a resource group or of a whole virtual machine since it started.
struct CpuStats {
   uint64_t usedUs = 0;
   /// To be added to a virtual machine's `usedUs` / number of virtual CPUs, so that the quotient
   /// grows by its use alone when their number changes. 0 until it does.
   int64_t perCpuCorrectionUs = 0;
};

/// Times of one virtual CPU since the virtual machine started.
struct CpuTimes {
   uint64_t usedUs = 0;
   uint64_t systemUs = 0; ///< perhaps kUnknown
   uint64_t waitUs = 0;
   uint64_t readyUs = 0;
   uint64_t extraUs = 0;
   uint64_t guaranteedMs = 0;
   uint64_t uptimeUs = 0; ///< perhaps kUnknown
};

/// Memory of a resource pool or virtual machine.
struct MemoryStats {
   uint64_t grantedKb = 0;
   uint64_t activeKb = 0; ///< of a virtual machine perhaps kUnknown
   uint64_t sharedKb = 0;
   uint64_t zeroKb = 0;
   uint64_t swappedKb = 0; ///< of a virtual machine perhaps kUnknown
   uint64_t balloonKb = 0;
   uint64_t overheadKb = 0;
};

/// Swapping of one virtual machine.
struct SwapInfo {
   uint32_t targetKb = 0;
   uint32_t inKb = 0;  ///< perhaps kUnknown32
   uint32_t outKb = 0; ///< perhaps kUnknown32
};

/// Guest memory of one virtual machine.
struct MemoryClientStats {
   uint64_t grantedKb = 0;
   uint64_t activeKb = 0; ///< perhaps kUnknown
   uint64_t savedBySharingKb = 0;
   uint64_t balloonTargetKb = 0;
};

/// Load over one period, in percent of one core.
struct CpuLoad {
   uint32_t activeAverage = 0; ///< running
   uint32_t activePeak = 0;
   uint32_t runAverage = 0; ///< running or waiting to run
   uint32_t runPeak = 0;
   uint32_t maxLimited = 0; ///< throttled by a limit
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
   /// Null if the group has none.
   virtual CpuLoadHistory* GetCpuLoadHistory() = 0;
};

/// The host's resources. Errors: Lib::HostCtlException from every operation.
class ResourceInfo {
public:
   virtual ~ResourceInfo();
   /// One element per CPU; the position is the CPU's index.
   virtual std::vector<HostCpuStats> GetCpuStats() = 0;
   virtual uint64_t GetUptimeUs() = 0;
   virtual HostCapacity GetCapacity() = 0;
   virtual HostMemoryStats GetMemoryStats() = 0;
   virtual ResourceGroup* GetRootGroup() = 0;
};

} // namespace HostCtl::Resource
