#include "metrix/statsMetadata.h"

#include "corvax/exception.h"

namespace Metrix {

// The strings stand before the table, which is built from them when the library is loaded.
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

const std::vector<CounterInfo::RollupType> AllCounterTypes = {
   CounterInfo::average, CounterInfo::minimum, CounterInfo::maximum};
const std::vector<StatsDepot::RollupType> AllRollups = {
   StatsDepot::ROLLUP_AVERAGE, StatsDepot::ROLLUP_MIN, StatsDepot::ROLLUP_MAX};
const std::vector<StatsDepot::RollupType> AverageRollup = {StatsDepot::ROLLUP_AVERAGE};
const std::vector<StatsDepot::RollupType> SummationRollup = {StatsDepot::ROLLUP_SUM};
const std::vector<StatsDepot::RollupType> LatestRollup = {StatsDepot::ROLLUP_LAST};

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

/// Raw values, with the three derived counters behind them.
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

// The high 16 bits of an id number the group. Ids are kept for ever: those of mem jump from 0x1001B
// to 0x10020, and those of rescpu are not in order, 0x50000 to 0x50008 being the nine averages and
// active peaks.
const StatsMetadata::StatsInfo StatsMetadata::agentdStatsInfoList[] = {
   Composite(0x00000, CLASS_CPU, "usage", UNIT_PERCENT, CounterInfo::rate),
   Composite(0x00004, CLASS_CPU, "usagemhz", UNIT_MHZ, CounterInfo::rate),
   Average(0x00008, CLASS_CPU, "reservedCapacity", UNIT_MHZ, CounterInfo::absolute),
   Sum(0x00009, CLASS_CPU, "system", UNIT_MILLISECOND, CounterInfo::delta),
   Sum(0x0000A, CLASS_CPU, "wait", UNIT_MILLISECOND, CounterInfo::delta),
   Sum(0x0000B, CLASS_CPU, "ready", UNIT_MILLISECOND, CounterInfo::delta),
   Sum(0x0000C, CLASS_CPU, "extra", UNIT_MILLISECOND, CounterInfo::delta),
   Latest(0x0000D, CLASS_CPU, "guaranteed", UNIT_MILLISECOND, CounterInfo::absolute),
   Sum(0x0000E, CLASS_CPU, "used", UNIT_MILLISECOND, CounterInfo::delta),
   Sum(0x0000F, CLASS_CPU, "idle", UNIT_MILLISECOND, CounterInfo::delta),
   Composite(0x10000, CLASS_MEM, "usage", UNIT_PERCENT, CounterInfo::absolute),
   Composite(0x10004, CLASS_MEM, "granted", UNIT_KB, CounterInfo::absolute),
   Composite(0x10008, CLASS_MEM, "active", UNIT_KB, CounterInfo::absolute),
   Composite(0x1000C, CLASS_MEM, "shared", UNIT_KB, CounterInfo::absolute),
   Composite(0x10010, CLASS_MEM, "zero", UNIT_KB, CounterInfo::absolute),
   Composite(0x10014, CLASS_MEM, "unreserved", UNIT_KB, CounterInfo::absolute),
   Composite(0x10018, CLASS_MEM, "swapused", UNIT_KB, CounterInfo::absolute),
   Composite(0x10020, CLASS_MEM, "sharedcommon", UNIT_KB, CounterInfo::absolute),
   Composite(0x10024, CLASS_MEM, "heap", UNIT_KB, CounterInfo::absolute),
   Composite(0x10028, CLASS_MEM, "heapfree", UNIT_KB, CounterInfo::absolute),
   Latest(0x1002C, CLASS_MEM, "state", UNIT_KB, CounterInfo::absolute),
   Composite(0x1002D, CLASS_MEM, "vmmemctl", UNIT_KB, CounterInfo::absolute),
   Composite(0x10031, CLASS_MEM, "overhead", UNIT_KB, CounterInfo::absolute),
   Average(0x10035, CLASS_MEM, "reservedCapacity", UNIT_MB, CounterInfo::absolute),
   Composite(0x20000, CLASS_DISK, "usage", UNIT_KBPS, CounterInfo::rate),
   Composite(0x10036, CLASS_MEM, "swapped", UNIT_KB, CounterInfo::absolute),
   Composite(0x1003A, CLASS_MEM, "swaptarget", UNIT_KB, CounterInfo::absolute),
   Composite(0x1003E, CLASS_MEM, "swapin", UNIT_KB, CounterInfo::absolute),
   Composite(0x10042, CLASS_MEM, "swapout", UNIT_KB, CounterInfo::absolute),
   Composite(0x10046, CLASS_MEM, "vmmemctltarget", UNIT_KB, CounterInfo::absolute),
   Composite(0x1004A, CLASS_MEM, "consumed", UNIT_KB, CounterInfo::absolute),
   Composite(0x1004E, CLASS_MEM, "sysUsage", UNIT_KB, CounterInfo::absolute),
   Sum(0x20004, CLASS_DISK, "numberRead", UNIT_NUMBER, CounterInfo::delta),
   Sum(0x20005, CLASS_DISK, "numberWrite", UNIT_NUMBER, CounterInfo::delta),
   Average(0x20006, CLASS_DISK, "read", UNIT_KBPS, CounterInfo::rate),
   Average(0x20007, CLASS_DISK, "write", UNIT_KBPS, CounterInfo::rate),
   Sum(0x20008, CLASS_DISK, "commands", UNIT_NUMBER, CounterInfo::delta),
   Sum(0x20009, CLASS_DISK, "commandsAborted", UNIT_NUMBER, CounterInfo::delta),
   Sum(0x2000A, CLASS_DISK, "busResets", UNIT_NUMBER, CounterInfo::delta),
   Composite(0x30000, CLASS_NET, "usage", UNIT_KBPS, CounterInfo::rate),
   Sum(0x30004, CLASS_NET, "packetsRx", UNIT_NUMBER, CounterInfo::delta),
   Sum(0x30005, CLASS_NET, "packetsTx", UNIT_NUMBER, CounterInfo::delta),
   Average(0x30006, CLASS_NET, "received", UNIT_KBPS, CounterInfo::rate),
   Average(0x30007, CLASS_NET, "transmitted", UNIT_KBPS, CounterInfo::rate),
   Latest(0x40000, CLASS_SYS, "uptime", UNIT_SECOND, CounterInfo::absolute),
   Sum(0x40001, CLASS_SYS, "heartbeat", UNIT_NUMBER, CounterInfo::delta),
   Composite(0x40002, CLASS_SYS, "resourceCpuUsage", UNIT_MHZ, CounterInfo::rate),
   Latest(0x50000, CLASS_RESCPU, "actav1", UNIT_PERCENT, CounterInfo::absolute),
   Latest(0x50001, CLASS_RESCPU, "actpk1", UNIT_PERCENT, CounterInfo::absolute),
   Latest(0x50002, CLASS_RESCPU, "runav1", UNIT_PERCENT, CounterInfo::absolute),
   Latest(0x50009, CLASS_RESCPU, "runpk1", UNIT_PERCENT, CounterInfo::absolute),
   Latest(0x5000A, CLASS_RESCPU, "maxLimited1", UNIT_PERCENT, CounterInfo::absolute),
   Latest(0x50003, CLASS_RESCPU, "actav5", UNIT_PERCENT, CounterInfo::absolute),
   Latest(0x50004, CLASS_RESCPU, "actpk5", UNIT_PERCENT, CounterInfo::absolute),
   Latest(0x50005, CLASS_RESCPU, "runav5", UNIT_PERCENT, CounterInfo::absolute),
   Latest(0x5000B, CLASS_RESCPU, "runpk5", UNIT_PERCENT, CounterInfo::absolute),
   Latest(0x5000C, CLASS_RESCPU, "maxLimited5", UNIT_PERCENT, CounterInfo::absolute),
   Latest(0x50006, CLASS_RESCPU, "actav15", UNIT_PERCENT, CounterInfo::absolute),
   Latest(0x50007, CLASS_RESCPU, "actpk15", UNIT_PERCENT, CounterInfo::absolute),
   Latest(0x50008, CLASS_RESCPU, "runav15", UNIT_PERCENT, CounterInfo::absolute),
   Latest(0x5000D, CLASS_RESCPU, "runpk15", UNIT_PERCENT, CounterInfo::absolute),
   Latest(0x5000E, CLASS_RESCPU, "maxLimited15", UNIT_PERCENT, CounterInfo::absolute),
   Latest(0x5000F, CLASS_RESCPU, "sampleCount", UNIT_NUMBER, CounterInfo::absolute),
   Latest(0x50010, CLASS_RESCPU, "samplePeriod", UNIT_MILLISECOND, CounterInfo::absolute),
};

const int StatsMetadata::numAgentdStatsInfo = static_cast<int>(std::size(agentdStatsInfoList));

} // namespace Metrix
