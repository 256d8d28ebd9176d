#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

/// Texts of the kernel's files, taken apart. Pure functions.
///
/// Any text is accepted: what is missing or malformed is left out of the result, and a number of
/// more than 64 bits comes out as the largest one. Names in results are views into the text.
namespace LinuxHost {

/// Far above what kernels are built for. Keeps a malformed number from becoming a vector's size.
constexpr uint32_t kHighestCpuNumber = 65535;

/// One CPU of /proc/stat. Units: clock ticks.
struct CpuTicks {
   uint32_t number = 0;
   uint64_t used = 0; ///< user, nice, system, irq, softirq; guest time is inside the first two
   uint64_t idle = 0; ///< idle and iowait; steal is neither used nor idle
};

/// Without the line that sums all CPUs, and without numbers above kHighestCpuNumber.
std::vector<CpuTicks> ParseCpuTicks(std::string_view procStat);

/// /proc/uptime in microseconds.
std::optional<uint64_t> ParseUptimeUs(std::string_view procUptime);

/// Fields of /proc/meminfo by their names there. Units: KB.
struct MemInfo {
   std::optional<uint64_t> memTotal;
   std::optional<uint64_t> memFree;
   std::optional<uint64_t> memAvailable;
   std::optional<uint64_t> active;
   std::optional<uint64_t> anonPages;
   std::optional<uint64_t> shmem;
   std::optional<uint64_t> swapTotal;
   std::optional<uint64_t> swapFree;
   std::optional<uint64_t> slab;
   std::optional<uint64_t> sReclaimable;
   std::optional<uint64_t> kernelStack;
   std::optional<uint64_t> pageTables;
   std::optional<uint64_t> secPageTables;
   std::optional<uint64_t> vmallocUsed;
   std::optional<uint64_t> percpu;
   std::optional<uint64_t> hugetlb;
};

MemInfo ParseMemInfo(std::string_view procMeminfo);

/// Units: pages since the host's start; 0 where the kernel counts none.
struct SwapTraffic {
   uint64_t in = 0;
   uint64_t out = 0;
};

SwapTraffic ParseSwapTraffic(std::string_view procVmstat);

/// One line of /proc/diskstats: a disk or a partition of one. Sectors are 512 bytes whatever the
/// disk's own are. Counts that an older kernel's shorter line does not have are 0.
struct DiskCounts {
   std::string_view name;
   uint64_t reads = 0;
   uint64_t sectorsRead = 0;
   uint64_t writes = 0;
   uint64_t sectorsWritten = 0;
   uint64_t discards = 0;
   uint64_t flushes = 0;
};

/// Lines with fewer than the eleven counts that every kernel writes for a disk are left out: they
/// are cut short, or a partition's in an older form.
std::vector<DiskCounts> ParseDiskStats(std::string_view procDiskstats);

/// One interface of /proc/net/dev.
struct InterfaceCounts {
   std::string_view name;
   uint64_t bytesReceived = 0;
   uint64_t packetsReceived = 0;
   uint64_t bytesSent = 0;
   uint64_t packetsSent = 0;
};

std::vector<InterfaceCounts> ParseNetDev(std::string_view procNetDev);

/// A file of one number, decimal or hexadecimal with "0x".
std::optional<uint64_t> ParseNumberFile(std::string_view text);

/// A list of CPU numbers: how many, and the first.
struct CpuList {
   uint64_t count = 0;
   uint64_t first = 0;
};

/// Takes "0-3,8". Nothing for an empty list and for one with any malformed part.
std::optional<CpuList> ParseCpuList(std::string_view text);

/// The first "cpu MHz" of /proc/cpuinfo, in Hz.
std::optional<uint64_t> ParseCpuInfoHz(std::string_view procCpuinfo);

} // namespace LinuxHost
