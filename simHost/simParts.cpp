#include "simHost/simParts.h"

#include "corvax/clock.h"

#include <algorithm>

namespace SimHost {

void VmShape::Restart(int64_t timeSec)
{
   startSec = timeSec;
   for (SimParts* const parts : {&vcpus, &cards, &images}) {
      std::ranges::fill(*parts, timeSec);
   }
   removedUsedUs = 0;
   perCpuCorrectionUs = 0;
   removedCardsKb = 0;
}

void VmShape::SetVcpus(uint64_t count, int64_t timeSec)
{
   const auto getPerCpuUs = [&] {
      return static_cast<int64_t>(GetCpu(timeSec).usedUs / vcpus.size());
   };
   const int64_t beforeUs = getPerCpuUs();
   for (uint64_t vcpu = count; vcpu < vcpus.size(); ++vcpu) {
      removedUsedUs += GetVcpu(vcpu, timeSec).usedUs;
   }
   vcpus.resize(count, timeSec);
   perCpuCorrectionUs += beforeUs - getPerCpuUs();
}

void VmShape::SetCards(uint64_t count, int64_t timeSec)
{
   removedCardsKb +=
      GetCardsKb(cards, count, [this](uint64_t card) { return key.Part(card); }, timeSec);
   cards.resize(count, timeSec);
}

HostCtl::Resource::CpuStats VmShape::GetCpu(int64_t timeSec) const
{
   HostCtl::Resource::CpuStats stats;
   stats.usedUs = removedUsedUs;
   for (uint64_t vcpu = 0; vcpu < vcpus.size(); ++vcpu) {
      stats.usedUs += Counter(key.Part(vcpu), Figure::VCPU_USED_US, {timeSec, vcpus[vcpu]});
   }
   stats.perCpuCorrectionUs = perCpuCorrectionUs;
   return stats;
}

HostCtl::Resource::CpuTimes VmShape::GetVcpu(uint64_t vcpu, int64_t timeSec) const
{
   HostCtl::Resource::CpuTimes times = SimHost::GetVcpu(key, vcpu, Moment{timeSec, vcpus[vcpu]});
   times.uptimeUs = GetUptimeSec({timeSec, startSec}) * Corvax::kMicrosecondsPerSecond;
   return times;
}

} // namespace SimHost
