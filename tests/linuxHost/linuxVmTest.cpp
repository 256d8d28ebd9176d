#include "agentdCommon/messages.h"
#include "corvax/format.h"
#include "guestsvc/guestsvc.h"
#include "hostctl/host.h"
#include "hostsvc/resourceMgr.h"
#include "linuxHost/groupTree.h"
#include "linuxHost/linuxBackend.h"
#include "tests/fakes/fakeAgent.h"
#include "tests/fakes/fakeHypervisor.h"
#include "tests/fakes/kernelTree.h"
#include "tests/fakes/manualTime.h"

#include <gtest/gtest.h>

#include <thread>

using LinuxHost::VmDescription;
using LinuxHost::VmRecord;
using Quen::Vm::PowerState;

namespace {

const std::string kVm = "6a1f0000-0000-4000-8000-00000000000a";
const std::string kOther = "6a1f0000-0000-4000-8000-00000000000b";

/// Waits without a limit of its own: ctest's time limit ends a test that waits forever.
void WaitFor(const std::function<bool()>& condition)
{
   while (!condition()) {
      std::this_thread::yield();
   }
}

template <class T>
Corvax::Ref<T> Find(const std::string& id)
{
   Corvax::Ref<T> object;
   Corvax::Service::GetApp()->GetObjectRegistry()->TryLookupObject(id, object);
   return object;
}

VmDescription Describe(const std::string& id, PowerState state)
{
   VmDescription vm;
   vm.id = id;
   vm.name = "name of " + id.substr(35);
   vm.powerState = state;
   vm.memoryMb = 32;
   return vm;
}

/// Collects the messages on the agent's channels, each with the VM's power state at its arrival.
class Messages {
public:
   Messages()
   {
      for (const char* const path :
           {"/vm/runtime/powerop/", "/vm/unregister/", "/resourcePool/destroyed"}) {
         _readers.push_back(Corvax::Service::GetApp()->GetChannels()->Subscribe(
            path, Corvax::MakeFunctor(_sink.Get(), &Sink::Take)));
      }
   }
   ~Messages()
   {
      for (const auto& reader : _readers) {
         reader->Close();
      }
   }
   void WaitFor(const std::vector<std::string>& expected) const
   {
      std::unique_lock lock(_sink->mutex);
      _sink->changed.wait(lock, [&] { return _sink->lines.size() >= expected.size(); });
      EXPECT_EQ(std::exchange(_sink->lines, {}), expected);
   }

private:
   struct Sink : Corvax::ObjectImpl {
      void Take(Corvax::ChannelReader* /*reader*/, Corvax::Object* message)
      {
         const std::lock_guard guard(mutex);
         lines.push_back(Describe(message));
         changed.notify_all();
      }
      static std::string Describe(Corvax::Object* message)
      {
         if (auto* const powerOp = dynamic_cast<Guestsvc::VmPowerOpMsg*>(message)) {
            const std::string& id = powerOp->vm->GetId();
            const auto vm = Find<Guestsvc::HaVirtualMachine>(id);
            return id.substr(35) + " power " +
                   (vm ? Corvax::ToText(vm->GetRuntime()->GetPowerState()) : "gone");
         }
         if (auto* const gone = dynamic_cast<Guestsvc::VmUnregisterMsg*>(message)) {
            return gone->vm->GetId().substr(35) + " unregistered";
         }
         return dynamic_cast<AgentdCommon::ResourcePoolDestroyedMsg&>(*message).poolId +
                " destroyed";
      }
      std::mutex mutex;
      std::condition_variable changed;
      std::vector<std::string> lines;
   };
   const Corvax::Ref<Sink> _sink = Corvax::MakeRef<Sink>();
   Corvax::RefVector<Corvax::ChannelReader> _readers;
};

class LinuxVmTest : public testing::Test, protected KernelTree {
protected:
   LinuxVmTest()
   {
      Write({{"proc/stat", "cpu0 100 0 100 800 0 0 0 0 0 0\n"},
             {"proc/uptime", "1000.00 0.00\n"},
             {"sys/fs/cgroup/unified/cgroup.controllers", ""}});
   }

   void WriteGroup(const std::string& path, uint64_t usedUs, uint64_t residentKb)
   {
      Write("sys/fs/cgroup/unified" + path + "/cpu.stat",
            "usage_usec " + std::to_string(usedUs) + "\n");
      Write("sys/fs/cgroup/memory" + path + "/memory.stat",
            "total_rss " + std::to_string(residentKb * 1024) + "\ntotal_shmem 0\n" +
               "total_active_anon 8192\ntotal_active_file 4096\ntotal_swap 20480\n");
   }

   void Start()
   {
      LinuxHost::LinuxHostOptions options;
      options.root = GetRoot();
      _backend =
         std::make_unique<LinuxHost::LinuxBackend>(options, _hypervisor, 1, _agent.logger.Get());
      HostCtl::HostFactory::SetProvider(_backend.get());
      _backend->Start();
   }
   ~LinuxVmTest() override { HostCtl::HostFactory::SetProvider(nullptr); }

   ManualClock _clock; // moved by the test alone, so that no reading becomes too old
   FakeAgent _agent;
   const std::shared_ptr<FakeHypervisor> _hypervisor = std::make_shared<FakeHypervisor>();
   std::unique_ptr<LinuxHost::LinuxBackend> _backend;
};

TEST_F(LinuxVmTest, InventoryIsUpdatedByEventsAndAfterALostConnection)
{
   _hypervisor->Set(Describe(kVm, PowerState::POWERED_ON));
   const Messages messages;
   Start();
   messages.WaitFor({"a power 1"});
   EXPECT_EQ(Find<Quen::VirtualMachine>(kVm)->GetName(), "name of a");

   _hypervisor->Set(Describe(kOther, PowerState::POWERED_OFF));
   WaitFor([&] { return static_cast<bool>(Find<Quen::VirtualMachine>(kOther)); });
   _hypervisor->SetState(kOther, PowerState::POWERED_ON);
   messages.WaitFor({"b power 1"});
   _hypervisor->SetState(kOther, PowerState::SUSPENDED);
   messages.WaitFor({"b power 2"});
   _hypervisor->Remove(kOther);
   messages.WaitFor({"b power gone", "b unregistered"});

   _hypervisor->GoDown();
   _hypervisor->Remove(kVm);
   _hypervisor->Set(Describe(kOther, PowerState::POWERED_ON));
   WaitFor([&] { return _agent.logger->Count("The connection to the hypervisor was lost") == 1; });
   EXPECT_TRUE(Find<Quen::VirtualMachine>(kVm)) << "its removal is still unknown";
   _hypervisor->ComeBack();
   WaitFor([&] { // attempts to connect have pauses between them
      _clock.Advance(100000);
      return !Find<Quen::VirtualMachine>(kVm);
   });
   messages.WaitFor({"b power 1", "a power gone", "a unregistered"});
   EXPECT_EQ(_agent.logger->Count("4 The connection to the hypervisor was lost"), 1);
   EXPECT_EQ(_agent.logger->Count("4 Cannot connect to the hypervisor"), 0)
      << "one warning is enough";
}

TEST_F(LinuxVmTest, PoolsAppearAndVanishWithTheirGroups)
{
   WriteGroup("/machine/gold.partition/web.partition", 500, 1);
   VmDescription vm = Describe(kVm, PowerState::POWERED_ON);
   vm.partition = "/machine/gold/web";
   _hypervisor->Set(vm);
   const Messages messages;
   Start();
   ASSERT_TRUE(Find<Quen::ResourcePool>("pool:gold/web"));
   messages.WaitFor({"a power 1"});
   EXPECT_EQ(Find<Quen::VirtualMachine>(kVm)->GetParent()->GetId(), "pool:gold/web");

   Remove("sys/fs/cgroup/unified/machine/gold.partition");
   Remove("sys/fs/cgroup/memory/machine/gold.partition");
   messages.WaitFor({"pool:gold/web destroyed", "pool:gold destroyed"});
   EXPECT_FALSE(Find<Quen::ResourcePool>("pool:gold"));
   EXPECT_EQ(Find<Quen::VirtualMachine>(kVm)->GetParent()->GetId(), LinuxHost::kRootPoolId);
}

/// A VM of which every source has another number: process 4711, one virtual CPU, a NIC with a tap
/// and one without, and two disks on the network.
class VmFiguresTest : public LinuxVmTest {
protected:
   VmFiguresTest()
   {
      const std::string group = "/machine/gold.partition/qemu-1-a.libvirt-qemu";
      WriteGroup("/machine/gold.partition", 7000000, 9000);
      WriteGroup(group, 6000000, 5000);
      WriteGroup("/system.slice/ssh.service", 42, 0);
      Write(
         {{"sys/fs/cgroup/unified" + group + "/vcpu0/cpu.stat", "usage_usec 5\nsystem_usec 1234\n"},
          {"proc/4711/cmdline", std::string("qemu\0-uuid\0", 11) + kVm + std::string("\0", 1)},
          {"proc/4711/stat", "4711 (qemu) S 1 1 1 0 -1 0 0 0 0 0 0 0 0 0 20 0 3 0 40000 0 0\n"},
          {"proc/4711/cgroup", "4:memory:" + group + "\n0::" + group + "\n"},
          {"proc/4711/status", "VmRSS:\t45000 kB\nHugetlbPages:\t28000 kB\n"},
          {"proc/diskstats", ""}});
      VmDescription& vm = _description;
      vm.partition = "/machine/gold";
      vm.cards = {{4000, true, true, "tap0"}, {4001, false, true, ""}};
      vm.disks = {{"vda", LinuxHost::VmDisk::Image::NETWORK, ""},
                  {"vdb", LinuxHost::VmDisk::Image::NETWORK, ""}};
      VmRecord& record = _record;
      record.basics = {3000000, {{"tap0", (uint64_t{1} << 32) + 5, 6, 7, 8}}};
      record.vcpus = {{2000000, 11, 22}};
      record.monitor = {{30000, 32768, 45000, {}, {}, 0},
                        {{"vda", 1024, 2048, 3, 4, 5}, {"vdb", 512, 0, 1, 0, 0}}};
      SetReading(vm, record, -1500000);
      Start();
      SetReading(vm, record, -500000);
      WaitFor([&] {
         BeginCollection();
         _vm = Find<Guestsvc::HaVirtualMachine>(kVm);
         return _vm && _vm->IsStatsAvailable();
      });
      _manager = Find<Hostsvc::ResourceMgr>(AgentdCommon::moid_resourcemgr);
   }

   static void BeginCollection() { Owned(HostCtl::HostFactory::GetHost()); }

   /// Waits for the readings before, so that none is skipped.
   void SetReading(const VmDescription& vm, VmRecord& record, int64_t takenUs)
   {
      if (_backend) {
         WaitFor([&] { return _hypervisor->GetReads() > 0; });
      }
      record.takenUs = takenUs;
      _hypervisor->Set(vm, record);
   }

   /// The port of the VM's NIC by its index; null without one.
   std::unique_ptr<HostCtl::Network::Port> GetPort(size_t index)
   {
      const auto config = _vm->GetConfig();
      auto* const card = dynamic_cast<Quen::Vm::Device::VirtualEthernetCard*>(
         (*config->GetHardware().GetDevice())[index]);
      return Owned(HostCtl::Network::NetworkFactory::GetPort(_vm->GetPortId(card)));
   }

   VmDescription _description = Describe(kVm, PowerState::POWERED_ON);
   VmRecord _record;
   Corvax::Ref<Guestsvc::HaVirtualMachine> _vm;
   Corvax::Ref<Hostsvc::ResourceMgr> _manager;
};

TEST_F(VmFiguresTest, CpuTimesComeFromHypervisorGroupAndProcess)
{
   EXPECT_EQ(Owned(_manager->GetVmCpuStats(_vm->GetMoRef()))->usedUs, 3000000);
   const auto vcpus = _manager->GetVmCpuTimes(_vm->GetMoRef());
   ASSERT_EQ(vcpus.size(), 1);
   EXPECT_EQ(Corvax::Format("%1 %2 %3 %4", vcpus[0].usedUs, vcpus[0].waitUs, vcpus[0].readyUs,
                            vcpus[0].systemUs),
             "2000000 11 22 1234");
   ASSERT_EQ(100, sysconf(_SC_CLK_TCK));
   EXPECT_EQ(vcpus[0].uptimeUs, 600000000);
}

TEST_F(VmFiguresTest, MemoryOfAPoolIsItsGroupsOrTheSumOverItsVms)
{
   const auto memory = Owned(_manager->GetVmMemoryStats(_vm->GetMoRef()));
   const auto client = Owned(_manager->GetVmMemoryClientStats(_vm->GetMoRef()));
   EXPECT_EQ(Corvax::Format("%1 %2 %3 %4 %5", client->grantedKb, client->activeKb,
                            memory->overheadKb, memory->balloonKb, memory->swappedKb),
             "30000 12 15000 2768 20");
   const auto pool = Find<Quen::ResourcePool>("pool:gold");
   const auto poolMemory = Owned(_manager->GetPoolMemoryStats(pool->GetMoRef()));
   EXPECT_EQ(poolMemory->grantedKb, 9000) << "the group's";
   EXPECT_EQ(poolMemory->balloonKb, 2768) << "the sum over the VMs in it";
}

TEST_F(VmFiguresTest, HugePagesAreMemoryOfTheGuest)
{
   _description.hasHugePages = true;
   _hypervisor->Set(_description, _record);
   WaitFor([&] {
      const auto memory = Owned(_manager->GetVmMemoryStats(_vm->GetMoRef()));
      return memory->grantedKb == 28000 && memory->overheadKb == 45000;
   });
}

TEST_F(VmFiguresTest, AnAgentThatSeesNoProcessesHasTheOtherFigures)
{
   Remove("proc/4711");
   _hypervisor->Set(_description, _record);
   WaitFor([&] {
      const auto vcpus = _manager->GetVmCpuTimes(_vm->GetMoRef());
      return vcpus.at(0).uptimeUs == HostCtl::Resource::kUnknown;
   });
   EXPECT_EQ(_manager->GetVmCpuTimes(_vm->GetMoRef()).at(0).systemUs, HostCtl::Resource::kUnknown);
   const auto memory = Owned(_manager->GetVmMemoryStats(_vm->GetMoRef()));
   EXPECT_EQ(memory->activeKb, HostCtl::Resource::kUnknown);
   EXPECT_EQ(memory->grantedKb, 30000);
   EXPECT_EQ(Owned(_manager->GetVmMemoryClientStats(_vm->GetMoRef()))->activeKb,
             HostCtl::Resource::kUnknown);
}

TEST_F(VmFiguresTest, CpuUseOfEachVirtualCpuDoesNotJumpWithTheirNumber)
{
   const auto perCpuUs = [this] {
      BeginCollection();
      const auto cpu = Owned(_manager->GetVmCpuStats(_vm->GetMoRef()));
      const auto vcpus = _manager->GetVmCpuTimes(_vm->GetMoRef()).size();
      return static_cast<int64_t>(cpu->usedUs / vcpus) + cpu->perCpuCorrectionUs;
   };
   EXPECT_EQ(perCpuUs(), 3000000);
   const auto useMore = [&](size_t vcpus, int64_t takenUs) {
      _record.basics->usedUs += 400000;
      _record.vcpus->resize(vcpus);
      _clock.monotonicUs = takenUs + 500000;
      _record.takenUs = -500000;
      const int64_t reads = _hypervisor->GetReads();
      _hypervisor->Set(_description, _record);
      WaitFor([&] { return _hypervisor->GetReads() > reads + 1; });
      return perCpuUs();
   };
   // A quarter of an interval before the second reading: three quarters of its growth.
   EXPECT_EQ(useMore(4, 500000), 3000000 + 300000 / 4);
   EXPECT_EQ(useMore(4, 1500000), 3000000 + 700000 / 4);
   EXPECT_EQ(useMore(1, 2500000), 3000000 + 700000 / 4 + 400000 / 4);
   EXPECT_EQ(useMore(1, 3500000), 3000000 + 1100000 / 4 + 400000);
}

TEST_F(VmFiguresTest, CpuTimesOfPoolsAndSystemGroupsComeFromTheirGroups)
{
   const auto pool = Find<Quen::ResourcePool>("pool:gold");
   EXPECT_EQ(Owned(_manager->GetPoolCpuStats(pool->GetMoRef()))->usedUs, 7000000);
   _manager->Lock();
   EXPECT_TRUE(_manager->GetSystemResourceInfo()->GetChild());
   _manager->Unlock();
   EXPECT_EQ(Owned(_manager->GetSystemGroupCpuStats("/system.slice/ssh.service"))->usedUs, 42);
   EXPECT_EQ(_manager->GetSystemGroupCpuStats("/machine"), nullptr);
}

TEST_F(VmFiguresTest, ANicWithATapHasAPort)
{
   const auto port = GetPort(0);
   ASSERT_TRUE(port);
   EXPECT_EQ(port->GetStatistics().bytesReceived, (uint64_t{1} << 32) + 5);
   EXPECT_EQ(port->GetStatistics().packetsSent, 8);
   EXPECT_FALSE(GetPort(1));
}

TEST_F(VmFiguresTest, ImagesOnOneDiskShareARecord)
{
   const auto luns = Owned(Owned(HostCtl::HostFactory::GetHost())->GetStorageInfo())->GetDiskLuns();
   ASSERT_EQ(luns.size(), 1);
   const auto lun = Owned(luns[0]);
   EXPECT_EQ(lun->GetScsiName(), "network");
   EXPECT_EQ(lun->GetStatistics().blocksRead, 0) << "no traffic of the host's own disks";
   const auto worlds = lun->GetWorldStatistics();
   ASSERT_EQ(worlds.size(), 1);
   const auto& disk = worlds[0].statistics;
   EXPECT_EQ(worlds[0].worldId, _vm->GetWorldId());
   EXPECT_EQ(Corvax::Format("%1 %2 %3", disk.blocksRead, disk.blocksWritten, disk.commands),
             "3 4 13");
}

} // namespace
