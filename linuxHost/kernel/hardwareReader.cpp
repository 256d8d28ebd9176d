#include "linuxHost/kernel/hardwareReader.h"

#include "corvax/format.h"
#include "hostctl/lib.h"
#include "linuxHost/kernel/units.h"

#include <algorithm>

namespace LinuxHost {

namespace {

constexpr uint64_t kLeastSpeedHz = kHzPerMhz;

/// 0 when there is no such file or no number in it.
uint64_t ReadKhzAsHz(const std::string& path)
{
   constexpr uint64_t kHzPerKhz = 1000;
   return SaturatingMultiply(KernelFile(path).ReadNumberIfPresent().value_or(0), kHzPerKhz);
}

} // namespace

HardwareReader::HardwareReader(const std::string& root, uint32_t cpuMhz)
   : _configuredCpuMhz(cpuMhz), _cpuPath(root + "/sys/devices/system/cpu/"),
     _cpuinfoPath(root + "/proc/cpuinfo"), _online(_cpuPath + "online"), _stat(root + "/proc/stat")
{
}

uint32_t HardwareReader::ReadCoreCount()
{
   return static_cast<uint32_t>(std::min<uint64_t>(ReadOnlineCpus().count, kHighestCpuNumber));
}

uint64_t HardwareReader::ReadCpuSpeedHz()
{
   if (_configuredCpuMhz > 0) {
      return _configuredCpuMhz * kHzPerMhz;
   }
   const std::string cpufreq = Corvax::Format("%1cpu%2/cpufreq/", _cpuPath, ReadOnlineCpus().first);
   for (const char* const file : {"base_frequency", "cpuinfo_max_freq"}) {
      if (const uint64_t speedHz = ReadKhzAsHz(cpufreq + file); speedHz >= kLeastSpeedHz) {
         return speedHz;
      }
   }
   KernelFile cpuinfo(_cpuinfoPath);
   const uint64_t speedHz = ParseCpuInfoHz(cpuinfo.ReadIfPresent().value_or("")).value_or(0);
   if (speedHz < kLeastSpeedHz) {
      throw HostCtl::Lib::HostCtlException(Corvax::Format(
         "Cannot find the CPU speed: it is neither in %1base_frequency nor in "
         "%1cpuinfo_max_freq nor in \"cpu MHz\" of %2; set the configuration key agentd/cpuMhz",
         cpufreq, _cpuinfoPath));
   }
   return speedHz;
}

CpuList HardwareReader::ReadOnlineCpus()
{
   if (const auto online = ParseCpuList(_online.ReadIfPresent().value_or(""))) {
      return *online;
   }
   const std::vector<CpuTicks> cpus = ParseCpuTicks(_stat.Read());
   if (cpus.empty()) {
      _stat.FailLacking("any CPU");
   }
   return {cpus.size(), cpus.front().number};
}

} // namespace LinuxHost
