#include "tests/simHost/simOracle.h"

#include "corvax/format.h"
#include "simHost/simFigures.h"
#include "simHost/simState.h"

#include <algorithm>
#include <fstream>
#include <numeric>
#include <ranges>
#include <sstream>

using namespace SimHost;
using Metrix::kUnset;
using Metrix::StatsDepot;

namespace {

using Kind = SimOracle::Kind;
using Devices = std::vector<std::pair<std::string, EntityKey>>;

constexpr uint64_t kWindowSec = 300;
constexpr uint64_t kFullPercent = 10000; // hundredths
constexpr uint32_t kBlocksPerKb = 2;
constexpr char kHost[] = "ha-host";
const std::string kRollupNames[] = {"raw", "average", "max", "min", "last", "sum"};

/// The samples of a series by stamp, absent ones unset; all columns' stamps, if the stat exists.
std::map<uint64_t, uint64_t> ReadSeries(StatsDepot& depot, const std::string& entity,
                                        const std::string& stat, const std::string& interval,
                                        StatsDepot::RollupType rollup)
{
   std::vector<uint64_t> values;
   std::vector<uint64_t> stamps;
   depot.GetSamples(entity, stat, kUnset, kUnset, values, &stamps, interval, rollup);
   std::map<uint64_t, uint64_t> series;
   for (size_t i = 0; i < values.size(); ++i) {
      series[stamps[i]] = values[i];
   }
   return series;
}

std::string Field(const char* field)
{
   return std::string(field, std::find(field, field + 256, '\0'));
}

/// Entity and stat name of every record in use, by docs/formats/idMap.md.
std::set<std::pair<std::string, std::string>> ReadIdMap(const std::string& path)
{
   std::ifstream file(path, std::ios::binary);
   std::set<std::pair<std::string, std::string>> stats;
   for (char record[524]; file.read(record, sizeof record);) {
      if (record[0] != '\0') {
         stats.emplace(Field(record), Field(record + 256));
      }
   }
   return stats;
}

std::string Text(uint64_t value)
{
   return value == kUnset ? "none" : std::to_string(value);
}

/// MHz x seconds: the CPUs run at 2500 MHz, of which so many microseconds were used.
uint64_t Mhz(uint64_t usedUs)
{
   static_assert(kCpuSpeedHz == 2500000000 && kBlockSizeBytes == 512);
   return usedUs / 400;
}

/// The stats of one entity: how the model's records make them. `part` is the part of the readings
/// that the stats added from now on belong to.
struct EntityTable {
   const SimOptions& options;
   const EntityKey key;
   std::map<std::string, SimOracle::Stat>& stats;
   uint8_t part = SimOracle::kCpu;

   void Add(const std::string& name, Kind kind, std::function<uint64_t(int64_t)> read,
            uint64_t most = 0)
   {
      stats[name] = {kind, part, most, std::move(read)};
   }

   /// One stat for each of the record's fields, by names set apart by blanks in the same order,
   /// `ending` behind each.
   template <class Field, class Read>
   void AddFields(Kind kind, Read record, uint32_t divisor, const std::string& ending,
                  const char* names, std::initializer_list<Field> fields, uint32_t factor = 1)
   {
      std::istringstream words(names);
      for (const Field field : fields) {
         std::string name;
         words >> name;
         Add(name + ending, kind,
             [=](int64_t t) { return uint64_t{record(t).*field} * factor / divisor; });
      }
   }

   void AddLoad()
   {
      using Load = HostCtl::Resource::CpuLoad;
      using History = HostCtl::Resource::CpuLoadHistory;
      const auto history = [k = key](int64_t t) { return GetCpuLoad(k, t); };
      const std::pair<const char*, Load History::*> periods[] = {{"1", &History::oneMinute},
                                                                 {"5", &History::fiveMinutes},
                                                                 {"15", &History::fifteenMinutes}};
      for (const auto& [minutes, period] : periods) {
         AddFields(
            Kind::LATEST, [=, p = period](int64_t t) { return history(t).*p; }, 1, minutes,
            "rescpu-actav rescpu-actpk rescpu-runav rescpu-runpk rescpu-maxLimited",
            {&Load::activeAverage, &Load::activePeak, &Load::runAverage, &Load::runPeak,
             &Load::maxLimited},
            100);
      }
      AddFields(Kind::LATEST, history, 1, "", "rescpu-sampleCount rescpu-samplePeriod",
                {&History::sampleCount, &History::samplePeriodMs});
   }

   void AddDisks(const Devices& disks)
   {
      using S = HostCtl::Storage::StorageStatistics;
      for (const auto& [name, diskKey] : disks) {
         const auto disk = [k = diskKey](int64_t t) { return GetDisk(k, t); };
         AddFields(Kind::GROWTH, disk, 1, "#" + name,
                   "disk-numberRead disk-numberWrite disk-commands disk-commandsAborted "
                   "disk-busResets",
                   {&S::readOperations, &S::writeOperations, &S::commands, &S::abortedCommands,
                    &S::busResets});
         AddFields(Kind::RATE_AVERAGE, disk, kBlocksPerKb, "#" + name, "disk-read disk-write",
                   {&S::blocksRead, &S::blocksWritten});
      }
      AddSum("disk-usage", disks, [](EntityKey k, int64_t t) {
         const S disk = GetDisk(k, t);
         return disk.blocksRead / kBlocksPerKb + disk.blocksWritten / kBlocksPerKb;
      });
   }

   void AddPorts(const Devices& cards)
   {
      using P = HostCtl::Network::PortStatistics;
      for (const auto& [name, cardKey] : cards) {
         const auto port = [k = cardKey](int64_t t) { return GetPort(k, t); };
         AddFields(Kind::RATE_AVERAGE, port, 1024, "#" + name, "net-received net-transmitted",
                   {&P::bytesReceived, &P::bytesSent});
         AddFields(Kind::GROWTH, port, 1, "#" + name, "net-packetsRx net-packetsTx",
                   {&P::packetsReceived, &P::packetsSent});
      }
      AddSum("net-usage", cards, [](EntityKey k, int64_t t) {
         const P port = GetPort(k, t);
         return uint64_t{port.bytesReceived / 1024} + port.bytesSent / 1024;
      });
   }

   /// The traffic of all devices together, where there are any.
   void AddSum(const char* name, const Devices& devices, uint64_t (*read)(EntityKey, int64_t))
   {
      const auto sum = [=](int64_t t) {
         uint64_t total = 0;
         for (const auto& [device, deviceKey] : devices) {
            total += read(deviceKey, t);
         }
         return total;
      };
      if (!devices.empty()) {
         Add(name, Kind::RATE, sum);
      }
   }

   template <class Read>
   void AddCpuUse(uint64_t cpus, Read usedUs)
   {
      Add(
         "cpu-usage", Kind::RATE, [=](int64_t t) { return usedUs(t) / (100 * cpus); },
         kFullPercent);
      Add("cpu-usagemhz", Kind::RATE, [=](int64_t t) { return Mhz(usedUs(t)); });
   }

   void AddMemory()
   {
      using M = HostCtl::Resource::MemoryStats;
      AddFields(Kind::GAUGE, [k = key](int64_t t) { return GetMemory(k, GetMemorySizeKb(k), t); },
                1, "",
                "mem-granted mem-active mem-shared mem-zero mem-swapped mem-vmmemctl mem-overhead",
                {&M::grantedKb, &M::activeKb, &M::sharedKb, &M::zeroKb, &M::swappedKb,
                 &M::balloonKb, &M::overheadKb});
   }

   void AddVmMemory()
   {
      using C = HostCtl::Resource::MemoryClientStats;
      using S = HostCtl::Resource::SwapInfo;
      const uint64_t sizeKb = GetMemorySizeKb(key);
      const auto client = [=, k = key](int64_t t) { return GetMemoryClient(k, sizeKb, t); };
      AddMemory();
      Add("mem-usage", Kind::GAUGE,
          [=](int64_t t) { return client(t).activeKb * kFullPercent / sizeKb; });
      Add("mem-consumed", Kind::GAUGE,
          [=](int64_t t) { return client(t).grantedKb - client(t).savedBySharingKb; });
      AddFields(Kind::GAUGE, client, 1, "", "mem-vmmemctltarget", {&C::balloonTargetKb});
      AddFields(Kind::GAUGE, [=, k = key](int64_t t) { return GetSwap(k, sizeKb, t); }, 1, "",
                "mem-swaptarget mem-swapin mem-swapout", {&S::targetKb, &S::inKb, &S::outKb});
   }

   void AddHostMemory()
   {
      using M = HostCtl::Resource::HostMemoryStats;
      using R = HostCtl::Resource::HostCapacity;
      const uint64_t physicalKb = GetPhysicalKb(options.cpus);
      const auto memory = [=, k = key](int64_t t) { return GetHostMemory(k, physicalKb, t); };
      AddFields(Kind::GAUGE, memory, 1, "",
                "mem-granted mem-active mem-shared mem-zero mem-unreserved mem-swapused "
                "mem-sharedcommon mem-heap mem-heapfree mem-vmmemctl mem-overhead mem-swapin "
                "mem-swapout mem-sysUsage",
                {&M::grantedKb, &M::activeKb, &M::sharedKb, &M::zeroKb, &M::unreservedKb,
                 &M::swapUsedKb, &M::sharedCommonKb, &M::heapKb, &M::heapFreeKb, &M::balloonKb,
                 &M::overheadKb, &M::swapInKb, &M::swapOutKb, &M::sysUsageKb});
      const auto consumedKb = [=](int64_t t) { return physicalKb - memory(t).freeKb; };
      Add("mem-consumed", Kind::GAUGE, consumedKb);
      Add("mem-usage", Kind::GAUGE,
          [=](int64_t t) { return consumedKb(t) * kFullPercent / physicalKb; });
      AddFields(Kind::LATEST, memory, 1, "", "mem-state", {&M::state});
      AddFields(Kind::GAUGE_AVERAGE, [k = key](int64_t t) { return GetHostCapacity(k, t); }, 1, "",
                "cpu-reservedCapacity mem-reservedCapacity",
                {&R::reservedCpuMhz, &R::reservedMemoryMb});
   }

   void AddHost()
   {
      using C = HostCtl::Resource::HostCpuStats;
      const uint64_t cpus = options.cpus;
      for (uint64_t i = 0; i < cpus; ++i) {
         const std::string cpu = "#" + std::to_string(i);
         const auto times = [=, k = key](int64_t t) { return GetHostCpu(k, i, t); };
         Add(
            "cpu-usage" + cpu, Kind::RATE, [=](int64_t t) { return times(t).usedUs / 100; },
            kFullPercent);
         AddFields(Kind::GROWTH, times, 1000, cpu, "cpu-used cpu-idle", {&C::usedUs, &C::idleUs});
      }
      AddCpuUse(cpus, [=, k = key](int64_t t) {
         uint64_t sum = 0;
         for (uint64_t i = 0; i < cpus; ++i) {
            sum += GetHostCpu(k, i, t).usedUs;
         }
         return sum;
      });
      AddLoad();
      AddHostMemory();
      Add("sys-uptime", Kind::LATEST, GetUptimeSec);
      for (const std::string_view group : kSystemGroups) {
         Add("sys-resourceCpuUsage#" + std::string(group), Kind::RATE,
             [k = MakeKey(options.seed, group)](int64_t t) {
                return Mhz(GetGroupCpu(k, t).usedUs);
             });
      }
      const auto devices = [this](uint64_t count, std::string (*name)(uint64_t)) {
         Devices all;
         for (uint64_t i = 0; i < count; ++i) {
            all.emplace_back(name(i), MakeKey(options.seed, name(i)));
         }
         return all;
      };
      AddDisks(devices(options.disks, GetDiskName));
      AddPorts(devices(options.nics, GetNicName));
   }

   void AddVm()
   {
      using C = HostCtl::Resource::CpuTimes;
      Add("sys-heartbeat", Kind::GROWTH, [k = key](int64_t t) { return GetHeartbeats(k, t); });
      for (uint64_t i = 0; i < options.vcpus; ++i) {
         const std::string vcpu = "#" + std::to_string(i);
         const auto times = [=, k = key](int64_t t) { return GetVcpu(k, i, t); };
         AddFields(Kind::GROWTH, times, 1000, vcpu,
                   "cpu-system cpu-wait cpu-ready cpu-extra cpu-used",
                   {&C::systemUs, &C::waitUs, &C::readyUs, &C::extraUs, &C::usedUs});
         AddFields(Kind::LATEST, times, 1, vcpu, "cpu-guaranteed", {&C::guaranteedMs});
         Add("cpu-usagemhz" + vcpu, Kind::RATE, [=](int64_t t) { return Mhz(times(t).usedUs); });
         // Of the first one; all have the same.
         AddFields(Kind::LATEST, times, 1000000, "", "sys-uptime", {&C::uptimeUs});
      }
      AddCpuUse(options.vcpus,
                [n = options.vcpus, k = key](int64_t t) { return GetVmCpu(k, n, t).usedUs; });
      AddLoad();
      Devices images;
      if (options.disks > 0) {
         const auto [first, second] = GetImageDisks(key, options.disks);
         images.emplace_back(GetDiskName(first), key.Part(0));
         if (second != first) {
            images.emplace_back(GetDiskName(second), key.Part(1));
         }
      }
      AddDisks(images);
      part = SimOracle::kMemory;
      AddVmMemory();
      Devices cards;
      for (uint64_t i = 0; i < options.cards; ++i) {
         cards.emplace_back(std::to_string(4000 + i), key.Part(i));
      }
      AddPorts(cards);
   }

   void AddPool()
   {
      Add("cpu-usagemhz", Kind::RATE,
          [k = key](int64_t t) { return Mhz(GetGroupCpu(k, t).usedUs); });
      AddMemory();
   }
};

} // namespace

SimOracle::SimOracle(const SimOptions& options, uint64_t finePeriodSec)
   : _options(options), _period(finePeriodSec)
{
   const auto table = [&](const std::string& entity) {
      SetReads(entity, kCpu);
      return EntityTable{_options, MakeKey(options.seed, entity), _stats[entity]};
   };
   table(kHost).AddHost();
   table(kRootPoolId).AddPool();
   for (uint64_t i = 1; i <= options.pools; ++i) {
      table(GetPoolId(i)).AddPool();
   }
   for (uint64_t i = 1; i <= options.vms; ++i) {
      table(GetVmId(i)).AddVm();
      const bool isFailing = i + options.failing > options.vms;
      SetReads(GetVmId(i), i <= options.stuck ? kNothing : isFailing ? kCpu : kAll);
   }
}

void SimOracle::AddRun(TimeStamp timeSec, bool isFirst)
{
   _nextRollup = isFirst ? kUnset : _nextRollup;
   if (_nextRollup == kUnset || timeSec >= _nextRollup) {
      // The run's first sample finds windows due that end before it.
      for (TimeStamp end = NextWindow(timeSec); _nextRollup != kUnset && end < timeSec;
           end += kWindowSec) {
         _windows[end] = _runs.size();
      }
      _nextRollup = timeSec + kWindowSec;
   }
   for (const auto& [entity, reads] : _reading) {
      _reads[entity][_runs.size()] = reads;
   }
   _runs.push_back({timeSec - timeSec % _period, timeSec, isFirst});
}

Metrix::TimeStamp SimOracle::NextWindow(TimeStamp timeSec) const
{
   if (!_windows.empty()) {
      return _windows.rbegin()->first + kWindowSec;
   }
   const TimeStamp end = (_runs.empty() ? timeSec : _runs.front().stamp) + kWindowSec - _period;
   return end - end % kWindowSec;
}

uint8_t SimOracle::GetReads(const std::string& entity, size_t run) const
{
   const auto runs = _reads.find(entity);
   return runs != _reads.end() && runs->second.contains(run) ? runs->second.at(run)
                                                             : uint8_t{kNothing};
}

std::optional<uint64_t> SimOracle::ExpectedRaw(const std::string& entity, const Stat& stat,
                                               size_t run) const
{
   if ((GetReads(entity, run) & stat.part) == 0) {
      return std::nullopt;
   }
   const uint64_t time = _runs[run].time;
   const auto atMost = [&](uint64_t value) {
      return stat.most > 0 ? std::min(value, stat.most) : value;
   };
   const uint64_t reading = stat.read(static_cast<int64_t>(time));
   if (stat.kind == Kind::GAUGE || stat.kind == Kind::GAUGE_AVERAGE || stat.kind == Kind::LATEST) {
      return atMost(reading);
   }
   size_t last = run;
   do {
      if (last == 0 || _runs[last].isFirst) {
         return std::nullopt;
      }
      --last;
   } while ((GetReads(entity, last) & stat.part) == 0);
   const uint64_t passed = time - _runs[last].time;
   const uint64_t before = stat.read(static_cast<int64_t>(_runs[last].time));
   if (passed >= 2 * _period || reading < before) {
      return std::nullopt;
   }
   return atMost(stat.kind == Kind::GROWTH ? reading - before : (reading - before) / passed);
}

std::optional<uint64_t> SimOracle::ExpectedRollup(const std::string& entity,
                                                  const std::string& statName, const Stat& stat,
                                                  RollupType rollup, TimeStamp end) const
{
   const auto window = _windows.find(end);
   if (window == _windows.end()) {
      return std::nullopt;
   }
   // Of the run that rolls up only the host's first sample is in the store already.
   const size_t limit = window->second + (entity == kHost && statName == "cpu-usage#0" ? 1 : 0);
   std::vector<uint64_t> values;
   const auto first = std::ranges::upper_bound(_runs, end - kWindowSec, {}, &Run::stamp);
   for (auto run = static_cast<size_t>(first - _runs.begin());
        run < std::min(limit, _runs.size()) && _runs[run].stamp <= end; ++run) {
      if (const auto value = ExpectedRaw(entity, stat, run)) {
         values.push_back(*value);
      }
   }
   if (values.empty()) {
      return std::nullopt;
   }
   const uint64_t sum = std::accumulate(values.begin(), values.end(), uint64_t{0});
   switch (rollup) {
   case StatsDepot::ROLLUP_AVERAGE:
      return sum / values.size();
   case StatsDepot::ROLLUP_MAX:
      return std::ranges::max(values);
   case StatsDepot::ROLLUP_MIN:
      return std::ranges::min(values);
   case StatsDepot::ROLLUP_LAST:
      return values.back();
   default:
      return sum;
   }
}

bool SimOracle::Keeps(Kind kind, RollupType rollup)
{
   if (kind == Kind::LATEST || kind == Kind::GROWTH) {
      return rollup == (kind == Kind::LATEST ? StatsDepot::ROLLUP_LAST : StatsDepot::ROLLUP_SUM);
   }
   return rollup == StatsDepot::ROLLUP_AVERAGE ||
          ((kind == Kind::GAUGE || kind == Kind::RATE) &&
           (rollup == StatsDepot::ROLLUP_MAX || rollup == StatsDepot::ROLLUP_MIN));
}

std::optional<uint64_t> SimOracle::Expected(const std::string& entity, const std::string& statName,
                                            RollupType rollup, bool isFinest, TimeStamp stamp) const
{
   const auto stats = _stats.find(entity);
   if (isFinest != (rollup == StatsDepot::ROLLUP_NONE) || stats == _stats.end() ||
       !stats->second.contains(statName)) {
      return std::nullopt;
   }
   const Stat& stat = stats->second.at(statName);
   if (!isFinest) {
      return Keeps(stat.kind, rollup) ? ExpectedRollup(entity, statName, stat, rollup, stamp)
                                      : std::nullopt;
   }
   const auto run = std::ranges::lower_bound(_runs, stamp, {}, &Run::stamp);
   return run == _runs.end() || run->stamp != stamp
             ? std::nullopt
             : ExpectedRaw(entity, stat, static_cast<size_t>(run - _runs.begin()));
}

SimOracle SimOracle::FromDepot(StatsDepot& depot, const SimOptions& options)
{
   Corvax::RefVector<Metrix::StatsDepotInterval> intervals;
   depot.GetIntervals(intervals);
   const auto period = static_cast<uint64_t>(intervals[0]->samplingPeriod);
   SimOracle oracle(options, period);
   const auto series = [&](const std::string& entity, const char* stat) {
      return ReadSeries(depot, entity, stat, intervals[0]->name, StatsDepot::ROLLUP_NONE);
   };
   const auto uptimes = series(kHost, "sys-uptime");
   if (uptimes.size() >= static_cast<size_t>(intervals[0]->numSamples)) {
      // What came before it is gone, and with it what its growth was counted from.
      oracle._firstColumn = uptimes.begin()->first;
   }
   std::map<std::string, std::array<std::map<uint64_t, uint64_t>, 2>> marks;
   for (const auto& [entity, stats] : oracle._stats) {
      if (entity != kHost && (options.events > 0 || !options.script.empty())) {
         const bool isVm = stats.contains("sys-uptime");
         marks[entity] = {series(entity, isVm ? "sys-uptime" : "mem-granted"),
                          isVm ? series(entity, "mem-granted") : std::map<uint64_t, uint64_t>()};
      }
   }
   const auto has = [](const std::map<uint64_t, uint64_t>& samples, uint64_t stamp) {
      const auto sample = samples.find(stamp);
      return sample != samples.end() && sample->second != kUnset;
   };
   const auto growths = series(kHost, "cpu-used#0");
   for (const auto& [stamp, uptime] : uptimes) {
      for (const auto& [entity, mark] : marks) {
         oracle.SetReads(entity, static_cast<uint8_t>((has(mark[0], stamp) ? kCpu : kNothing) |
                                                      (has(mark[1], stamp) ? kMemory : kNothing)));
      }
      const uint64_t time = static_cast<uint64_t>(kHostStartSec) + uptime;
      // Without growth a collector has started, or runs were missed.
      oracle.AddRun(time, oracle._runs.empty() || (!has(growths, stamp) &&
                                                   time - oracle._runs.back().time < 2 * period));
   }
   return oracle;
}

SimOracle::Result SimOracle::Compare(StatsDepot& depot, const std::string& idMapPath) const
{
   auto all = ReadIdMap(idMapPath);
   Result result;
   result.stats = all.size();
   for (const auto& [entity, stats] : _stats) {
      for (const auto& [name, stat] : stats) {
         all.emplace(entity, name);
      }
   }
   Corvax::RefVector<Metrix::StatsDepotInterval> intervals;
   depot.GetIntervals(intervals);
   for (const auto& interval : intervals) {
      const bool isFinest = interval == intervals[0];
      if (!isFinest && _firstColumn) {
         continue; // nobody knows which of the runs that are gone rolled up what
      }
      for (const auto& [entity, name] : all) {
         CompareStat(depot, *interval, isFinest, entity, name, result);
      }
   }
   return result;
}

void SimOracle::CompareStat(StatsDepot& depot, const Metrix::StatsDepotInterval& interval,
                            bool isFinest, const std::string& entity, const std::string& name,
                            Result& result) const
{
   std::set<TimeStamp> stamps;
   for (const Run& run : _runs) {
      stamps.insert(run.stamp);
   }
   if (!isFinest) {
      stamps = {std::views::keys(_windows).begin(), std::views::keys(_windows).end()};
   }
   while (stamps.size() > static_cast<size_t>(interval.numSamples)) {
      stamps.erase(stamps.begin()); // their columns were used again
   }
   for (int i = StatsDepot::ROLLUP_NONE; i <= StatsDepot::ROLLUP_SUM; ++i) {
      const auto rollup = static_cast<RollupType>(i);
      auto stored = ReadSeries(depot, entity, name, interval.name, rollup);
      for (const TimeStamp stamp : stamps) {
         stored.try_emplace(stamp, kUnset);
      }
      for (const auto& [stamp, value] : stored) {
         if (isFinest && _firstColumn == stamp) {
            continue;
         }
         const uint64_t expected = Expected(entity, name, rollup, isFinest, stamp).value_or(kUnset);
         result.samples += expected != kUnset || value != kUnset ? 1 : 0;
         if (expected == value) {
            continue;
         }
         ++result.differ;
         if (result.texts.size() < 20) {
            result.texts.push_back(Corvax::Format("%1 %2 %3 %4 at %5: stored %6, expected %7",
                                                  entity, name, interval.name, kRollupNames[i],
                                                  stamp, Text(value), Text(expected)));
         }
      }
   }
}
