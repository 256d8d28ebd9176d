#pragma once

#include "linuxHost/kernel/kernelFile.h"
#include "linuxHost/kernel/procParsers.h"

#include <cstdint>
#include <optional>
#include <string>

namespace LinuxHost {

/// Number and speed of the host's CPUs.
///
/// Errors: HostCtl::Lib::HostCtlException.
/// Locking: none; one thread at a time.
class HardwareReader {
public:
   /// `root` goes before the path of every file; `cpuMhz`, unless 0, is the speed of one CPU and
   /// replaces the kernel's.
   HardwareReader(const std::string& root, uint32_t cpuMhz);

   /// CPUs online, 1 to kHighestCpuNumber.
   uint32_t ReadCoreCount();

   /// Speed of the first CPU online, at least 1 MHz: the first that the kernel reports of its base
   /// frequency, its highest frequency and its current one.
   uint64_t ReadCpuSpeedHz();

private:
   CpuList ReadOnlineCpus();

   const uint32_t _configuredCpuMhz;
   const std::string _cpuPath;
   const std::string _cpuinfoPath;
   KernelFile _online;
   KernelFile _stat;
};

} // namespace LinuxHost
