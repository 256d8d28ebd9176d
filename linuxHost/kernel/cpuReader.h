#pragma once

#include "hostctl/resource.h"
#include "linuxHost/kernel/kernelFile.h"

#include <cstdint>
#include <string>
#include <vector>

namespace LinuxHost {

/// Times of the host's CPUs.
///
/// Invariant: no CPU's figure is ever smaller than in an earlier reading, though the kernel's idle
/// and iowait times may step back.
/// Errors: HostCtl::Lib::HostCtlException.
/// Locking: none; one thread at a time.
class CpuReader {
public:
   /// `root` goes before the path of every file.
   explicit CpuReader(const std::string& root);

   /// From /proc/stat, in its steps of a clock tick. A CPU that is offline keeps the figures it was
   /// last seen with, 0 when it never was.
   std::vector<HostCtl::Resource::HostCpuStats> ReadCpuStats();

   /// From /proc/uptime.
   uint64_t ReadUptimeUs();

private:
   const uint64_t _ticksPerSecond;
   KernelFile _stat;
   KernelFile _uptime;
   std::vector<HostCtl::Resource::HostCpuStats> _last; // by the CPU's number
};

} // namespace LinuxHost
