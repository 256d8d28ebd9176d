#include "metrix/hykStatsCollector.h"

#include "agentdCommon/messages.h"
#include "corvax/exception.h"
#include "tests/fakes/fakeHost.h"
#include "tests/fakes/fakeServices.h"
#include "tests/metrix/collectorFixture.h"

namespace {

using namespace Metrix;
using Corvax::MakeRef;
using Corvax::Ref;

class KernelCollectorTest : public CollectorTest {
protected:
   KernelCollectorTest()
   {
      _agent.Register(AgentdCommon::moid_resourcemgr, _resourceMgr);
      _agent.Register(AgentdCommon::moid_guestsvc, _guestsvc);
      _host.cpus = {{200000, 1000}, {0, 0}, {0, 0}, {0, 999999}};
   }
   ~KernelCollectorTest() override { _collector->Stop(); }

   void Run()
   {
      if (_scheduler.GetWaiting() == 0) {
         _collector->Start();
      }
      _scheduler.RunNext();
   }
   Ref<FakeVm> AddVm(const std::string& id)
   {
      auto vm = MakeRef<FakeVm>(id);
      vm->config->hardware.memoryMb = 1024;
      vm->runtime->powerState = Quen::Vm::PowerState::POWERED_ON;
      _guestsvc->poweredOn.push_back(vm);
      _agent.Register(id, vm);
      _resourceMgr->cpu[id] = {40000};
      _resourceMgr->vcpus[id] = {{4000000, 5000, 6000, 7000, 8000, 9, 60000000}, {8000000}};
      _resourceMgr->memory[id] = {1, 2, 3, 4, 5, 6, 7};
      _resourceMgr->swap[id] = {8, 9, 10};
      _resourceMgr->client[id] = {100, 262144, 30, 13};
      return vm;
   }

   FakeHost _host;
   const Ref<FakeResourceMgr> _resourceMgr = MakeRef<FakeResourceMgr>();
   const Ref<FakeGuestsvc> _guestsvc = MakeRef<FakeGuestsvc>();
   const Ref<HykStatsCollector> _collector =
      MakeRef<HykStatsCollector>(_agent.logger.Get(), _metadata.Get(), _depot.Get(), 20);
};

TEST_F(KernelCollectorTest, CapacityFiguresDoNotOverflow)
{
   _host.speedHz = 4000000000;
   const uint64_t tenYearsUs = 315360000000000;
   _host.cpus.assign(255, {tenYearsUs, 0});
   _host.memory.freeKb = 99999; // more than the cached total
   Run();
   EXPECT_EQ(Raw("ha-host", "cpu-usagemhz"), tenYearsUs / 1000000 * 1020000);
   EXPECT_EQ(Raw("ha-host", "cpu-usage"), tenYearsUs / 100);
   EXPECT_EQ(Raw("ha-host", "mem-consumed"), 0u);
}

TEST_F(KernelCollectorTest, WideFiguresHaveSixtyFourBitsAndAnyNumberOfCores)
{
   const uint64_t kGiB = uint64_t{1} << 30;
   _host.cpus.assign(384, {2000000, 0});
   _host.disks = {{"sda", {}, {}}};
   _host.nics = {"eth0"};
   const auto vm = AddVm("vm-1");
   vm->AddCard(4000, true, true);
   _host.ports[4000] = {5 * kGiB, kGiB, (uint64_t{1} << 32) + 1, 2};
   // Devices and virtual CPUs that came and went.
   _host.sumCorrectionKb = 100;
   vm->networkSumCorrectionKb = -1000;
   _resourceMgr->cpu["vm-1"] = {40000, -10000};

   for (const bool isWide : {false, true}) {
      const auto collector =
         MakeRef<HykStatsCollector>(_agent.logger.Get(), _metadata.Get(), _depot.Get(), 20, isWide);
      collector->Start();
      _scheduler.RunNext();
      EXPECT_EQ(Raw("ha-host", "cpu-usage"), isWide ? 20000 : 384 * 2000000 / 25500) << isWide;
      EXPECT_EQ(Raw("vm-1", "net-received#4000"), (isWide ? 5 : 1) * kGiB / 1024) << isWide;
      EXPECT_EQ(Raw("vm-1", "net-packetsRx#4000"), isWide ? (uint64_t{1} << 32) + 1 : 1);
      EXPECT_EQ(Raw("vm-1", "net-usage"), isWide ? 6 * kGiB / 1024 - 1000 : 2 * kGiB / 1024);
      EXPECT_EQ(Raw("ha-host", "net-usage"), isWide ? 100 : 0) << "a sum that wraps is left alone";
      EXPECT_EQ(Raw("ha-host", "disk-usage"), 100);
      EXPECT_EQ(Raw("vm-1", "cpu-usage"), (40000 / 2 - 10000) / 100);
      collector->Stop();
   }
}

TEST_F(KernelCollectorTest, UsageNeedsNoSpeed)
{
   _host.speedHz = 0;
   Run();
   EXPECT_EQ(Raw("ha-host", "cpu-usage"), 500u);
   EXPECT_FALSE(Names("ha-host").contains("cpu-usagemhz"));
}

TEST_F(KernelCollectorTest, AbsentDisksAndNicsHaveNoSamples)
{
   Run();
   for (const std::string& name : Names("ha-host")) {
      EXPECT_FALSE(name.starts_with("disk-") || name.starts_with("net-")) << name;
   }
   _host.nics = {"eth1"};
   Run();
   EXPECT_EQ(Raw("ha-host", "net-usage"), 0u);
}

TEST_F(KernelCollectorTest, KernelFailureEndsTheRunAndKeepsEarlierSamples)
{
   _host.disks = {{"sda", {8, 4, 1, 2, 3, 5, 6}, {}}};
   const auto cpus = std::exchange(_host.cpus, {});
   Run();
   EXPECT_EQ(_agent.logger->Count("3 The kernel library reports no CPU of this host"), 1);
   _host.cpus = cpus;
   const std::tuple<std::string, std::function<void()>, const char*, bool, bool> cases[] = {
      {"GetDiskLuns", [] { throw HostCtl::Lib::HostCtlException("no luns"); },
       "6 HostCtl Exception during call to GetDiskLuns: no luns", true, true},
      {"GetMemoryStats", [] { throw HostCtl::Lib::HostCtlException("no memory"); },
       "3 HostCtl Exception during stats collection: no memory", true, false},
      {"GetMemoryStats", [] { throw Corvax::Exception("of the runtime"); },
       "3 Error in Statistics collection: of the runtime", true, false},
      {"GetHost", [] { throw 42; }, "3 Unknown exception during stats collection", false, false},
   };
   for (const auto& [operation, fail, logged, hasCpu, hasMemory] : cases) {
      _depot->DeleteEntityStats("ha-host");
      _host.before = [&, &failing = operation, &action = fail](const std::string& called) {
         called == failing ? action() : void();
      };
      Run();
      EXPECT_EQ(_agent.logger->Count(logged), 1) << logged;
      EXPECT_EQ(Names("ha-host").contains("cpu-usage"), hasCpu) << logged;
      EXPECT_EQ(Names("ha-host").contains("mem-active"), hasMemory) << logged;
      EXPECT_FALSE(Names("ha-host").contains("disk-usage")) << logged;
   }
   _host.before = [](const std::string&) {};
   Run();
   EXPECT_TRUE(Names("ha-host").contains("disk-usage"));
}

TEST_F(KernelCollectorTest, SkipsUnavailableVmsDisconnectedNicsAndForeignWorlds)
{
   const auto vm = AddVm("vm1");
   AddVm("stuck")->available = false;
   AddVm("gone");
   _agent.Unregister("gone");
   vm->AddCard(4000, true, true);
   vm->AddCard(4001, true, false);
   vm->AddCard(4002, false, true);
   vm->AddCard(4003, true, true); // no port
   _host.ports = {{4000, {2048, 1024, 3, 4}}, {4001, {9999, 9, 9, 9}}, {4002, {9999, 9, 9, 9}}};
   vm->worldId = 77;
   AddVm("no world");
   _host.disks = {{"sda", {}, {{77, {8, 2, 1, 1, 2, 0, 0}}, {-1, {9, 9, 9, 9, 9, 9, 9}}}},
                  {"sdb", {}, {{77, {4, 0, 1, 0, 1, 0, 0}}}}};
   Run();
   EXPECT_EQ(Raw("vm1", "net-usage"), 3u);
   EXPECT_EQ(Raw("vm1", "disk-usage"), 7u);
   EXPECT_EQ(Names("vm1").size(), 2u + 7 * 2 + 2 + 13 + 5 + 7 * 2 + 1);
   EXPECT_TRUE(Names("stuck").empty() && Names("gone").empty());
   EXPECT_FALSE(Names("no world").contains("disk-usage"));
   EXPECT_EQ(_agent.logger->CountLevel(3), 0);
}

TEST_F(KernelCollectorTest, MissingFiguresOfAVmLeaveItsOtherSamplesAlone)
{
   const auto vm = AddVm("vm1");
   _resourceMgr->swap.clear();
   _resourceMgr->vcpus.clear();
   vm->AddCard(1, true, true);
   _host.before = [](const std::string& operation) {
      if (operation == "GetPort") {
         throw HostCtl::Lib::HostCtlException("no port");
      }
   };
   AddVm("vm2")->config->hardware.memoryMb = 0;
   _resourceMgr->client["vm2"].savedBySharingKb = 1000;
   Run();
   EXPECT_EQ(Names("vm1"), (std::set<std::string>{"sys-heartbeat"}));
   EXPECT_EQ(_agent.logger->Count("7 Unable to collect memory stats for Vm vm1"), 1);
   EXPECT_EQ(_agent.logger->Count("for vm vm1 : no port"), 1);
   EXPECT_EQ(Raw("vm2", "mem-consumed"), 0u);
   EXPECT_FALSE(Names("vm2").contains("mem-usage"));
}

TEST_F(KernelCollectorTest, PoolThatCannotBeFoundHidesItsSubtree)
{
   const auto root = MakeRef<FakePool>("root");
   const auto lost = MakeRef<FakePool>("lost");
   const auto below = MakeRef<FakePool>("below lost");
   root->AddChild(lost);
   lost->AddChild(below);
   for (const auto& pool : {root, below}) {
      _agent.Register(pool->moRef->GetId(), pool);
      _resourceMgr->cpu[pool->moRef->GetId()] = {4000000};
   }
   Run();
   EXPECT_EQ(Raw("root", "cpu-usagemhz"), 8000u);
   EXPECT_TRUE(Names("below lost").empty());
}

TEST_F(KernelCollectorTest, HandlesOnlyItsOwnMessagesAndOnlyWhileStarted)
{
   Run();
   const auto vm = AddVm("vm1");
   const auto publishPower = [&] {
      _agent.Publish("/vm/runtime/powerop/vm1", MakeRef<Guestsvc::VmPowerOpMsg>(vm->moRef, 1, 2));
   };
   publishPower();
   Run();
   _agent.Publish("/vm/unregister/vm1", MakeRef<AgentdCommon::ResourcePoolDestroyedMsg>("vm1"));
   EXPECT_FALSE(Names("vm1").empty()); // the wrong kind of message
   _agent.Publish("/resourcePool/destroyed", MakeRef<AgentdCommon::ResourcePoolDestroyedMsg>(""));
   EXPECT_EQ(_agent.logger->Count("6 EntityRemovedListener: Deleting stats for entity"), 0);
   _collector->Stop();
   publishPower();
   EXPECT_EQ(_agent.logger->Count("7 Received notification 1 2"), 1);
}

TEST_F(KernelCollectorTest, CollectsWithoutTheVmService)
{
   _agent.Unregister(AgentdCommon::moid_guestsvc);
   Run();
   EXPECT_EQ(
      _agent.logger->Count("4 Unable to lookup guestsvc object. Failed to populate powered on "
                           "VMs list"),
      1);
   EXPECT_TRUE(Names("ha-host").contains("mem-active"));
   _agent.Unregister(AgentdCommon::moid_resourcemgr);
   Run();
   EXPECT_EQ(_agent.logger->Count("3 Error in Statistics collection: "), 1);
}

} // namespace
