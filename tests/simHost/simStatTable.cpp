#include "tests/simHost/simStatTable.h"

#include "simHost/simFigures.h"
#include "simHost/simState.h"

#include <algorithm>
#include <sstream>

using namespace SimHost;

namespace {

using Kind = SimStat::Kind;
using Reading = SimStat::Reading;
using Figure64 = std::optional<uint64_t>;

constexpr uint64_t kFullPercent = 10000; // hundredths
constexpr uint32_t kBlocksPerKb = 2;

/// CPU time as MHz x seconds, on CPUs of 2500 MHz.
uint64_t Mhz(uint64_t usedUs)
{
   static_assert(kCpuSpeedHz == 2500000000 && kBlockSizeBytes == 512);
   return usedUs / 400;
}

/// A disk or NIC of an entity: since when it has been there, if it is.
struct Device {
   std::string name;
   EntityKey key;
   SimShape::Kind kind;
   uint64_t index;
   std::optional<uint64_t> hostDisk = std::nullopt; ///< of an image: it is there only with its disk

   std::optional<int64_t> FindStart(const Reading& at) const
   {
      const auto start = at.shape.FindStart(kind, index);
      if (!start || !hostDisk) {
         return start;
      }
      const auto diskStart = at.host.FindStart(kind, *hostDisk);
      return diskStart ? std::optional(std::max(*start, *diskStart)) : std::nullopt;
   }
};

using Devices = std::vector<Device>;

/// CPU time of all virtual CPUs that a VM has had, each up to the second in which it left, or up to
/// `timeSec`. An early reading is of a time before some of them left.
uint64_t GetUsedUs(EntityKey vm, const SimShape& shape, int64_t timeSec, bool isReading = true)
{
   uint64_t usedUs = 0;
   for (const SimShape::Part& part : shape.parts) {
      const bool hasLeft =
         part.untilSec != SimShape::kStays && (isReading || part.untilSec < timeSec);
      if (part.kind == SimShape::VCPUS) {
         usedUs += Counter(vm.Part(part.index), Figure::VCPU_USED_US,
                           {hasLeft ? part.untilSec : timeSec, part.fromSec});
      }
   }
   return usedUs;
}

/// The same shared out among the virtual CPUs of each time: what the quotient has grown by between
/// two changes of their number, summed up.
uint64_t GetPerVcpuUs(EntityKey vm, const SimShape& shape, int64_t timeSec)
{
   uint64_t totalUs = 0;
   for (size_t i = 0; i < shape.steps.size(); ++i) {
      const SimShape::Step& step = shape.steps[i];
      const bool isLast = i + 1 == shape.steps.size();
      const int64_t endSec = isLast ? timeSec : shape.steps[i + 1].timeSec;
      const uint64_t atEndUs = GetUsedUs(vm, shape, endSec, isLast) / step.vcpus;
      totalUs += atEndUs - (i == 0 ? 0 : GetUsedUs(vm, shape, step.timeSec, false) / step.vcpus);
   }
   return totalUs;
}

/// Fills the table of one entity from the model's records.
struct TableBuilder {
   const SimOptions& options;
   const EntityKey key;
   const bool wideFigures;
   SimStatTable stats = {};
   /// What runs do not read of the entity at times; null: they read everything.
   bool (*isMissing)(const SimShape& shape) = nullptr;

   void Add(const std::string& name, Kind kind, std::function<Figure64(const Reading&)> read,
            uint64_t limit = 0)
   {
      stats[name] = {kind, limit, [missing = isMissing, read](const Reading& at) {
                        return missing && missing(at.shape) ? std::nullopt : read(at);
                     }};
   }

   /// One stat for each field of the record, which `record` returns as an optional. `names`, in the
   /// same order, are separated by blanks; `ending` is appended to each.
   template <class Field, class Read>
   void AddFields(Kind kind, Read record, uint32_t divisor, const std::string& ending,
                  const char* names, std::initializer_list<Field> fields, uint32_t factor = 1)
   {
      std::istringstream words(names);
      for (const Field field : fields) {
         std::string name;
         words >> name;
         Add(name + ending, kind, [=](const Reading& at) {
            const auto all = record(at);
            return all ? Figure64(uint64_t{(*all).*field} * factor / divisor) : std::nullopt;
         });
      }
   }

   void AddLoad()
   {
      using Load = HostCtl::Resource::CpuLoad;
      using History = HostCtl::Resource::CpuLoadHistory;
      const auto history = [k = key](const Reading& at) {
         return std::optional(GetCpuLoad(k, at.timeSec));
      };
      const std::pair<const char*, Load History::*> periods[] = {{"1", &History::oneMinute},
                                                                 {"5", &History::fiveMinutes},
                                                                 {"15", &History::fifteenMinutes}};
      for (const auto& [minutes, period] : periods) {
         AddFields(
            Kind::LATEST,
            [=, p = period](const Reading& at) { return std::optional((*history(at)).*p); }, 1,
            minutes, "rescpu-actav rescpu-actpk rescpu-runav rescpu-runpk rescpu-maxLimited",
            {&Load::activeAverage, &Load::activePeak, &Load::runAverage, &Load::runPeak,
             &Load::maxLimited},
            100);
      }
      AddFields(Kind::LATEST, history, 1, "", "rescpu-sampleCount rescpu-samplePeriod",
                {&History::sampleCount, &History::samplePeriodMs});
   }

   void AddDisks(const Devices& disks, bool isSteady)
   {
      using S = HostCtl::Storage::StorageStatistics;
      for (const Device& device : disks) {
         const auto disk = [=](const Reading& at) {
            const auto start = device.FindStart(at);
            return start ? std::optional(GetDisk(device.key, {at.timeSec, *start})) : std::nullopt;
         };
         AddFields(Kind::GROWTH, disk, 1, "#" + device.name,
                   "disk-numberRead disk-numberWrite disk-commands disk-commandsAborted "
                   "disk-busResets",
                   {&S::readOperations, &S::writeOperations, &S::commands, &S::abortedCommands,
                    &S::busResets});
         AddFields(Kind::RATE_AVERAGE, disk, kBlocksPerKb, "#" + device.name,
                   "disk-read disk-write", {&S::blocksRead, &S::blocksWritten});
      }
      AddSum("disk-usage", disks, isSteady, [](EntityKey k, const Moment& moment) {
         const S disk = GetDisk(k, moment);
         return disk.blocksRead / kBlocksPerKb + disk.blocksWritten / kBlocksPerKb;
      });
   }

   void AddPorts(const Devices& cards)
   {
      using P = HostCtl::Network::PortStatistics;
      const auto read = [wide = wideFigures](EntityKey k, const Moment& moment) {
         P port = GetPort(k, moment);
         for (uint64_t P::* const field :
              {&P::bytesReceived, &P::bytesSent, &P::packetsReceived, &P::packetsSent}) {
            port.*field = wide ? port.*field : static_cast<uint32_t>(port.*field);
         }
         return port;
      };
      for (const Device& device : cards) {
         const auto port = [=](const Reading& at) {
            const auto start = device.FindStart(at);
            return start ? std::optional(read(device.key, {at.timeSec, *start})) : std::nullopt;
         };
         AddFields(Kind::RATE_AVERAGE, port, 1024, "#" + device.name,
                   "net-received net-transmitted", {&P::bytesReceived, &P::bytesSent});
         AddFields(Kind::GROWTH, port, 1, "#" + device.name, "net-packetsRx net-packetsTx",
                   {&P::packetsReceived, &P::packetsSent});
      }
      AddSum("net-usage", cards, wideFigures, [=](EntityKey k, const Moment& moment) {
         const P port = read(k, moment);
         return port.bytesReceived / 1024 + port.bytesSent / 1024;
      });
   }

   /// The traffic of all devices that are there, unless there are none. A steady sum is that of all
   /// that have been there since the entity's start.
   template <class Read>
   void AddSum(const char* name, const Devices& devices, bool isSteady, Read read)
   {
      Add(name, Kind::RATE, [=](const Reading& at) {
         bool isAny = false;
         uint64_t total = 0;
         for (const Device& device : devices) {
            if (const auto start = device.FindStart(at)) {
               isAny = true;
               total += read(device.key, {at.timeSec, *start});
            }
            for (const SimShape::Part& part : at.shape.parts) {
               if (isSteady && part.kind == device.kind && part.index == device.index &&
                   part.untilSec != SimShape::kStays) {
                  total += read(device.key, {part.untilSec, part.fromSec});
               }
            }
         }
         return isAny ? Figure64(total) : std::nullopt;
      });
   }

   void AddGroupCpu(const std::string& name, EntityKey group)
   {
      Add(name, Kind::RATE,
          [=](const Reading& at) { return Mhz(GetGroupCpu(group, at.timeSec).usedUs); });
   }

   void AddMemory()
   {
      using M = HostCtl::Resource::MemoryStats;
      AddFields(Kind::GAUGE,
                [k = key](const Reading& at) {
                   return std::optional(GetMemory(k, GetMemorySizeKb(k), at.timeSec));
                },
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
      const auto client = [=, k = key](const Reading& at) {
         return std::optional(GetMemoryClient(k, sizeKb, at.timeSec));
      };
      AddMemory();
      Add("mem-usage", Kind::GAUGE,
          [=](const Reading& at) { return client(at)->activeKb * kFullPercent / sizeKb; });
      Add("mem-consumed", Kind::GAUGE,
          [=](const Reading& at) { return client(at)->grantedKb - client(at)->savedBySharingKb; });
      AddFields(Kind::GAUGE, client, 1, "", "mem-vmmemctltarget", {&C::balloonTargetKb});
      AddFields(Kind::GAUGE,
                [=, k = key](const Reading& at) {
                   return std::optional(GetSwap(k, sizeKb, {at.timeSec, at.shape.startSec}));
                },
                1, "", "mem-swaptarget mem-swapin mem-swapout",
                {&S::targetKb, &S::inKb, &S::outKb});
   }

   void AddHostMemory()
   {
      using M = HostCtl::Resource::HostMemoryStats;
      using R = HostCtl::Resource::HostCapacity;
      const uint64_t physicalKb = GetPhysicalKb(options.cpus);
      const auto memory = [=, k = key](const Reading& at) {
         return std::optional(GetHostMemory(k, physicalKb, at.timeSec));
      };
      AddFields(Kind::GAUGE, memory, 1, "",
                "mem-granted mem-active mem-shared mem-zero mem-unreserved mem-swapused "
                "mem-sharedcommon mem-heap mem-heapfree mem-vmmemctl mem-overhead mem-swapin "
                "mem-swapout mem-sysUsage",
                {&M::grantedKb, &M::activeKb, &M::sharedKb, &M::zeroKb, &M::unreservedKb,
                 &M::swapUsedKb, &M::sharedCommonKb, &M::heapKb, &M::heapFreeKb, &M::balloonKb,
                 &M::overheadKb, &M::swapInKb, &M::swapOutKb, &M::sysUsageKb});
      const auto consumedKb = [=](const Reading& at) { return physicalKb - memory(at)->freeKb; };
      Add("mem-consumed", Kind::GAUGE, consumedKb);
      Add("mem-usage", Kind::GAUGE,
          [=](const Reading& at) { return consumedKb(at) * kFullPercent / physicalKb; });
      AddFields(Kind::LATEST, memory, 1, "", "mem-state", {&M::state});
      AddFields(
         Kind::GAUGE_AVERAGE,
         [k = key](const Reading& at) { return std::optional(GetHostCapacity(k, at.timeSec)); }, 1,
         "", "cpu-reservedCapacity mem-reservedCapacity",
         {&R::reservedCpuMhz, &R::reservedMemoryMb});
   }

   void AddHost()
   {
      using C = HostCtl::Resource::HostCpuStats;
      const uint64_t cpus = options.cpus;
      for (uint64_t i = 0; i < cpus; ++i) {
         const std::string cpu = "#" + std::to_string(i);
         const auto times = [=, k = key](const Reading& at) {
            return std::optional(GetHostCpu(k, i, at.timeSec));
         };
         Add(
            "cpu-usage" + cpu, Kind::RATE,
            [=](const Reading& at) { return times(at)->usedUs / 100; }, kFullPercent);
         AddFields(Kind::GROWTH, times, 1000, cpu, "cpu-used cpu-idle", {&C::usedUs, &C::idleUs});
      }
      const auto usedUs = [=, k = key](const Reading& at) {
         uint64_t sum = 0;
         for (uint64_t i = 0; i < cpus; ++i) {
            sum += GetHostCpu(k, i, at.timeSec).usedUs;
         }
         return sum;
      };
      Add(
         "cpu-usage", Kind::RATE, [=](const Reading& at) { return usedUs(at) / (100 * cpus); },
         kFullPercent);
      Add("cpu-usagemhz", Kind::RATE, [=](const Reading& at) { return Mhz(usedUs(at)); });
      AddLoad();
      AddHostMemory();
      Add("sys-uptime", Kind::LATEST, [](const Reading& at) { return GetUptimeSec({at.timeSec}); });
      for (const std::string_view group : kSystemGroups) {
         AddGroupCpu("sys-resourceCpuUsage#" + std::string(group), MakeKey(options.seed, group));
      }
      const auto devices = [this](SimShape::Kind kind, uint64_t count,
                                  std::string (*name)(uint64_t)) {
         Devices all;
         for (uint64_t i = 0; i < count; ++i) {
            all.push_back({name(i), MakeKey(options.seed, name(i)), kind, i});
         }
         return all;
      };
      AddDisks(devices(SimShape::DISKS, options.disks, GetDiskName), true);
      AddPorts(devices(SimShape::CARDS, options.nics, GetNicName));
   }

   void AddVmCpu(uint64_t vcpus)
   {
      using C = HostCtl::Resource::CpuTimes;
      Add("sys-heartbeat", Kind::GROWTH, [k = key](const Reading& at) {
         return GetHeartbeats(k, {at.timeSec, at.shape.startSec});
      });
      Add("sys-uptime", Kind::LATEST, [](const Reading& at) {
         return static_cast<uint64_t>(std::max<int64_t>(at.timeSec - at.shape.startSec, 0));
      });
      for (uint64_t i = 0; i < vcpus; ++i) {
         const std::string vcpu = "#" + std::to_string(i);
         const auto times = [=, k = key](const Reading& at) {
            const auto start = at.shape.FindStart(SimShape::VCPUS, i);
            return start ? std::optional(GetVcpu(k, i, {at.timeSec, *start})) : std::nullopt;
         };
         AddFields(Kind::GROWTH, times, 1000, vcpu,
                   "cpu-system cpu-wait cpu-ready cpu-extra cpu-used",
                   {&C::systemUs, &C::waitUs, &C::readyUs, &C::extraUs, &C::usedUs});
         AddFields(Kind::LATEST, times, 1, vcpu, "cpu-guaranteed", {&C::guaranteedMs});
         Add("cpu-usagemhz" + vcpu, Kind::RATE, [=](const Reading& at) {
            const auto all = times(at);
            return all ? Figure64(Mhz(all->usedUs)) : std::nullopt;
         });
      }
      Add(
         "cpu-usage", Kind::RATE,
         [k = key](const Reading& at) { return GetPerVcpuUs(k, at.shape, at.timeSec) / 100; },
         kFullPercent);
      Add("cpu-usagemhz", Kind::RATE,
          [k = key](const Reading& at) { return Mhz(GetUsedUs(k, at.shape, at.timeSec)); });
      AddLoad();
   }

   void AddVm(const SimShape& shape)
   {
      AddVmCpu(shape.mostOf[SimShape::VCPUS]);
      isMissing = [](const SimShape& at) { return at.isHung; };
      Devices images;
      if (options.disks > 0) {
         const auto [first, second] = GetImageDisks(key, options.disks);
         images.push_back({GetDiskName(first), key.Part(0), SimShape::DISKS, 0, first});
         if (second != first) {
            images.push_back({GetDiskName(second), key.Part(1), SimShape::DISKS, 1, second});
         }
      }
      AddDisks(images, false);
      isMissing = [](const SimShape& at) { return at.isHung || at.isFailing; };
      AddVmMemory();
      isMissing = [](const SimShape& at) { return at.isFailing; };
      Devices cards;
      for (uint64_t i = 0; i < shape.mostOf[SimShape::CARDS]; ++i) {
         cards.push_back({std::to_string(4000 + i), key.Part(i), SimShape::CARDS, i});
      }
      AddPorts(cards);
   }

   void AddPool()
   {
      AddGroupCpu("cpu-usagemhz", key);
      AddMemory();
   }
};

} // namespace

SimStatTable MakeHostStats(const SimOptions& options, const std::string& hostId, bool wideFigures)
{
   TableBuilder table{options, MakeKey(options.seed, hostId), wideFigures};
   table.AddHost();
   return table.stats;
}

SimStatTable MakePoolStats(const SimOptions& options, const std::string& poolId)
{
   TableBuilder table{options, MakeKey(options.seed, poolId), false};
   table.AddPool();
   return table.stats;
}

SimStatTable MakeVmStats(const SimOptions& options, const std::string& vmId, const SimShape& shape,
                         bool wideFigures)
{
   TableBuilder table{options, MakeKey(options.seed, vmId), wideFigures};
   table.AddVm(shape);
   return table.stats;
}
