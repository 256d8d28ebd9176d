#include "metrix/mockupStatsCollector.h"

#include "agentdCommon/wellKnown.h"
#include "metrix/counterIds.h"

namespace Metrix {

using AgentdCommon::moid_hostsystem;

void MockupStatsCollector::CollectStats(int64_t timeStamp)
{
   CollectHostCpuStats(timeStamp);
   CollectHostMemStats(timeStamp);
}

void MockupStatsCollector::CollectHostCpuStats(int64_t timeStamp)
{
   const auto ts = static_cast<TimeStamp>(timeStamp);
   AddSample(moid_hostsystem, kCpuUsage, ts, 0, "0", 0);
   AddSample(moid_hostsystem, kCpuUsage, ts, 0, StatsMetadata::AggregateInstanceId, 0);
   CollectCpuLoadStats(moid_hostsystem, timeStamp);
}

void MockupStatsCollector::CollectCpuLoadStats(const std::string& entityId, int64_t timeStamp)
{
   // Only the averages and active peaks of the three periods: run peaks, limits and the history's
   // size are not mocked.
   for (int counterId = kRescpuActav1; counterId <= kRescpuRunav15; ++counterId) {
      AddSample(entityId, counterId, static_cast<TimeStamp>(timeStamp), 0,
                StatsMetadata::AggregateInstanceId, 0);
   }
}

void MockupStatsCollector::CollectHostMemStats(int64_t timeStamp)
{
   constexpr int kMemCounters[] = {
      kMemUsage,    kMemGranted,      kMemActive, kMemShared,   kMemUnreserved,
      kMemSwapUsed, kMemSharedCommon, kMemHeap,   kMemHeapFree, kMemState,
      kMemVmmemctl, kMemOverhead,     kMemZero,
   };
   for (const int counterId : kMemCounters) {
      AddSample(moid_hostsystem, counterId, static_cast<TimeStamp>(timeStamp), 0,
                StatsMetadata::AggregateInstanceId, 0);
   }
}

} // namespace Metrix
