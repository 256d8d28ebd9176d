#include "linuxHost/kernel/cpuReader.h"

#include "linuxHost/kernel/procParsers.h"
#include "linuxHost/kernel/units.h"

#include <algorithm>
#include <iterator>

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
   const bool isFirstReading = _cpus.empty();
   for (const CpuTicks& ticks : cpus) {
      if (ticks.number >= _cpus.size()) {
         _cpus.resize(ticks.number + size_t{1});
      }
      Cpu& cpu = _cpus[ticks.number];
      const HostCtl::Resource::HostCpuStats now{TicksToUs(ticks.used), TicksToUs(ticks.idle)};
      if (!cpu.isKnown && !isFirstReading) {
         cpu.base = now;
      }
      cpu.isKnown = true;
      cpu.last.usedUs = std::max(cpu.last.usedUs, SaturatingSubtract(now.usedUs, cpu.base.usedUs));
      cpu.last.idleUs = std::max(cpu.last.idleUs, SaturatingSubtract(now.idleUs, cpu.base.idleUs));
   }
   std::vector<HostCtl::Resource::HostCpuStats> stats;
   stats.reserve(_cpus.size());
   std::ranges::transform(_cpus, std::back_inserter(stats), &Cpu::last);
   return stats;
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
