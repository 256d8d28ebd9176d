#pragma once

#include "hostctl/resource.h"
#include "linuxHost/kernel/kernelFile.h"

#include <cstdint>
#include <string>
#include <vector>

namespace LinuxHost {

/// Times of the host's CPUs.
///
/// Invariant: no figure of a CPU ever decreases, although the kernel's idle and iowait times may.
/// Errors: HostCtl::Lib::HostCtlException.
/// Locking: none; one thread at a time.
class CpuReader {
public:
   /// `root` goes before the path of every file.
   explicit CpuReader(const std::string& root);

   /// From /proc/stat, in steps of a clock tick, by the CPU's number. A CPU that is offline keeps
   /// its last figures, 0 when it never had any.
   std::vector<HostCtl::Resource::HostCpuStats> ReadCpuStats();

   /// From /proc/uptime.
   uint64_t ReadUptimeUs();

private:
   KernelFile _stat;
   KernelFile _uptime;
   std::vector<HostCtl::Resource::HostCpuStats> _last; // by the CPU's number
};

} // namespace LinuxHost
