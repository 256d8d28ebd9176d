#include "metrix/mockupStatsCollector.h"

#include "agentdCommon/wellKnown.h"

namespace Metrix {

using AgentdCommon::moid_hostsystem;

void MockupStatsCollector::CollectStats(int64_t timeStamp)
{
   CollectHostCpuStats(timeStamp);
   CollectHostMemStats(timeStamp);
}

void MockupStatsCollector::CollectHostCpuStats(int64_t timeStamp)
{
   constexpr int kCpuUsage = 0x00000;
   const auto ts = static_cast<TimeStamp>(timeStamp);
   AddSample(moid_hostsystem, kCpuUsage, ts, 0, "0", 0);
   AddSample(moid_hostsystem, kCpuUsage, ts, 0, StatsMetadata::AggregateInstanceId, 0);
   CollectCpuLoadStats(moid_hostsystem, timeStamp);
}

void MockupStatsCollector::CollectCpuLoadStats(const std::string& entityId, int64_t timeStamp)
{
   // Averages and active peaks of the three periods; run peaks and the rest are not made.
   constexpr int kFirstLoadCounter = 0x50000;
   constexpr int kLastLoadCounter = 0x50008;
   for (int counterId = kFirstLoadCounter; counterId <= kLastLoadCounter; ++counterId) {
      AddSample(entityId, counterId, static_cast<TimeStamp>(timeStamp), 0,
                StatsMetadata::AggregateInstanceId, 0);
   }
}

void MockupStatsCollector::CollectHostMemStats(int64_t timeStamp)
{
   constexpr int kMemCounters[] = {
      0x10000, // usage
      0x10004, // granted
      0x10008, // active
      0x1000C, // shared
      0x10014, // unreserved
      0x10018, // swapused
      0x10020, // sharedcommon
      0x10024, // heap
      0x10028, // heapfree
      0x1002C, // state
      0x1002D, // vmmemctl
      0x10031, // overhead
      0x10010, // zero
   };
   for (const int counterId : kMemCounters) {
      AddSample(moid_hostsystem, counterId, static_cast<TimeStamp>(timeStamp), 0,
                StatsMetadata::AggregateInstanceId, 0);
   }
}

} // namespace Metrix
