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
   /// its last figures, 0 when it never had any. One that appears after the first reading begins at
   /// 0, so that a sum over the CPUs grows by what they did and not by a past that it never had.
   std::vector<HostCtl::Resource::HostCpuStats> ReadCpuStats();

   /// From /proc/uptime.
   uint64_t ReadUptimeUs();

private:
   struct Cpu {
      bool isKnown = false;
      HostCtl::Resource::HostCpuStats base; // subtracted from what the kernel reports
      HostCtl::Resource::HostCpuStats last; // as handed out
   };

   KernelFile _stat;
   KernelFile _uptime;
   std::vector<Cpu> _cpus; // by the CPU's number
};

} // namespace LinuxHost
