#pragma once

#include "hostctl/network.h"
#include "hostctl/resource.h"
#include "hostctl/storage.h"
#include "simHost/simModel.h"

/// The kernel library's records, computed from the model: pure functions of entity and time. Sizes
/// in KB, times in seconds since the epoch.
namespace SimHost {

constexpr uint64_t kCpuSpeedHz = 2'500'000'000;
constexpr uint64_t kBlockSizeBytes = 512;

HostCtl::Resource::HostCpuStats GetHostCpu(EntityKey host, uint64_t cpu, int64_t timeSec);
HostCtl::Resource::HostCapacity GetHostCapacity(EntityKey host, int64_t timeSec);
/// active <= granted; free, shared, merged and heap memory are parts of `physicalKb`.
HostCtl::Resource::HostMemoryStats GetHostMemory(EntityKey host, uint64_t physicalKb,
                                                 int64_t timeSec);
/// Of a host with that number of CPUs.
uint64_t GetPhysicalKb(uint64_t cpus);

/// Peaks are not below their averages, and run figures not below the active ones.
HostCtl::Resource::CpuLoadHistory GetCpuLoad(EntityKey entity, int64_t timeSec);
/// Of a resource pool or system group.
HostCtl::Resource::CpuStats GetGroupCpu(EntityKey group, int64_t timeSec);

/// When a virtual machine that runs from the beginning started: some time after the host.
int64_t GetFirstStartSec(EntityKey vm);
/// Without the uptime, which is the virtual machine's.
HostCtl::Resource::CpuTimes GetVcpu(EntityKey vm, uint64_t vcpu, const Moment& moment);
uint64_t GetHeartbeats(EntityKey vm, const Moment& moment);

/// By how many seconds the readings of the virtual machines are late, in `percent` of all seconds:
/// 1 to 3, or -1 to -3 for early ones.
int64_t GetLatenessSec(EntityKey host, uint64_t percent, int64_t timeSec);

/// The configured memory of a VM or pool, a multiple of 512 MB; never changes.
uint64_t GetMemorySizeKb(EntityKey entity);
/// active <= granted <= size, zero and saved <= shared <= granted, and swapped and ballooned memory
/// fits in the part that is not granted. The memory and client records of a VM agree.
HostCtl::Resource::MemoryStats GetMemory(EntityKey entity, uint64_t sizeKb, int64_t timeSec);
HostCtl::Resource::MemoryClientStats GetMemoryClient(EntityKey vm, uint64_t sizeKb,
                                                     int64_t timeSec);
/// The two counts have 32 bits and wrap.
HostCtl::Resource::SwapInfo GetSwap(EntityKey vm, uint64_t sizeKb, const Moment& moment);

/// A disk's traffic, or the part of it that a VM's image on the disk causes.
HostCtl::Storage::StorageStatistics GetDisk(EntityKey disk, const Moment& moment);
/// The port of a NIC.
HostCtl::Network::PortStatistics GetPort(EntityKey card, const Moment& moment);

/// The two disks that hold a VM's images; twice the same if the host has only one. Not for a host
/// without disks.
struct ImageDisks {
   uint64_t first;
   uint64_t second;
};
ImageDisks GetImageDisks(EntityKey vm, uint64_t disks);

} // namespace SimHost
