#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

/// Parsers of the host's kernel files. Pure functions.
///
/// Any text is accepted: what is missing or malformed is left out of the result, and a number of
/// more than 64 bits becomes the largest one. Names in results point into the text.
namespace LinuxHost {

/// Far above the limit of any kernel. Keeps a malformed number from becoming a vector's size.
constexpr uint32_t kHighestCpuNumber = 65535;

/// One CPU of /proc/stat. Units: clock ticks.
struct CpuTicks {
   uint32_t number = 0;
   uint64_t used = 0; ///< user, nice, system, irq, softirq; user and nice include guest time
   uint64_t idle = 0; ///< idle and iowait; steal is neither used nor idle
};

/// Without the line for all CPUs together, and without numbers above kHighestCpuNumber.
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

/// Since the host's start.
struct SwapTraffic {
   std::optional<uint64_t> inPages;
   std::optional<uint64_t> outPages;
};

SwapTraffic ParseSwapTraffic(std::string_view procVmstat);

/// One line of /proc/diskstats: a disk or a partition. Sectors are 512 bytes, whatever the disk's
/// own size is. Counts that are missing in the shorter lines of older kernels are 0.
struct DiskCounts {
   std::string_view name;
   uint64_t reads = 0;
   uint64_t sectorsRead = 0;
   uint64_t writes = 0;
   uint64_t sectorsWritten = 0;
   uint64_t discards = 0;
   uint64_t flushes = 0;
};

/// Every kernel writes at least eleven counts for a disk. Lines with fewer are left out: they are
/// truncated, or a partition's in an older form.
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

/// The size of a list of CPU numbers, and its first number.
struct CpuList {
   uint64_t count = 0;
   uint64_t first = 0;
};

/// Accepts "0-3,8". Unset for an empty list and for one with a malformed part.
std::optional<CpuList> ParseCpuList(std::string_view text);

/// The first "cpu MHz" of /proc/cpuinfo, in Hz.
std::optional<uint64_t> ParseCpuInfoHz(std::string_view procCpuinfo);

} // namespace LinuxHost
