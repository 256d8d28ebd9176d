#include "agentdCommon/messages.h"
#include "corvax/exception.h"
#include "metrix/counterIds.h"
#include "metrix/hykStatsCollector.h"
#include "tests/fakes/fakeAgent.h"
#include "tests/fakes/fakeHost.h"
#include "tests/fakes/fakeServices.h"
#include "tests/fakes/faultyFiles.h"
#include "tests/fakes/manualTime.h"
#include "tests/fakes/scratch.h"

#include <gtest/gtest.h>

#include <set>

namespace {

using namespace Metrix;
using Corvax::MakeRef;
using Corvax::Ref;

class CollectorTest : public testing::Test {
protected:
   CollectorTest()
   {
      GetStatsDepot(_scratch.Path(), "d", _agent.logger.Get(), 1000, _depot);
      _depot->Create();
      _depot->AddInterval("fine", 20, 180);
      _clock.SetSeconds(1000007);
   }

   std::set<std::string> Names(const std::string& entity)
   {
      std::vector<std::string> names;
      _depot->GetAvailableStatNames(entity, 0, 0, names);
      return {names.begin(), names.end()};
   }
   StatVal Raw(const std::string& entity, const std::string& stat)
   {
      TimeStamp ts = 0;
      return _depot->GetRawSample(entity, stat, ts);
   }

   const Scratch _scratch;
   FaultyFiles _files;
   FakeAgent _agent;
   ManualClock _clock;
   ManualScheduler _scheduler{_clock};
   Ref<StatsDepot> _depot;
   const Ref<StatsMetadata> _metadata = MakeRef<StatsMetadata>();
};

/// A collector whose runs call `collect`.
class ScriptedCollector : public BaseStatsCollector {
public:
   using BaseStatsCollector::AddSample;
   using BaseStatsCollector::BaseStatsCollector;

   std::function<void(int64_t ts)> collect = [](int64_t) {};
   int started = 0;
   int stopped = 0;

protected:
   void CollectStats(int64_t ts) override { collect(ts); }
   void StartInt() override { ++started; }
   void StopInt() override { ++stopped; }
};

class ScheduleTest : public CollectorTest {
protected:
   const Ref<ScriptedCollector> _collector =
      MakeRef<ScriptedCollector>(_agent.logger.Get(), _metadata.Get(), _depot.Get(), 20);
};

TEST_F(ScheduleTest, RunsStartOnBoundariesAndSkipThoseTheyOverran)
{
   std::vector<int64_t> runs;
   int64_t runTakesUs = 30000;
   _collector->collect = [&](int64_t ts) {
      runs.push_back(ts);
      _clock.nowUs += runTakesUs;
   };
   _clock.nowUs = 1000007600000; // within a second
   _collector->Start();
   _scheduler.RunNext();
   EXPECT_EQ(_scheduler.GetDueUs(), 1000040000000);
   runTakesUs = 25000000;
   _scheduler.RunNext(); // ends at 1000065
   runTakesUs = 20000000;
   _scheduler.RunNext(); // ends at 1000100, on a boundary
   _scheduler.RunNext();
   EXPECT_EQ(runs, (std::vector<int64_t>{1000020, 1000040, 1000080, 1000120}));
   _collector->SetCollectionInterval(50); // the pending run keeps its time
   EXPECT_EQ(_scheduler.GetDueUs(), 1000160000000);
   _scheduler.RunNext();
   EXPECT_EQ(_scheduler.GetDueUs(), 1000200000000);
   EXPECT_THROW(_collector->SetCollectionInterval(0), Corvax::InvalidArgumentException);
   _collector->Stop();
}

TEST_F(ScheduleTest, OneRunIsPendingAfterStartAndNoneAfterStop)
{
   _collector->Start();
   _collector->Start();
   EXPECT_EQ(_scheduler.GetWaiting(), 1u);
   EXPECT_EQ(_collector->started, 2);
   _collector->Stop();
   EXPECT_EQ(_scheduler.GetWaiting(), 0u);
   _collector->Stop();

   // Stopped by its own run.
   _collector->collect = [this](int64_t) { _collector->Stop(); };
   _collector->Start();
   _scheduler.RunNext();
   EXPECT_EQ(_scheduler.GetWaiting(), 0u);

   // Stopped and started again before a run that was due got the lock.
   _collector->collect = [](int64_t) {};
   _collector->Start();
   const auto late = _scheduler.TakeNext();
   _collector->Stop();
   _collector->Start();
   (*late)();
   EXPECT_EQ(_scheduler.GetWaiting(), 1u);
   _collector->Stop();
}

TEST_F(ScheduleTest, FailedAssertionEndsTheFlushAndTheNextRunStartsEmpty)
{
   _collector->collect = [this](int64_t ts) {
      const auto time = static_cast<TimeStamp>(ts);
      _collector->AddSample("e", kMemActive, time, 5, "", 0);
      _collector->AddSample("e", kMemActive, time, 6, "x", 0);
      if (time == 1000020) {
         _collector->AddSample("e", 0x7FFF, time, 7, "", 0);
         _collector->AddSample("e", kMemShared, time, 8, "", 0);
      }
   };
   _collector->Start();
   _scheduler.RunNext();
   EXPECT_EQ(_agent.logger->Count("3 Failed to add sample to statsDepot : "), 1);
   EXPECT_EQ(_agent.logger->Count("3 2 of the 4 samples of the newest collection are lost"), 1);
   EXPECT_EQ(Names("e"), (std::set<std::string>{"mem-active", "mem-active#x"}));
   EXPECT_EQ(Raw("e", "mem-active"), 5u);
   EXPECT_FALSE(_depot->IsLocked());
   _scheduler.RunNext();
   EXPECT_EQ(_agent.logger->CountLevel(3), 2);
   _collector->Stop();
}

TEST_F(ScheduleTest, RefusedSampleCostsNoOther)
{
   const auto add = [this](int64_t ts, const std::string& entity, int counterId) {
      _collector->AddSample(entity, counterId, static_cast<TimeStamp>(ts), 5, "", 0);
   };
   _collector->collect = [&](int64_t ts) {
      add(ts, "e", kMemActive);
      if (ts == 1000020) {
         add(ts, "", kMemActive); // a stat that cannot be created
         add(ts, "", kMemShared);
         _files.failAt = 1;
      }
      add(ts, "e", kMemShared);
   };
   _collector->Start();
   _scheduler.RunNext();
   EXPECT_EQ(Names("e"), (std::set<std::string>{"mem-shared"}));
   EXPECT_EQ(_agent.logger->Count("3 Failed to add sample to statsDepot : "), 2);
   EXPECT_EQ(_agent.logger->Count("statsDepot : Invalid argument"), 1);
   EXPECT_EQ(_collector->GetTrouble(),
             "3 of the 4 samples of the newest collection are lost: Cannot access a file of the "
             "test: No space left on device");
   _scheduler.RunNext();
   EXPECT_EQ(Names("e").size(), 2u);
   EXPECT_EQ(_collector->GetTrouble(), "");

   _collector->collect = [&](int64_t ts) {
      add(ts, "e", kMemActive);
      _files.failAt = 1; // the write of the row, when the batch ends
      _files.failAll = true;
   };
   _scheduler.RunNext();
   EXPECT_NE(_collector->GetTrouble(), "");
   _files.Recover();
   _collector->Stop();
}

TEST_F(ScheduleTest, ExceptionEndsItsRunOnly)
{
   const std::pair<std::function<void()>, const char*> cases[] = {
      {[] { throw Corvax::OutOfMemoryException(); }, "emory"},
      {[] { throw std::runtime_error("of another family"); }, "of another family"},
      {[] { throw 42; }, "unknown exception"},
   };
   _collector->Start();
   for (const auto& [fail, text] : cases) {
      _agent.logger->Clear();
      _collector->collect = [&, &action = fail](int64_t ts) {
         _collector->AddSample("e", kMemActive, static_cast<TimeStamp>(ts), 5, "", 0);
         action();
      };
      _scheduler.RunNext();
      EXPECT_EQ(_agent.logger->Count("3 A collection failed: "), 1);
      EXPECT_EQ(_agent.logger->Count(text), 1) << text;
      EXPECT_FALSE(_collector->IsLocked());
      EXPECT_EQ(_scheduler.GetWaiting(), 1u);
   }
   EXPECT_EQ(Raw("e", "mem-active"), 5u);
   _collector->Stop();
}

/// Two hundred seconds with a step of the clock, timed as by a timer thread.
TEST_F(ScheduleTest, StepsOfTheClockCostFewRuns)
{
   constexpr int64_t kDaySec = 86400;
   struct Case {
      const char* name;
      double stepSec;
      double fromSec; ///< in real time after 1000000
      double untilSec;
      std::vector<int64_t> runs; ///< after 1000000 by the clock
      int givenUp;               ///< messages
   };
   const Case cases[] = {
      {"none", 0, 0, 0, {20, 40, 60, 80, 100, 120, 140, 160}, 0},
      {"back within a second", -0.5, 45, 999, {20, 40, 60, 80, 100, 120, 140, 160}, 0},
      {"back by seconds", -3, 45, 999, {20, 40, 60, 80, 100, 120, 140, 160}, 0},
      {"back over a boundary", -30, 45, 999, {20, 40, 60, 80, 100, 120}, 0},
      {"back by an hour", -3600, 45, 999, {20, 40, -3539, -3520, -3500, -3480, -3460, -3440}, 1},
      {"a day ahead for one run", kDaySec, 45, 65, {20, 40, 81, 100, 120, 140, 160}, 0},
      {"a day ahead before a boundary", kDaySec, 59, 61, {20, 40, 81, 100, 120, 140, 160}, 0},
      {"a day ahead",
       kDaySec,
       45,
       999,
       {20, 40, kDaySec + 80, kDaySec + 100, kDaySec + 120, kDaySec + 140, kDaySec + 160},
       0},
   };
   for (const auto& [name, stepSec, fromSec, untilSec, wanted, givenUp] : cases) {
      std::vector<int64_t> runs;
      _collector->collect = [&, &list = runs](int64_t ts) { list.push_back(ts - 1000000); };
      _agent.logger->Clear();
      _clock.SetSeconds(1000007);
      _collector->Start();
      for (double sec = 7; sec < 165; sec += 0.125) {
         const double offsetSec = sec >= fromSec && sec < untilSec ? stepSec : 0;
         _clock.nowUs = static_cast<int64_t>((1000000 + sec + offsetSec) * 1e6);
         _clock.monotonicUs += 125000;
         _scheduler.RunIfDue();
      }
      _collector->Stop();
      EXPECT_EQ(runs, wanted) << name;
      EXPECT_EQ(_agent.logger->Count("columns ahead of it are given up"), givenUp) << name;
      EXPECT_LE(_agent.logger->Count("The clock "), 1) << name;
   }
}

TEST_F(ScheduleTest, FirstRunWaitsForAColumnAheadOfTheClock)
{
   _depot->CreateStat("e", "s", StatsDepot::STATTYPE_ABSOLUTE, 1, {});
   _depot->AddSample("e", "s", 1000060, 1, 0);
   std::vector<int64_t> runs;
   _collector->collect = [&](int64_t ts) { runs.push_back(ts); };
   _collector->Start();
   for (int i = 0; i < 4; ++i) {
      _scheduler.RunNext();
   }
   EXPECT_EQ(runs, (std::vector<int64_t>{1000080}));
   EXPECT_EQ(_agent.logger->Count("5 The clock was set back; "), 1);
   _collector->Stop();
}

TEST_F(ScheduleTest, ColumnsAheadOfAClockThatWasSetBackAreGivenUp)
{
   _collector->collect = [this](int64_t ts) {
      _collector->AddSample("e", kMemActive, static_cast<TimeStamp>(ts), 5, "", 0);
   };
   _collector->Start();
   for (int i = 0; i < 3; ++i) {
      _scheduler.RunNext();
   }
   const auto next = _scheduler.TakeNext();
   _clock.SetSeconds(1000060 - 3600);
   (*next)();
   std::vector<StatVal> values;
   std::vector<TimeStamp> stamps;
   EXPECT_EQ(_depot->GetSamples("e", "mem-active", 0, 2000000, values, &stamps, "",
                                StatsDepot::ROLLUP_NONE),
             1);
   EXPECT_EQ(stamps, (std::vector<TimeStamp>{1000060 - 3600}));
   EXPECT_EQ(_agent.logger->Count("3 columns ahead of it are given up"), 1);
   _collector->Stop();
}

TEST_F(ScheduleTest, FirstFlushAddsRollupsThatStatsLack)
{
   for (const std::string name : {"mem-active", "of an older catalogue"}) {
      _depot->CreateStat("e", name, StatsDepot::STATTYPE_ABSOLUTE, 1, {});
   }
   _depot->AddSample("e", "mem-active", 1000000, 1, 0);
   const auto hasRollup = [this] {
      std::vector<StatVal> values;
      _depot->GetSamples("e", "mem-active", 0, 2000000, values, nullptr, "",
                         StatsDepot::ROLLUP_AVERAGE);
      return !values.empty();
   };
   EXPECT_FALSE(hasRollup());
   _collector->Start();
   _scheduler.RunNext();
   EXPECT_TRUE(hasRollup());
   EXPECT_EQ(_agent.logger->CountLevel(3), 0);
   _collector->Stop();
}

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
