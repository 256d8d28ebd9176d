#include "linuxHost/kernel/cpuReader.h"

#include "linuxHost/kernel/procParsers.h"
#include "linuxHost/kernel/saturate.h"

#include <unistd.h>

#include <algorithm>

namespace LinuxHost {

CpuReader::CpuReader(const std::string& root)
   : _ticksPerSecond(static_cast<uint64_t>(sysconf(_SC_CLK_TCK))), _stat(root + "/proc/stat"),
     _uptime(root + "/proc/uptime")
{
}

std::vector<HostCtl::Resource::HostCpuStats> CpuReader::ReadCpuStats()
{
   constexpr uint64_t kMicrosecondsPerSecond = 1'000'000;
   const std::vector<CpuTicks> cpus = ParseCpuTicks(_stat.Read());
   if (cpus.empty()) {
      _stat.FailLacking("any CPU's times");
   }
   for (const CpuTicks& cpu : cpus) {
      if (cpu.number >= _last.size()) {
         _last.resize(cpu.number + size_t{1});
      }
      HostCtl::Resource::HostCpuStats& last = _last[cpu.number];
      last.usedUs = std::max(last.usedUs, Scale(cpu.used, kMicrosecondsPerSecond, _ticksPerSecond));
      last.idleUs = std::max(last.idleUs, Scale(cpu.idle, kMicrosecondsPerSecond, _ticksPerSecond));
   }
   return _last;
}

uint64_t CpuReader::ReadUptimeUs()
{
   const std::optional<uint64_t> uptimeUs = ParseUptimeUs(_uptime.Read());
   if (!uptimeUs) {
      _uptime.FailLacking("the uptime");
   }
   return *uptimeUs;
}

} // namespace LinuxHost
