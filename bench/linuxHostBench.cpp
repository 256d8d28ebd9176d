#include "agentdCommon/wellKnown.h"
#include "bench/guestTree.h"
#include "bench/measurement.h"
#include "bench/meters.h"
#include "bench/resultLines.h"
#include "corvax/exception.h"
#include "corvax/format.h"
#include "linuxHost/groupTree.h"
#include "linuxHost/groupWatcher.h"
#include "linuxHost/hypervisorGate.h"
#include "linuxHost/libvirt/domainStats.h"
#include "linuxHost/linuxHostProvider.h"
#include "linuxHost/linuxResourceMgr.h"
#include "linuxHost/snapshotPoller.h"

#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace Bench {

namespace {

using Corvax::kMicrosecondsPerSecond;
using Corvax::Ref;
using HostCtl::Resource::kUnknown;
using HostCtl::Storage::DiskLun;

constexpr unsigned kGuestRuns = 40;
constexpr unsigned kLoadReadings = 10; // some work is done in every tenth only
constexpr double kLoadReadingsPerRun =
   kFinePeriodSec * 1e6 / LinuxHost::LoadHistory::kSamplePeriodUs;

/// The machine's clock, which can leap ahead.
class LeapingClock : public Corvax::Clock {
public:
   LeapingClock() { Corvax::System::SetClock(this); }
   ~LeapingClock() override { Corvax::System::SetClock(nullptr); }
   LeapingClock(const LeapingClock&) = delete;
   LeapingClock& operator=(const LeapingClock&) = delete;

   int64_t GetTime() override { return GetMonotonicTime(); }
   int64_t GetMonotonicTime() override { return static_cast<int64_t>(GetWallUs()) + _aheadUs; }
   void GetCpuTime(int64_t& userUs, int64_t& systemUs) override { userUs = systemUs = 0; }
   void Leap(int64_t us) { _aheadUs += us; }

private:
   std::atomic<int64_t> _aheadUs = 0;
};

/// A hypervisor whose answers exist already: what the agent does with them is measured alone.
class PreparedHypervisor : public LinuxHost::Hypervisor {
public:
   explicit PreparedHypervisor(GuestTree& tree) : _tree(tree) {}

   std::unique_ptr<LinuxHost::HypervisorConnection>
   Connect(LinuxHost::HypervisorListener* /*listener*/) override
   {
      return std::make_unique<Connection>(_tree);
   }

private:
   class Connection : public LinuxHost::HypervisorConnection {
   public:
      explicit Connection(GuestTree& tree) : _tree(tree)
      {
         for (const LinuxHost::VmDescription& vm : tree.GetDescriptions()) {
            _ids.push_back(vm.id);
            _guests.emplace(vm.id, _guests.size());
         }
      }

      std::vector<std::string> ListVms() override { return _ids; }
      std::optional<LinuxHost::VmDescription> DescribeVm(const std::string& /*id*/) override
      {
         return std::nullopt;
      }
      std::vector<LinuxHost::VmRecord> ReadVms(unsigned parts, const std::vector<std::string>& ids,
                                               bool /*waitForMonitor*/) override
      {
         std::vector<LinuxHost::VmRecord> records;
         for (const std::string& id : ids.empty() ? _ids : ids) {
            const size_t guest = _guests.at(id);
            auto record = LinuxHost::ParseDomainStats(_tree.GetAnswer(guest, parts), parts);
            record->id = id;
            record->startId = static_cast<int32_t>(guest) + 1;
            record->takenUs = Corvax::System::GetMonotonicTime();
            records.push_back(std::move(*record));
         }
         return records;
      }

   private:
      GuestTree& _tree;
      std::vector<std::string> _ids;
      std::map<std::string, size_t> _guests;
   };

   GuestTree& _tree;
};

template <class T>
std::unique_ptr<T> Own(T* object)
{
   return std::unique_ptr<T>(object);
}

/// The parts of the agent that follow virtual machines, put together as in the agent, without its
/// depot and without the thread that follows changes of the inventory.
class GuestHost : public LinuxHost::ExtraFigures {
public:
   GuestHost(GuestTree& tree, Corvax::Logger* logger)
      : _inventory(LinuxHost::kRootPoolId, "host"),
        _history(std::make_shared<LinuxHost::VmHistory>(kFinePeriodSec)),
        _poller(
           std::make_shared<LinuxHost::HypervisorGate>(std::make_shared<PreparedHypervisor>(tree)),
           _history, kFinePeriodSec, logger),
        _vms(tree.GetRoot(), _inventory, *_history, logger),
        _groups(tree.GetRoot(), 1, _inventory, _vms, logger),
        _provider(LinuxHost::NewLinuxHostProvider({tree.GetRoot(), {}, 2500}, this)),
        _resourceMgr(LinuxHost::NewLinuxResourceMgr(tree.GetRoot(), _inventory, _vms, *_history,
                                                    _groups, logger))
   {
      _vms.Replace(tree.GetDescriptions());
      AddKeys(*_resourceMgr->GetSystemResourceInfo());
   }

   void Poll() { _poller.Poll(); }

   /// Reads what a collection reads, in its order. Returns how many virtual machines gave all their
   /// figures.
   size_t Read()
   {
      _history->BeginCollection();
      const auto host = Own(_provider->GetHost());
      ReadHost(*host);
      std::vector<std::unique_ptr<DiskLun>> luns;
      for (DiskLun* const lun : Own(host->GetStorageInfo())->GetDiskLuns()) {
         lun->GetStatistics();
         luns.emplace_back(lun);
      }
      size_t complete = 0;
      for (const Ref<LinuxHost::LinuxVm>& vm : _vms.GetAll()) {
         complete += ReadVm(*vm) ? 1 : 0;
      }
      size_t worlds = 0;
      for (const auto& lun : luns) {
         worlds += lun->GetWorldStatistics().size();
      }
      const Ref<Plexa::MoRef> root = _resourceMgr->GetRootResourcePool();
      Own(_resourceMgr->GetPoolCpuStats(root.Get()));
      Own(_resourceMgr->GetPoolMemoryStats(root.Get()));
      for (const std::string& key : _systemGroups) {
         Own(_resourceMgr->GetSystemGroupCpuStats(key));
      }
      return std::min(complete, worlds);
   }

   /// Lets the thread of the control groups read all loads so many times; only its waiting is cut
   /// short.
   void ReadLoads(unsigned times, LeapingClock& clock)
   {
      for (; times > 0; --times) {
         const uint32_t before = CountLoads();
         clock.Leap(LinuxHost::LoadHistory::kSamplePeriodUs);
         while (CountLoads() == before) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
         }
      }
   }
   void StartLoads() { _groups.Start(); }
   void StopLoads() { _groups.Stop(); }

   std::map<std::string, std::vector<HostCtl::Storage::WorldStatistics>> GetDiskWorlds() override
   {
      return _vms.GetDiskWorlds();
   }
   std::optional<HostCtl::Network::PortStatistics> FindPort(uint32_t portId) override
   {
      return _vms.GetPort(portId);
   }
   std::optional<HostCtl::Resource::CpuLoadHistory> GetHostLoad() override
   {
      return _groups.GetLoad(AgentdCommon::moid_hostsystem);
   }

private:
   void AddKeys(const Quen::Host::SystemResourceInfo& node)
   {
      _systemGroups.push_back(node.GetKey());
      for (size_t i = 0; node.GetChild() && i < node.GetChild()->GetSize(); ++i) {
         AddKeys(*(*node.GetChild())[i]);
      }
   }

   uint32_t CountLoads() const
   {
      const auto load = _groups.GetLoad(AgentdCommon::moid_hostsystem);
      return load ? load->sampleCount : 0;
   }

   static void ReadHost(HostCtl::Host& host)
   {
      const auto resources = Own(host.GetResourceInfo());
      resources->GetCpuStats();
      resources->GetUptimeUs();
      resources->GetCapacity();
      resources->GetMemoryStats();
      const auto network = Own(host.GetNetworkInfo());
      for (HostCtl::Network::PhysicalNic* const nic : network->GetPhysicalNics()) {
         if (const auto port = Own(Own(nic)->GetUplinkPort())) {
            port->GetStatistics();
         }
      }
   }

   bool ReadVm(LinuxHost::LinuxVm& vm)
   {
      const Corvax::Locker lock(&vm);
      Plexa::MoRef* const id = vm.GetMoRef();
      if (!vm.IsStatsAvailable()) {
         return false;
      }
      vm.GetHeartbeatCount();
      const auto cpu = Own(_resourceMgr->GetVmCpuStats(id));
      const auto vcpus = _resourceMgr->GetVmCpuTimes(id);
      Own(_resourceMgr->GetVmCpuLoadHistory(id));
      const auto memory = Own(_resourceMgr->GetVmMemoryStats(id));
      Own(_resourceMgr->GetVmSwapInfo(id));
      Own(_resourceMgr->GetVmMemoryClientStats(id));
      bool isComplete = cpu && memory && memory->zeroKb > 0 && memory->swappedKb > 0 &&
                        vcpus.size() == kGuestVcpus && vcpus.back().systemUs != kUnknown &&
                        vcpus.front().uptimeUs != kUnknown;
      const auto config = vm.GetConfig();
      for (const auto& device : *config->GetHardware().GetDevice()) {
         const auto card = Corvax::RefCast<Quen::Vm::Device::VirtualEthernetCard>(device);
         const auto port = Own(_provider->GetPort(vm.GetPortId(card.Get())));
         isComplete = isComplete && port && port->GetStatistics().bytesSent > 0;
      }
      vm.GetNetworkSumCorrectionKb();
      return isComplete;
   }

   Inventory::Inventory _inventory;
   const std::shared_ptr<LinuxHost::VmHistory> _history;
   LinuxHost::SnapshotPoller _poller;
   LinuxHost::LinuxVms _vms;
   LinuxHost::GroupWatcher _groups;
   const std::unique_ptr<HostCtl::HostProvider> _provider;
   const Ref<Hostsvc::ResourceMgr> _resourceMgr;
   std::vector<std::string> _systemGroups;
};

size_t CountDescriptors()
{
   const std::filesystem::directory_iterator descriptors("/proc/self/fd");
   return static_cast<size_t>(std::distance(begin(descriptors), end(descriptors)));
}

/// As the agent does at its start.
void RaiseDescriptorLimit()
{
   rlimit limit = {};
   if (::getrlimit(RLIMIT_NOFILE, &limit) == 0) {
      limit.rlim_cur = limit.rlim_max;
      ::setrlimit(RLIMIT_NOFILE, &limit);
   }
}

/// One collection, with its poll half an interval before.
struct GuestRunMeters {
   CpuMeter poll;
   CpuMeter read;

   void Run(GuestHost& host, LeapingClock& clock, size_t guests)
   {
      constexpr int64_t kHalfUs = kFinePeriodSec * kMicrosecondsPerSecond / 2;
      poll.Start();
      host.Poll();
      poll.Stop();
      clock.Leap(kHalfUs);
      read.Start();
      const size_t complete = host.Read();
      read.Stop();
      clock.Leap(kHalfUs);
      if (complete < guests) {
         throw Corvax::Exception(
            Corvax::Format("Only %1 of %2 virtual machines have all figures", complete, guests));
      }
   }
};

void MeasureGuests(Measurement& measurement, unsigned guests)
{
   RaiseDescriptorLimit();
   const QuietAgent agent;
   GuestTree tree(guests);
   LeapingClock clock;
   const size_t descriptorsBefore = CountDescriptors();
   GuestHost host(tree, agent.GetLogger());
   host.StartLoads();
   host.ReadLoads(1, clock); // opens the files
   const double waitingBeforeUs = GetThreadCpuUs();
   CpuMeter load;
   load.Start();
   host.ReadLoads(kLoadReadings, clock);
   load.Stop();
   const double waitingUs = GetThreadCpuUs() - waitingBeforeUs; // of this thread
   host.StopLoads();

   constexpr int64_t kIntervalUs = kFinePeriodSec * kMicrosecondsPerSecond;
   for (unsigned polls = 0; polls < 2; ++polls) { // figures need two readings
      host.Poll();
      clock.Leap(kIntervalUs);
   }
   GuestRunMeters().Run(host, clock, guests); // opens the files
   GuestRunMeters meters;
   const unsigned runs = Scaled(kGuestRuns);
   for (unsigned run = 0; run < runs; ++run) {
      meters.Run(host, clock, guests);
   }
   const size_t descriptors = CountDescriptors() - descriptorsBefore;
   const std::string ending = "-" + std::to_string(guests);
   const double pollUs = meters.poll.GetTotalUs() / runs / guests;
   const double readUs = meters.read.GetTotalUs() / runs / guests;
   const double loadUs =
      (load.GetTotalUs() - waitingUs) / kLoadReadings * kLoadReadingsPerRun / guests;
   measurement.Report("guest-run" + ending, "us", pollUs + readUs + loadUs);
   measurement.Report("guest-poll" + ending, "us", pollUs);
   measurement.Report("guest-read" + ending, "us", readUs);
   measurement.Report("guest-load" + ending, "us", loadUs);
   measurement.Report("guest-descriptors" + ending, "descriptors",
                      static_cast<double>(descriptors) / guests);
}

const Registration kRegistrations[] = {
   {"guests-100", kOurs, [](Measurement& measurement) { MeasureGuests(measurement, 100); }},
   {"guests-500", kOurs, [](Measurement& measurement) { MeasureGuests(measurement, 500); }},
};

} // namespace

} // namespace Bench
