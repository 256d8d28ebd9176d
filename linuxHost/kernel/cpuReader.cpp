#include "linuxHost/kernel/cpuReader.h"

#include "linuxHost/kernel/procParsers.h"
#include "linuxHost/kernel/units.h"

#include <algorithm>

namespace LinuxHost {

CpuReader::CpuReader(const std::string& root)
   : _stat(root + "/proc/stat"), _uptime(root + "/proc/uptime")
{
}

std::vector<HostCtl::Resource::HostCpuStats> CpuReader::ReadCpuStats()
{
   const std::vector<CpuTicks> cpus = ParseCpuTicks(_stat.Read());
   if (cpus.empty()) {
      _stat.FailLacking("any CPU's times");
   }
   for (const CpuTicks& cpu : cpus) {
      if (cpu.number >= _last.size()) {
         _last.resize(cpu.number + size_t{1});
      }
      HostCtl::Resource::HostCpuStats& last = _last[cpu.number];
      last.usedUs = std::max(last.usedUs, TicksToUs(cpu.used));
      last.idleUs = std::max(last.idleUs, TicksToUs(cpu.idle));
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
