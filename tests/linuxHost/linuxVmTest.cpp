#include "agentdCommon/messages.h"
#include "corvax/format.h"
#include "corvax/system.h"
#include "guestsvc/guestsvc.h"
#include "hostctl/host.h"
#include "hostsvc/resourceMgr.h"
#include "linuxHost/groupTree.h"
#include "linuxHost/linuxBackend.h"
#include "linuxHost/snapshotPoller.h"
#include "tests/fakes/fakeAgent.h"
#include "tests/fakes/fakeHypervisor.h"
#include "tests/fakes/kernelTree.h"

#include <gtest/gtest.h>

#include <thread>

using LinuxHost::VmDescription;
using LinuxHost::VmFigures;
using Quen::Vm::PowerState;

namespace {

const std::string kVm = "6a1f0000-0000-4000-8000-00000000000a";
const std::string kOther = "6a1f0000-0000-4000-8000-00000000000b";

/// Until it is so; a test that waits in vain ends by its time limit in ctest.
void WaitFor(const std::function<bool()>& isSo)
{
   while (!isSo()) {
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

/// Keeps what is told on the agent's channels, with the state in which it found the machine.
class News {
public:
   News()
   {
      for (const char* const path :
           {"/vm/runtime/powerop/", "/vm/unregister/", "/resourcePool/destroyed"}) {
         _readers.push_back(Corvax::Service::GetApp()->GetChannels()->Subscribe(
            path, Corvax::MakeFunctor(_sink.Get(), &Sink::Take)));
      }
   }
   ~News()
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
         if (auto* const powerOp = dynamic_cast<Guestsvc::VmPowerOpMsg*>(message)) {
            const std::string& id = powerOp->vm->GetId();
            const auto vm = Find<Guestsvc::HaVirtualMachine>(id);
            lines.push_back(
               id.substr(35) + " power " +
               (vm ? std::to_string(static_cast<int>(vm->GetRuntime()->GetPowerState())) : "gone"));
         } else if (auto* const gone = dynamic_cast<Guestsvc::VmUnregisterMsg*>(message)) {
            lines.push_back(gone->vm->GetId().substr(35) + " unregistered");
         } else {
            lines.push_back(dynamic_cast<AgentdCommon::ResourcePoolDestroyedMsg&>(*message).poolId +
                            " destroyed");
         }
         changed.notify_all();
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

   void PutGroup(const std::string& path, uint64_t usedUs, uint64_t residentKb)
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

   FakeAgent _agent;
   const std::shared_ptr<FakeHypervisor> _hypervisor = std::make_shared<FakeHypervisor>();
   std::unique_ptr<LinuxHost::LinuxBackend> _backend;
};

TEST_F(LinuxVmTest, InventoryFollowsEventsAndCatchesUpAfterALostConnection)
{
   _hypervisor->Set(Describe(kVm, PowerState::POWERED_ON));
   const News news;
   Start();
   news.WaitFor({"a power 1"});
   EXPECT_EQ(Find<Quen::VirtualMachine>(kVm)->GetName(), "name of a");

   _hypervisor->Set(Describe(kOther, PowerState::POWERED_OFF));
   WaitFor([&] { return static_cast<bool>(Find<Quen::VirtualMachine>(kOther)); });
   _hypervisor->SetState(kOther, PowerState::POWERED_ON);
   news.WaitFor({"b power 1"});
   _hypervisor->SetState(kOther, PowerState::SUSPENDED);
   news.WaitFor({"b power 2"});
   _hypervisor->Remove(kOther);
   news.WaitFor({"b power gone", "b unregistered"});

   _hypervisor->GoDown();
   _hypervisor->Remove(kVm);
   _hypervisor->Set(Describe(kOther, PowerState::POWERED_ON));
   WaitFor([&] { return _agent.logger->Count("The connection to the hypervisor was lost") == 1; });
   EXPECT_TRUE(Find<Quen::VirtualMachine>(kVm)) << "nobody knows yet what became of it";
   _hypervisor->ComeBack();
   news.WaitFor({"b power 1", "a power gone", "a unregistered"});
   EXPECT_EQ(_agent.logger->CountLevel(Corvax::kLogWarning), 1);
}

TEST_F(LinuxVmTest, PoolsFollowTheGroups)
{
   PutGroup("/machine/gold.partition/web.partition", 500, 1);
   VmDescription vm = Describe(kVm, PowerState::POWERED_ON);
   vm.partition = "/machine/gold/web";
   _hypervisor->Set(vm);
   const News news;
   Start();
   ASSERT_TRUE(Find<Quen::ResourcePool>("pool:gold/web"));
   news.WaitFor({"a power 1"});
   EXPECT_EQ(Find<Quen::VirtualMachine>(kVm)->GetParent()->GetId(), "pool:gold/web");

   Remove("sys/fs/cgroup/unified/machine/gold.partition");
   Remove("sys/fs/cgroup/memory/machine/gold.partition");
   news.WaitFor({"pool:gold/web destroyed", "pool:gold destroyed"});
   EXPECT_FALSE(Find<Quen::ResourcePool>("pool:gold"));
   EXPECT_EQ(Find<Quen::VirtualMachine>(kVm)->GetParent()->GetId(), LinuxHost::kRootPoolId);
}

/// Every source of a virtual machine's figures with a number of its own.
TEST_F(LinuxVmTest, FiguresComeFromTheirSources)
{
   PutGroup("/machine/gold.partition", 7000000, 9000);
   PutGroup("/machine/gold.partition/qemu-1-a.libvirt-qemu", 6000000, 5000);
   Write("sys/fs/cgroup/unified/machine/gold.partition/qemu-1-a.libvirt-qemu/vcpu0/cpu.stat",
         "usage_usec 5\nsystem_usec 1234\n");
   PutGroup("/system.slice/ssh.service", 42, 0);
   Write("proc/4711/cmdline", std::string("qemu\0-uuid\0", 11) + kVm + std::string("\0", 1));
   Write("proc/4711/stat", "4711 (qemu) S 1 1 1 0 -1 0 0 0 0 0 0 0 0 0 20 0 3 0 40000 0 0\n");
   Write("proc/4711/cgroup", "4:memory:/machine/gold.partition/qemu-1-a.libvirt-qemu\n"
                             "0::/machine/gold.partition/qemu-1-a.libvirt-qemu\n");
   Write("proc/diskstats", "");
   VmDescription vm = Describe(kVm, PowerState::POWERED_ON);
   vm.partition = "/machine/gold";
   vm.cards = {{4000, true, true, "tap0"}, {4001, false, true, ""}};
   vm.disks = {{"vda", LinuxHost::VmDisk::Image::NETWORK, ""},
               {"vdb", LinuxHost::VmDisk::Image::NETWORK, ""}};
   VmFigures figures;
   figures.usedUs = 3000000;
   figures.vcpus = {{2000000, 11, 22}};
   figures.balloonCurrentKb = 30000;
   figures.balloonMaximumKb = 32768;
   figures.rssKb = 45000;
   figures.cards = {{"tap0", (uint64_t{1} << 32) + 5, 6, 7, 8}};
   figures.disks = {{"vda", 1024, 2048, 3, 4, 5}, {"vdb", 512, 0, 1, 0, 0}};
   _hypervisor->Set(vm, figures);
   Start();
   WaitFor([&] {
      const auto there = Find<Guestsvc::HaVirtualMachine>(kVm);
      return there && there->IsStatsAvailable();
   });

   const auto object = Find<Guestsvc::HaVirtualMachine>(kVm);
   const auto manager = Find<Hostsvc::ResourceMgr>(AgentdCommon::moid_resourcemgr);
   Plexa::MoRef* const ref = object->GetMoRef();
   EXPECT_EQ(object->GetWorldId(), 4711);
   EXPECT_EQ(Owned(manager->GetVmCpuStats(ref))->usedUs, 3000000);
   const auto vcpus = manager->GetVmCpuTimes(ref);
   ASSERT_EQ(vcpus.size(), 1);
   EXPECT_EQ(Corvax::Format("%1 %2 %3 %4", vcpus[0].usedUs, vcpus[0].waitUs, vcpus[0].readyUs,
                            vcpus[0].systemUs),
             "2000000 11 22 1234");
   EXPECT_EQ(vcpus[0].uptimeUs, 1000000000 - 40000 * 1000000ULL / sysconf(_SC_CLK_TCK));

   const auto memory = Owned(manager->GetVmMemoryStats(ref));
   const auto client = Owned(manager->GetVmMemoryClientStats(ref));
   EXPECT_EQ(Corvax::Format("%1 %2 %3 %4 %5", client->grantedKb, client->activeKb,
                            memory->overheadKb, memory->balloonKb, memory->swappedKb),
             "30000 12 15000 2768 20");

   const auto pool = Find<Quen::ResourcePool>("pool:gold");
   const auto poolMemory = Owned(manager->GetPoolMemoryStats(pool->GetMoRef()));
   EXPECT_EQ(poolMemory->grantedKb, 9000) << "the group's";
   EXPECT_EQ(poolMemory->balloonKb, 2768) << "the sum over the machines in it";
   EXPECT_EQ(Owned(manager->GetPoolCpuStats(pool->GetMoRef()))->usedUs, 7000000);
   manager->Lock();
   EXPECT_TRUE(manager->GetSystemResourceInfo()->GetChild());
   manager->Unlock();
   EXPECT_EQ(Owned(manager->GetSystemGroupCpuStats("/system.slice/ssh.service"))->usedUs, 42);
   EXPECT_EQ(manager->GetSystemGroupCpuStats("/machine"), nullptr);

   const auto& devices = *object->GetConfig()->GetHardware().GetDevice();
   const auto getPort = [&](size_t i) {
      return Owned(HostCtl::Network::NetworkFactory::GetPort(
         object->GetPortId(dynamic_cast<Quen::Vm::Device::VirtualEthernetCard*>(devices[i]))));
   };
   const auto port = getPort(0);
   ASSERT_TRUE(port);
   EXPECT_EQ(port->GetStatistics().bytesReceived, 5) << "the low 32 bits";
   EXPECT_EQ(port->GetStatistics().packetsSent, 8);
   EXPECT_FALSE(getPort(1));

   const auto luns = Owned(Owned(HostCtl::HostFactory::GetHost())->GetStorageInfo())->GetDiskLuns();
   ASSERT_EQ(luns.size(), 1);
   const auto lun = Owned(luns[0]);
   EXPECT_EQ(lun->GetScsiName(), "network");
   EXPECT_EQ(lun->GetStatistics().blocksRead, 0) << "no traffic of the host's own disks";
   const auto worlds = lun->GetWorldStatistics();
   ASSERT_EQ(worlds.size(), 1) << "two images, one record";
   const auto& disk = worlds[0].statistics;
   EXPECT_EQ(Corvax::Format("%1 %2 %3 %4", worlds[0].worldId, disk.blocksRead, disk.blocksWritten,
                            disk.commands),
             "4711 3 4 13");
}

TEST_F(LinuxVmTest, AHangingMonitorCostsNobodyElseASnapshot)
{
   _hypervisor->Set(Describe(kVm, PowerState::POWERED_ON));
   _hypervisor->Set(Describe(kOther, PowerState::POWERED_ON));
   LinuxHost::SnapshotPoller poller(_hypervisor, 1, _agent.logger.Get());
   poller.Poll();
   EXPECT_EQ(poller.GetSnapshot()->vms.size(), 2);

   _hypervisor->Hang(kVm);
   for (int i = 0; i < 3; ++i) {
      const int64_t beforeUs = Corvax::System::GetTime();
      poller.Poll();
      const auto snapshot = poller.GetSnapshot();
      EXPECT_GE(snapshot->takenUs, beforeUs);
      EXPECT_TRUE(snapshot->vms.contains(kOther));
      EXPECT_FALSE(snapshot->vms.contains(kVm));
   }
   EXPECT_EQ(_agent.logger->Count("virtual machines timed out"), 1);
   _hypervisor->Hang("");
   WaitFor([&] {
      poller.Poll();
      return poller.GetSnapshot()->vms.size() == 2;
   });
}

TEST(SnapshotPollerTest, PollsLieHalfAnIntervalAheadOfTheBoundary)
{
   using LinuxHost::SnapshotPoller;
   EXPECT_EQ(SnapshotPoller::GetDelayToNextPoll(0, 20), 10000000);
   EXPECT_EQ(SnapshotPoller::GetDelayToNextPoll(9999999, 20), 1);
   EXPECT_EQ(SnapshotPoller::GetDelayToNextPoll(10000000, 20), 20000000) << "not twice in one";
   EXPECT_EQ(SnapshotPoller::GetDelayToNextPoll(1700000000600000, 1), 900000);
}

} // namespace
