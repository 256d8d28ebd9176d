#include "corvax/exception.h"
#include "metrix/counterIds.h"
#include "metrix/statsMetadata.h"

namespace Metrix {

// The strings come before the table, which is initialized from them when the library is loaded.
const std::string StatsMetadata::CLASS_CPU = "cpu";
const std::string StatsMetadata::CLASS_MEM = "mem";
const std::string StatsMetadata::CLASS_DISK = "disk";
const std::string StatsMetadata::CLASS_NET = "net";
const std::string StatsMetadata::CLASS_SYS = "sys";
const std::string StatsMetadata::CLASS_RESCPU = "rescpu";

const std::string StatsMetadata::UNIT_KB = "kiloBytes";
const std::string StatsMetadata::UNIT_KBPS = "kiloBytesPerSecond";
const std::string StatsMetadata::UNIT_MILLISECOND = "millisecond";
const std::string StatsMetadata::UNIT_SECOND = "second";
const std::string StatsMetadata::UNIT_NUMBER = "number";
const std::string StatsMetadata::UNIT_PERCENT = "percent";
const std::string StatsMetadata::UNIT_MHZ = "megaHertz";
const std::string StatsMetadata::UNIT_MB = "megaBytes";

namespace {

using CounterId = StatsMetadata::CounterId;
using CounterInfo = StatsMetadata::CounterInfo;
using Row = StatsMetadata::StatsInfo;

// NOLINTBEGIN(readability-identifier-naming): fixed names
const std::vector<CounterInfo::RollupType> AllCounterTypes = {
   CounterInfo::average, CounterInfo::minimum, CounterInfo::maximum};
const std::vector<StatsDepot::RollupType> AllRollups = {
   StatsDepot::ROLLUP_AVERAGE, StatsDepot::ROLLUP_MIN, StatsDepot::ROLLUP_MAX};
const std::vector<StatsDepot::RollupType> AverageRollup = {StatsDepot::ROLLUP_AVERAGE};
const std::vector<StatsDepot::RollupType> SummationRollup = {StatsDepot::ROLLUP_SUM};
const std::vector<StatsDepot::RollupType> LatestRollup = {StatsDepot::ROLLUP_LAST};
// NOLINTEND(readability-identifier-naming)

StatsDepot::StatType InDepot(CounterInfo::StatsType type)
{
   switch (type) {
   case CounterInfo::absolute:
      return StatsDepot::STATTYPE_ABSOLUTE;
   case CounterInfo::delta:
      return StatsDepot::STATTYPE_DELTA;
   case CounterInfo::rate:
      return StatsDepot::STATTYPE_RATE;
   }
   Corvax::NotReached("every statistics type has its depot type");
}

/// The stored values, and three derived counters whose ids follow.
Row Composite(CounterId id, const std::string& group, const char* name, const std::string& unit,
              CounterInfo::StatsType type)
{
   const CounterId average = id + 1;
   const CounterId maximum = id + 2;
   const CounterId minimum = id + 3;
   auto derived =
      std::make_shared<const std::vector<CounterId>>(std::vector{average, minimum, maximum});
   return {id,
           group,
           name,
           unit,
           "",
           type,
           CounterInfo::none,
           std::move(derived),
           &AllCounterTypes,
           InDepot(type),
           &AllRollups};
}

Row Simple(CounterId id, const std::string& group, const char* name, const std::string& unit,
           CounterInfo::StatsType type, CounterInfo::RollupType rollup,
           const std::vector<StatsDepot::RollupType>& depotRollup)
{
   return {id, group, name, unit, "", type, rollup, nullptr, nullptr, InDepot(type), &depotRollup};
}

Row Average(CounterId id, const std::string& group, const char* name, const std::string& unit,
            CounterInfo::StatsType type)
{
   return Simple(id, group, name, unit, type, CounterInfo::average, AverageRollup);
}

Row Sum(CounterId id, const std::string& group, const char* name, const std::string& unit,
        CounterInfo::StatsType type)
{
   return Simple(id, group, name, unit, type, CounterInfo::summation, SummationRollup);
}

Row Latest(CounterId id, const std::string& group, const char* name, const std::string& unit,
           CounterInfo::StatsType type)
{
   return Simple(id, group, name, unit, type, CounterInfo::latest, LatestRollup);
}

} // namespace

const StatsMetadata::StatsInfo StatsMetadata::agentdStatsInfoList[] = {
   Composite(kCpuUsage, CLASS_CPU, "usage", UNIT_PERCENT, CounterInfo::rate),
   Composite(kCpuUsageMhz, CLASS_CPU, "usagemhz", UNIT_MHZ, CounterInfo::rate),
   Average(kCpuReservedCapacity, CLASS_CPU, "reservedCapacity", UNIT_MHZ, CounterInfo::absolute),
   Sum(kCpuSystem, CLASS_CPU, "system", UNIT_MILLISECOND, CounterInfo::delta),
   Sum(kCpuWait, CLASS_CPU, "wait", UNIT_MILLISECOND, CounterInfo::delta),
   Sum(kCpuReady, CLASS_CPU, "ready", UNIT_MILLISECOND, CounterInfo::delta),
   Sum(kCpuExtra, CLASS_CPU, "extra", UNIT_MILLISECOND, CounterInfo::delta),
   Latest(kCpuGuaranteed, CLASS_CPU, "guaranteed", UNIT_MILLISECOND, CounterInfo::absolute),
   Sum(kCpuUsed, CLASS_CPU, "used", UNIT_MILLISECOND, CounterInfo::delta),
   Sum(kCpuIdle, CLASS_CPU, "idle", UNIT_MILLISECOND, CounterInfo::delta),
   Composite(kMemUsage, CLASS_MEM, "usage", UNIT_PERCENT, CounterInfo::absolute),
   Composite(kMemGranted, CLASS_MEM, "granted", UNIT_KB, CounterInfo::absolute),
   Composite(kMemActive, CLASS_MEM, "active", UNIT_KB, CounterInfo::absolute),
   Composite(kMemShared, CLASS_MEM, "shared", UNIT_KB, CounterInfo::absolute),
   Composite(kMemZero, CLASS_MEM, "zero", UNIT_KB, CounterInfo::absolute),
   Composite(kMemUnreserved, CLASS_MEM, "unreserved", UNIT_KB, CounterInfo::absolute),
   Composite(kMemSwapUsed, CLASS_MEM, "swapused", UNIT_KB, CounterInfo::absolute),
   Composite(kMemSharedCommon, CLASS_MEM, "sharedcommon", UNIT_KB, CounterInfo::absolute),
   Composite(kMemHeap, CLASS_MEM, "heap", UNIT_KB, CounterInfo::absolute),
   Composite(kMemHeapFree, CLASS_MEM, "heapfree", UNIT_KB, CounterInfo::absolute),
   Latest(kMemState, CLASS_MEM, "state", UNIT_KB, CounterInfo::absolute),
   Composite(kMemVmmemctl, CLASS_MEM, "vmmemctl", UNIT_KB, CounterInfo::absolute),
   Composite(kMemOverhead, CLASS_MEM, "overhead", UNIT_KB, CounterInfo::absolute),
   Average(kMemReservedCapacity, CLASS_MEM, "reservedCapacity", UNIT_MB, CounterInfo::absolute),
   Composite(kDiskUsage, CLASS_DISK, "usage", UNIT_KBPS, CounterInfo::rate),
   Composite(kMemSwapped, CLASS_MEM, "swapped", UNIT_KB, CounterInfo::absolute),
   Composite(kMemSwapTarget, CLASS_MEM, "swaptarget", UNIT_KB, CounterInfo::absolute),
   Composite(kMemSwapIn, CLASS_MEM, "swapin", UNIT_KB, CounterInfo::absolute),
   Composite(kMemSwapOut, CLASS_MEM, "swapout", UNIT_KB, CounterInfo::absolute),
   Composite(kMemVmmemctlTarget, CLASS_MEM, "vmmemctltarget", UNIT_KB, CounterInfo::absolute),
   Composite(kMemConsumed, CLASS_MEM, "consumed", UNIT_KB, CounterInfo::absolute),
   Composite(kMemSysUsage, CLASS_MEM, "sysUsage", UNIT_KB, CounterInfo::absolute),
   Sum(kDiskNumberRead, CLASS_DISK, "numberRead", UNIT_NUMBER, CounterInfo::delta),
   Sum(kDiskNumberWrite, CLASS_DISK, "numberWrite", UNIT_NUMBER, CounterInfo::delta),
   Average(kDiskRead, CLASS_DISK, "read", UNIT_KBPS, CounterInfo::rate),
   Average(kDiskWrite, CLASS_DISK, "write", UNIT_KBPS, CounterInfo::rate),
   Sum(kDiskCommands, CLASS_DISK, "commands", UNIT_NUMBER, CounterInfo::delta),
   Sum(kDiskCommandsAborted, CLASS_DISK, "commandsAborted", UNIT_NUMBER, CounterInfo::delta),
   Sum(kDiskBusResets, CLASS_DISK, "busResets", UNIT_NUMBER, CounterInfo::delta),
   Composite(kNetUsage, CLASS_NET, "usage", UNIT_KBPS, CounterInfo::rate),
   Sum(kNetPacketsRx, CLASS_NET, "packetsRx", UNIT_NUMBER, CounterInfo::delta),
   Sum(kNetPacketsTx, CLASS_NET, "packetsTx", UNIT_NUMBER, CounterInfo::delta),
   Average(kNetReceived, CLASS_NET, "received", UNIT_KBPS, CounterInfo::rate),
   Average(kNetTransmitted, CLASS_NET, "transmitted", UNIT_KBPS, CounterInfo::rate),
   Latest(kSysUptime, CLASS_SYS, "uptime", UNIT_SECOND, CounterInfo::absolute),
   Sum(kSysHeartbeat, CLASS_SYS, "heartbeat", UNIT_NUMBER, CounterInfo::delta),
   Composite(kSysResourceCpuUsage, CLASS_SYS, "resourceCpuUsage", UNIT_MHZ, CounterInfo::rate),
   Latest(kRescpuActav1, CLASS_RESCPU, "actav1", UNIT_PERCENT, CounterInfo::absolute),
   Latest(kRescpuActpk1, CLASS_RESCPU, "actpk1", UNIT_PERCENT, CounterInfo::absolute),
   Latest(kRescpuRunav1, CLASS_RESCPU, "runav1", UNIT_PERCENT, CounterInfo::absolute),
   Latest(kRescpuRunpk1, CLASS_RESCPU, "runpk1", UNIT_PERCENT, CounterInfo::absolute),
   Latest(kRescpuMaxLimited1, CLASS_RESCPU, "maxLimited1", UNIT_PERCENT, CounterInfo::absolute),
   Latest(kRescpuActav5, CLASS_RESCPU, "actav5", UNIT_PERCENT, CounterInfo::absolute),
   Latest(kRescpuActpk5, CLASS_RESCPU, "actpk5", UNIT_PERCENT, CounterInfo::absolute),
   Latest(kRescpuRunav5, CLASS_RESCPU, "runav5", UNIT_PERCENT, CounterInfo::absolute),
   Latest(kRescpuRunpk5, CLASS_RESCPU, "runpk5", UNIT_PERCENT, CounterInfo::absolute),
   Latest(kRescpuMaxLimited5, CLASS_RESCPU, "maxLimited5", UNIT_PERCENT, CounterInfo::absolute),
   Latest(kRescpuActav15, CLASS_RESCPU, "actav15", UNIT_PERCENT, CounterInfo::absolute),
   Latest(kRescpuActpk15, CLASS_RESCPU, "actpk15", UNIT_PERCENT, CounterInfo::absolute),
   Latest(kRescpuRunav15, CLASS_RESCPU, "runav15", UNIT_PERCENT, CounterInfo::absolute),
   Latest(kRescpuRunpk15, CLASS_RESCPU, "runpk15", UNIT_PERCENT, CounterInfo::absolute),
   Latest(kRescpuMaxLimited15, CLASS_RESCPU, "maxLimited15", UNIT_PERCENT, CounterInfo::absolute),
   Latest(kRescpuSampleCount, CLASS_RESCPU, "sampleCount", UNIT_NUMBER, CounterInfo::absolute),
   Latest(kRescpuSamplePeriod, CLASS_RESCPU, "samplePeriod", UNIT_MILLISECOND,
          CounterInfo::absolute),
};

const int StatsMetadata::numAgentdStatsInfo = static_cast<int>(std::size(agentdStatsInfoList));

} // namespace Metrix
