#pragma once

#include "corvax/logger.h"
#include "linuxHost/kernel/kernelFile.h"
#include "linuxHost/kernel/procParsers.h"

#include <cstdint>
#include <optional>
#include <string>

namespace LinuxHost {

/// The host's CPUs: how many and how fast.
///
/// Errors: HostCtl::Lib::HostCtlException.
/// Locking: none; one thread at a time.
class HardwareReader {
public:
   /// `root` goes before the path of every file; `cpuMhz`, unless 0, is the speed of one CPU
   /// whatever the kernel tells. The logger may be null.
   HardwareReader(const std::string& root, uint32_t cpuMhz, Corvax::Logger* logger);

   /// CPUs that are online, 1 to 255; when there are more, a warning is logged the first time.
   uint32_t ReadCoreCount();

   /// Speed of the first CPU that is online: its base frequency, else the highest it can run at,
   /// else the one it runs at now; whichever the kernel tells first. At least 1 MHz.
   uint64_t ReadCpuSpeedHz();

private:
   CpuList ReadOnlineCpus();

   const uint32_t _configuredCpuMhz;
   const std::string _cpuPath;
   const std::string _cpuinfoPath;
   const Corvax::Ref<Corvax::Logger> _logger;
   KernelFile _online;
   KernelFile _stat;
   bool _isCapLogged = false;
};

} // namespace LinuxHost
