#include "tests/simHost/simStatTable.h"

#include "simHost/simFigures.h"
#include "simHost/simState.h"

#include <sstream>

using namespace SimHost;

namespace {

using Kind = SimStat::Kind;
using Devices = std::vector<std::pair<std::string, EntityKey>>;

constexpr uint64_t kFullPercent = 10000; // hundredths
constexpr uint32_t kBlocksPerKb = 2;

/// CPU time as MHz x seconds, on CPUs of 2500 MHz.
uint64_t Mhz(uint64_t usedUs)
{
   static_assert(kCpuSpeedHz == 2500000000 && kBlockSizeBytes == 512);
   return usedUs / 400;
}

/// Fills the table of one entity from the model's records. `part` is the part of the entity that
/// the stats added next belong to.
struct TableBuilder {
   const SimOptions& options;
   const EntityKey key;
   SimStatTable stats = {};
   uint8_t part = SimStat::kCpu;

   void Add(const std::string& name, Kind kind, std::function<uint64_t(int64_t)> read,
            uint64_t limit = 0)
   {
      stats[name] = {kind, part, limit, std::move(read)};
   }

   /// One stat for each of the record's fields. `names`, in the same order, are separated by
   /// blanks; `ending` is appended to each.
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

   /// The traffic of all devices together, unless there are none.
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
         // The same for every virtual CPU.
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
      part = SimStat::kMemory;
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

SimStatTable MakeHostStats(const SimOptions& options, const std::string& hostId)
{
   TableBuilder table{options, MakeKey(options.seed, hostId)};
   table.AddHost();
   return table.stats;
}

SimStatTable MakePoolStats(const SimOptions& options, const std::string& poolId)
{
   TableBuilder table{options, MakeKey(options.seed, poolId)};
   table.AddPool();
   return table.stats;
}

SimStatTable MakeVmStats(const SimOptions& options, const std::string& vmId)
{
   TableBuilder table{options, MakeKey(options.seed, vmId)};
   table.AddVm();
   return table.stats;
}
