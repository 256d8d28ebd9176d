#include "simHost/simFigures.h"

#include "corvax/clock.h"

namespace SimHost {

using namespace HostCtl::Resource;

namespace {

using Corvax::kMicrosecondsPerSecond;

constexpr uint64_t kKbPerGb = uint64_t{1024} * 1024;

/// The share of the whole that the figure has, in thousandths.
uint64_t Share(uint64_t whole, EntityKey key, Figure figure, int64_t timeSec)
{
   return whole * Gauge(key, figure, timeSec) / 1000;
}

CpuLoad GetLoad(EntityKey period, int64_t timeSec)
{
   const auto gauge = [&](Figure figure) {
      return static_cast<uint32_t>(Gauge(period, figure, timeSec));
   };
   CpuLoad load;
   load.activeAverage = gauge(Figure::LOAD_ACTIVE);
   load.activePeak = load.activeAverage + gauge(Figure::LOAD_PEAK);
   load.runAverage = load.activeAverage + gauge(Figure::LOAD_WAITING);
   load.runPeak = load.activePeak + gauge(Figure::LOAD_WAITING);
   load.maxLimited = gauge(Figure::LOAD_LIMITED);
   return load;
}

} // namespace

HostCpuStats GetHostCpu(EntityKey host, uint64_t cpu, int64_t timeSec)
{
   const uint64_t usedUs = Counter(host.Part(cpu), Figure::HOST_CPU_USED_US, {timeSec});
   // One second more than has passed: in the first seconds, the counter's noise may exceed them.
   return {usedUs, (GetUptimeSec({timeSec}) + 1) * kMicrosecondsPerSecond - usedUs};
}

HostCapacity GetHostCapacity(EntityKey host, int64_t timeSec)
{
   return {static_cast<uint32_t>(Gauge(host, Figure::RESERVED_CPU_MHZ, timeSec)),
           static_cast<uint32_t>(Gauge(host, Figure::RESERVED_MEMORY_MB, timeSec))};
}

uint64_t GetPhysicalKb(uint64_t cpus)
{
   constexpr uint64_t kGbPerCpu = 16;
   return cpus * kGbPerCpu * kKbPerGb;
}

HostMemoryStats GetHostMemory(EntityKey host, uint64_t physicalKb, int64_t timeSec)
{
   const auto share = [&](uint64_t wholeKb, Figure figure) {
      return Share(wholeKb, host, figure, timeSec);
   };
   HostMemoryStats stats;
   stats.freeKb = share(physicalKb, Figure::FREE);
   stats.grantedKb = share(physicalKb - stats.freeKb, Figure::GRANTED);
   stats.activeKb = share(stats.grantedKb, Figure::ACTIVE);
   stats.sharedKb = share(stats.grantedKb, Figure::SHARED);
   stats.zeroKb = share(stats.sharedKb, Figure::ZERO);
   stats.unreservedKb = share(physicalKb, Figure::UNRESERVED);
   stats.swapUsedKb = share(physicalKb / 4, Figure::SWAPPED);
   stats.sharedCommonKb = share(stats.sharedKb, Figure::SAVED);
   stats.heapKb = share(physicalKb, Figure::HEAP);
   stats.heapFreeKb = share(stats.heapKb, Figure::HEAP_FREE);
   stats.state = static_cast<uint32_t>(Gauge(host, Figure::SHORTAGE, timeSec));
   stats.balloonKb = share(physicalKb / 8, Figure::BALLOON);
   stats.overheadKb = Gauge(host, Figure::OVERHEAD_KB, timeSec);
   stats.swapInKb = Counter(host, Figure::SWAP_IN_KB, {timeSec});
   stats.swapOutKb = Counter(host, Figure::SWAP_OUT_KB, {timeSec});
   stats.sysUsageKb = share(physicalKb, Figure::SYSTEM_USAGE);
   return stats;
}

CpuLoadHistory GetCpuLoad(EntityKey entity, int64_t timeSec)
{
   constexpr uint32_t kSamplePeriodMs = 6000;
   CpuLoadHistory history;
   history.oneMinute = GetLoad(entity.Part(0), timeSec);
   history.fiveMinutes = GetLoad(entity.Part(1), timeSec);
   history.fifteenMinutes = GetLoad(entity.Part(2), timeSec);
   history.sampleCount = static_cast<uint32_t>(Gauge(entity, Figure::LOAD_SAMPLES, timeSec));
   history.samplePeriodMs = kSamplePeriodMs;
   return history;
}

CpuStats GetGroupCpu(EntityKey group, int64_t timeSec)
{
   CpuStats stats;
   stats.usedUs = Counter(group, Figure::GROUP_CPU_USED_US, {timeSec});
   return stats;
}

int64_t GetFirstStartSec(EntityKey vm)
{
   return kHostStartSec + static_cast<int64_t>(Gauge(vm, Figure::START_DELAY_SEC, kHostStartSec));
}

CpuTimes GetVcpu(EntityKey vm, uint64_t vcpu, const Moment& moment)
{
   const EntityKey key = vm.Part(vcpu);
   CpuTimes times;
   times.usedUs = Counter(key, Figure::VCPU_USED_US, moment);
   times.systemUs = Counter(key, Figure::VCPU_SYSTEM_US, moment);
   times.waitUs = Counter(key, Figure::VCPU_WAIT_US, moment);
   times.readyUs = Counter(key, Figure::VCPU_READY_US, moment);
   times.extraUs = Counter(key, Figure::VCPU_EXTRA_US, moment);
   times.guaranteedMs = Gauge(key, Figure::GUARANTEED_MS, moment.timeSec);
   return times;
}

uint64_t GetHeartbeats(EntityKey vm, const Moment& moment)
{
   return Counter(vm, Figure::HEARTBEATS, moment);
}

int64_t GetLatenessSec(EntityKey host, uint64_t percent, int64_t timeSec)
{
   constexpr int64_t kSteps[] = {-3, -2, -1, 1, 2, 3};
   return Gauge(host, Figure::LATE_PERCENT, timeSec) < percent
             ? kSteps[Gauge(host, Figure::LATENESS_STEP, timeSec)]
             : 0;
}

uint64_t GetMemorySizeKb(EntityKey entity)
{
   constexpr uint64_t kLeastKb = kKbPerGb / 2;
   return kLeastKb << Gauge(entity, Figure::MEMORY_SIZE, kHostStartSec);
}

MemoryStats GetMemory(EntityKey entity, uint64_t sizeKb, int64_t timeSec)
{
   const auto share = [&](uint64_t wholeKb, Figure figure) {
      return Share(wholeKb, entity, figure, timeSec);
   };
   MemoryStats stats;
   stats.grantedKb = share(sizeKb, Figure::GRANTED);
   stats.activeKb = share(stats.grantedKb, Figure::ACTIVE);
   stats.sharedKb = share(stats.grantedKb, Figure::SHARED);
   stats.zeroKb = share(stats.sharedKb, Figure::ZERO);
   stats.swappedKb = share(sizeKb - stats.grantedKb, Figure::SWAPPED);
   stats.balloonKb = share(sizeKb - stats.grantedKb, Figure::BALLOON);
   stats.overheadKb = Gauge(entity, Figure::OVERHEAD_KB, timeSec);
   return stats;
}

MemoryClientStats GetMemoryClient(EntityKey vm, uint64_t sizeKb, int64_t timeSec)
{
   const MemoryStats memory = GetMemory(vm, sizeKb, timeSec);
   return {memory.grantedKb, memory.activeKb, Share(memory.sharedKb, vm, Figure::SAVED, timeSec),
           Share(sizeKb, vm, Figure::BALLOON, timeSec)};
}

SwapInfo GetSwap(EntityKey vm, uint64_t sizeKb, const Moment& moment)
{
   return {static_cast<uint32_t>(Share(sizeKb, vm, Figure::SWAPPED, moment.timeSec)),
           static_cast<uint32_t>(Counter(vm, Figure::SWAP_IN_KB, moment)),
           static_cast<uint32_t>(Counter(vm, Figure::SWAP_OUT_KB, moment))};
}

HostCtl::Storage::StorageStatistics GetDisk(EntityKey disk, const Moment& moment)
{
   HostCtl::Storage::StorageStatistics statistics;
   statistics.blocksRead = Counter(disk, Figure::BLOCKS_READ, moment);
   statistics.blocksWritten = Counter(disk, Figure::BLOCKS_WRITTEN, moment);
   statistics.readOperations = Counter(disk, Figure::READ_OPERATIONS, moment);
   statistics.writeOperations = Counter(disk, Figure::WRITE_OPERATIONS, moment);
   statistics.commands = statistics.readOperations + statistics.writeOperations;
   statistics.abortedCommands = Counter(disk, Figure::ABORTS_PER_HOUR, moment) / 3600;
   statistics.busResets = Counter(disk, Figure::RESETS_PER_DAY, moment) / 86400;
   return statistics;
}

HostCtl::Network::PortStatistics GetPort(EntityKey card, const Moment& moment)
{
   const auto count = [&](Figure figure) { return Counter(card, figure, moment); };
   return {count(Figure::BYTES_RECEIVED), count(Figure::BYTES_SENT),
           count(Figure::PACKETS_RECEIVED), count(Figure::PACKETS_SENT)};
}

ImageDisks GetImageDisks(EntityKey vm, uint64_t disks)
{
   const uint64_t first = Gauge(vm, Figure::FIRST_DISK, kHostStartSec) % disks;
   if (disks == 1) {
      return {first, first};
   }
   const uint64_t steps = Gauge(vm, Figure::SECOND_DISK, kHostStartSec) % (disks - 1) + 1;
   return {first, (first + steps) % disks};
}

} // namespace SimHost
