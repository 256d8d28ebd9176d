#include "simHost/simHost.h"
#include "metrix/hykStatsCollector.h"
#include "simHost/simFigures.h"
#include "tests/fakes/fakeAgent.h"
#include "tests/fakes/manualTime.h"
#include "tests/fakes/messageOf.h"
#include "tests/fakes/scratch.h"
#include "tests/simHost/simOracle.h"

#include <future>

namespace {

using namespace Metrix;
using Corvax::MakeRef;
using Corvax::Ref;
using SimHost::Figure;
using SimHost::ParseSimOptions;
using SimHost::SimAction;
using SimHost::SimEvent;
using SimHost::SimOptions;

constexpr int64_t kStartSec = 1767225600; // a multiple of 300

/// Each text is refused with a message that contains the one beside it.
void ExpectRefusals(const std::function<void(const std::string&)>& parse,
                    const std::vector<std::pair<std::string, std::string>>& refused)
{
   for (const auto& [text, message] : refused) {
      EXPECT_NE(MessageOf([&] { parse(text); }).find(message), std::string::npos) << text;
   }
}

/// The collector with its depot on a simulated host, followed by the oracle.
class SimulationTest : public testing::Test {
protected:
   struct Scripted {
      int run; ///< the event comes before this run
      SimAction action;
      std::string id;
      uint64_t count = 0;
   };

   SimulationTest() { _clock.SetSeconds(kStartSec + 7); }
   ~SimulationTest() override
   {
      _collector->Stop();
      HostCtl::HostFactory::SetProvider(nullptr);
   }

   void Open(bool isNew)
   {
      const int periodSec = static_cast<int>(_periodSec);
      GetStatsDepot(_scratch.Path(), "d", _agent.logger.Get(), 1000, _depot);
      if (isNew) {
         _depot->Create();
         _depot->AddInterval("RealTime", periodSec, _columns);
         _depot->AddInterval("5min", 300, 432);
      } else {
         _collector->Stop();
         _collector = nullptr; // with the depot before
         _depot->Load();
      }
      _collector = MakeRef<HykStatsCollector>(_agent.logger.Get(), _metadata.Get(), _depot.Get(),
                                              periodSec, _wideFigures);
      _collector->Start();
   }

   /// Applies the event and tells the oracle. False if it changes nothing.
   bool Follow(SimOracle& oracle, SimHost::SimHost& host, const Scripted& event)
   {
      if (!host.Apply(event.action, event.id, event.count)) {
         return false;
      }
      EXPECT_FALSE(host.Apply(event.action, event.id, event.count)) << event.id;
      std::set<SimAction>& off = _off[event.id];
      const bool isStart = event.action == SimAction::REGISTER_VM ||
                           (event.action == SimAction::ON_VM && off.contains(SimAction::OFF_VM));
      if (isStart || event.action != SimAction::ON_VM) {
         const auto nowSec = static_cast<TimeStamp>(_clock.nowUs / Corvax::kMicrosecondsPerSecond);
         _changes.push_back({nowSec + 1, static_cast<int64_t>(nowSec),
                             isStart ? SimAction::ON_VM : event.action, event.id, event.count});
         if (!event.id.starts_with("pool")) {
            oracle.Apply(_changes.back());
         }
      }
      FollowPower(event.action, off);
      std::vector<std::string> ids = {event.id};
      if (event.action == SimAction::DESTROY_POOL && event.id == "pool-01") {
         ids.push_back("pool-05"); // its child
         _off["pool-05"] = off;
      }
      for (const std::string& id : ids) {
         oracle.SetRead(id, off.empty());
         if (event.action == SimAction::UNREGISTER_VM || event.action == SimAction::DESTROY_POOL) {
            oracle.Forget(id);
         }
      }
      return true;
   }

   /// `off` is what keeps an entity from being read.
   static void FollowPower(SimAction action, std::set<SimAction>& off)
   {
      switch (action) {
      case SimAction::OFF_VM:
      case SimAction::SUSPEND_VM:
      case SimAction::UNREGISTER_VM:
      case SimAction::DESTROY_POOL:
      case SimAction::STUCK_VM:
         off.insert(action);
         break;
      case SimAction::UNSTUCK_VM:
         off.erase(SimAction::STUCK_VM);
         break;
      case SimAction::ON_VM:
      case SimAction::REGISTER_VM:
      case SimAction::CREATE_POOL:
         std::erase_if(off, [](SimAction each) { return each != SimAction::STUCK_VM; });
         break;
      default:
         break;
      }
   }

   /// Makes the runs; before run `restart` the depot is reloaded and the collector replaced. The
   /// depot must then match an oracle that knew of each event, and one that knows the runs alone.
   void Check(const std::string& text, int runs, int restart, const std::vector<Scripted>& events)
   {
      SimOptions options = ParseSimOptions(text);
      SimHost::SimHost host(options, _agent.logger.Get());
      HostCtl::HostFactory::SetProvider(&host);
      SimOracle oracle(options, _periodSec, _wideFigures);
      for (uint64_t i = 1; i <= options.stuck; ++i) {
         _off[SimHost::GetVmId(i)].insert(SimAction::STUCK_VM);
      }
      for (int run = 0; run < runs; ++run) {
         if (run == 0 || run == restart) {
            Open(run == 0);
         }
         _clock.Advance(events.empty() ? 0 : 4000000); // events come between runs
         for (const Scripted& event : events) {
            if (event.run == run) {
               EXPECT_TRUE(Follow(oracle, host, event) || _mayRepeat) << run << event.id;
            }
         }
         _agent.Publish("/nothing", nullptr); // all earlier messages have been delivered
         // Some runs are late, one of them at the end of a coarse period, and some are skipped.
         const int64_t dueUs = _scheduler.GetDueUs();
         if (_periodSec > 1 && (run % 17 == 16 || dueUs % 900000000 == 0)) {
            _clock.nowUs = dueUs + (run % 3 == 0 ? 3100000 : 21500000);
         }
         _scheduler.RunNext();
         const auto timeSec = static_cast<TimeStamp>(_clock.nowUs / Corvax::kMicrosecondsPerSecond);
         _runs.push_back({timeSec, timeSec, run == 0 || run == restart});
         oracle.AddRun(_runs.back());
      }
      Expect(oracle, "knows the events");
      options.script = events.empty() ? "" : "events";
      Expect(SimOracle::FromRuns(*_depot, options, _runs, _changes, _wideFigures),
             "knows runs and changes alone");
   }

   /// Of the run with that number.
   StatVal GetSample(const std::string& entity, const std::string& stat, int run) const
   {
      std::vector<StatVal> values;
      std::vector<TimeStamp> stamps;
      _depot->GetSamples(entity, stat, Metrix::kUnset, Metrix::kUnset, values, &stamps, "RealTime",
                         StatsDepot::ROLLUP_NONE);
      const TimeStamp stamp = _runs.at(static_cast<size_t>(run)).timeSec / _periodSec * _periodSec;
      const auto found = std::ranges::find(stamps, stamp);
      return found == stamps.end() ? Metrix::kUnset
                                   : values[static_cast<size_t>(found - stamps.begin())];
   }

   SimOracle::Result Compare(const SimOracle& oracle) const
   {
      return oracle.Compare(*_depot, _scratch.Path() + "d.idMap");
   }
   void Expect(const SimOracle& oracle, const char* name) const
   {
      const SimOracle::Result result = Compare(oracle);
      EXPECT_GT(result.samples, 10000u) << name;
      EXPECT_EQ(result.differ, 0u) << name << testing::PrintToString(result.texts);
   }

   const Scratch _scratch;
   FakeAgent _agent;
   ManualClock _clock;
   ManualScheduler _scheduler{_clock};
   const Ref<StatsMetadata> _metadata = MakeRef<StatsMetadata>();
   uint64_t _periodSec = 20;
   unsigned _columns = 60;
   bool _wideFigures = false;
   bool _mayRepeat = false; ///< events may change nothing
   std::map<std::string, std::set<SimAction>> _off;
   std::vector<SimOracle::Change> _changes;
   std::vector<SimOracle::Run> _runs;
   Ref<StatsDepot> _depot;
   Ref<HykStatsCollector> _collector;
};

TEST_F(SimulationTest, EverySampleMatchesTheModelThroughEventsAndARestart)
{
   _columns = 180;
   Check("vms=12,pools=5,disks=3,vcpus=2,cards=2,seed=5,stuck=1,failing=1", 170, 100,
         {{5, SimAction::OFF_VM, "vm-0003"},
          {6, SimAction::ON_VM, "vm-0003"},
          {7, SimAction::SUSPEND_VM, "vm-0004"},
          {40, SimAction::ON_VM, "vm-0004"},
          {20, SimAction::UNREGISTER_VM, "vm-0005"},
          {70, SimAction::REGISTER_VM, "vm-0005"},
          {21, SimAction::DESTROY_POOL, "pool-01"},
          {45, SimAction::CREATE_POOL, "pool-01"},
          {46, SimAction::CREATE_POOL, "pool-05"},
          {30, SimAction::STUCK_VM, "vm-0006"},
          {33, SimAction::UNSTUCK_VM, "vm-0006"},
          {31, SimAction::FAILING_VM, "vm-0007"},
          {50, SimAction::WORKING_VM, "vm-0007"},
          {60, SimAction::UNSTUCK_VM, "vm-0001"},
          {61, SimAction::WORKING_VM, "vm-0012"}});
}

TEST_F(SimulationTest, MissingAndInventedSamplesAreFoundEvenInReusedColumns)
{
   const std::string text = "vms=3,pools=1,cpus=3,disks=1,nics=1,seed=6,failing=1";
   Check(text, 150, -1, {});
   for (const char* const id : {"vm-0003", "vm-0004"}) { // failing, and unknown
      _depot->CreateStat(id, "mem-active", StatsDepot::STATTYPE_ABSOLUTE, 1, {});
      _depot->AddSample(id, "mem-active", _depot->GetLatestTimeStamp(), 1, 0);
   }
   SimOptions options = ParseSimOptions(text);
   const auto countDifferences = [&] {
      return Compare(SimOracle::FromRuns(*_depot, options, _runs, {}, false)).differ;
   };
   EXPECT_EQ(countDifferences(), 2u);
   _depot->DeleteStat("vm-0002", "mem-active");
   EXPECT_GT(countDifferences(), 60u);
   options.seed += 1;
   EXPECT_GT(countDifferences(), 10000u);
}

TEST_F(SimulationTest, SumsAndQuotientsStayRightWhileTheirPartsComeAndGo)
{
   _columns = 180;
   _wideFigures = true;
   Check("vms=4,pools=0,disks=3,nics=3,vcpus=1,cards=1,seed=11", 120, 90,
         {{5, SimAction::VCPUS_VM, "vm-0001", 4},    {15, SimAction::VCPUS_VM, "vm-0001", 2},
          {18, SimAction::VCPUS_VM, "vm-0001", 3},   {20, SimAction::OFF_VM, "vm-0001"},
          {22, SimAction::ON_VM, "vm-0001"},         {30, SimAction::VCPUS_VM, "vm-0001", 1},
          {31, SimAction::VCPUS_VM, "vm-0001", 16},  {10, SimAction::CARDS_VM, "vm-0002", 3},
          {15, SimAction::CARDS_VM, "vm-0002", 1},   {20, SimAction::CARDS_VM, "vm-0002", 0},
          {21, SimAction::CARDS_VM, "vm-0002", 10},  {10, SimAction::DISKS_VM, "vm-0003", 0},
          {11, SimAction::DISKS_VM, "vm-0003", 2},   {20, SimAction::DISKS_HOST, "ha-host", 1},
          {40, SimAction::DISKS_HOST, "ha-host", 3}, {41, SimAction::DISKS_HOST, "ha-host", 0},
          {43, SimAction::DISKS_HOST, "ha-host", 2}, {20, SimAction::NICS_HOST, "ha-host", 2},
          {40, SimAction::NICS_HOST, "ha-host", 3},  {41, SimAction::NICS_HOST, "ha-host", 0},
          {45, SimAction::NICS_HOST, "ha-host", 1},  {50, SimAction::HANG_VM, "vm-0004"},
          {55, SimAction::UNHANG_VM, "vm-0004"}});
   // One that joins or leaves costs a corrected figure no sample.
   for (const int run : {5, 15, 18, 31}) {
      EXPECT_NE(GetSample("vm-0001", "cpu-usage", run), kUnset) << run;
   }
   for (const int run : {20, 40}) {
      EXPECT_NE(GetSample("ha-host", "disk-usage", run), kUnset) << run;
      EXPECT_NE(GetSample("ha-host", "net-usage", run), kUnset) << run;
   }
}

TEST_F(SimulationTest, RandomEventsAndLateReadingsShowInEverySampleAsTheyMust)
{
   _columns = 180;
   _mayRepeat = true;
   const std::string text =
      "vms=12,pools=4,disks=3,nics=2,vcpus=2,cards=2,seed=12,stuck=1,failing=1,late=30,events=1";
   std::vector<Scripted> events;
   for (uint64_t number = 0; number < 700; ++number) {
      const SimEvent event = SimHost::GetRandomEvent(ParseSimOptions(text), number);
      events.push_back({static_cast<int>(number / 4), event.action, event.id, event.count});
   }
   Check(text, 170, 90, events);
}

TEST_F(SimulationTest, AHostWithManyCpusHasRightPercentages)
{
   _wideFigures = true;
   Check("vms=1,pools=0,cpus=384,disks=0,nics=0,seed=13", 40, -1, {});
   EXPECT_GT(GetSample("ha-host", "cpu-usage", 39), 2000u);
   EXPECT_LT(GetSample("ha-host", "cpu-usage", 39), 3500u);
}

TEST_F(SimulationTest, EverySecondOfSeveralCoarsePeriodsIsRight)
{
   _periodSec = 1;
   _columns = 700;
   Check("vms=2,pools=1,cpus=2,disks=2,cards=1,seed=7,late=10", 950, -1, {});
}

TEST(SimOptionsTest, ErrorsNameTheOptionAndTheAcceptedValues)
{
   EXPECT_EQ(ParseSimOptions("").vms, 20u);
   const SimOptions options = ParseSimOptions("script=a b,stuck=3,seed=18446744073709551615,vms=3");
   EXPECT_EQ(options.script + std::to_string(options.seed), "a b18446744073709551615");
   ExpectRefusals(
      [](const std::string& text) { ParseSimOptions(text); },
      {{"vm=3", "no option 'vm': its options are vms, pools,"},
       {"vms", "at 'vms'"},
       {"vms=3,", "at 'vms=3'"},
       {"vms=3,vms=4", "vms is given twice"},
       {"vms=20001", "vms cannot be '20001': it must be a whole number from 0 to 20000"},
       {"cpus=0", "cpus cannot be '0': it must be a whole number from 1 to 4096"},
       {"vcpus=65", "from 1 to 64"},
       {"pools=-1", "from 0 to 2000"},
       {"seed=1x", "seed cannot be '1x'"},
       {"script=", "the path of a file"},
       {"vms=3,failing=4", "failing cannot be '4': there are only 3"}});
}

TEST(SimModelTest, FiguresDependOnTheSeedAndKeepTheirBounds)
{
   const auto key = SimHost::MakeKey(1, "vm-0001");
   const uint64_t sizeKb = SimHost::GetMemorySizeKb(key);
   const auto total = [key](int64_t t) {
      const auto cpu = SimHost::GetVcpu(key, 3, {t});
      return cpu.usedUs + cpu.systemUs + cpu.waitUs + cpu.readyUs + cpu.extraUs;
   };
   const auto hostTotal = [key](int64_t t) {
      const auto cpu = SimHost::GetHostCpu(key, 3, t);
      return cpu.usedUs + cpu.idleUs;
   };
   const int64_t end = 4102444800; // 2100
   for (const int64_t start : {SimHost::kHostStartSec, kStartSec, end - 50}) {
      for (int64_t t = start; t < start + 50; ++t) {
         for (uint32_t i = 0; i < static_cast<uint32_t>(Figure::RESERVED_CPU_MHZ); ++i) {
            const auto figure = static_cast<Figure>(i);
            EXPECT_LT(Counter(key, figure, {t}), Counter(key, figure, {t + 1}));
         }
         EXPECT_LT(total(t + 1), total(t) + 1000000);
         EXPECT_EQ(hostTotal(t + 1), hostTotal(t) + 1000000);
         const auto memory = SimHost::GetMemory(key, sizeKb, t);
         EXPECT_LE(memory.activeKb, memory.grantedKb);
         EXPECT_LE(memory.zeroKb, memory.sharedKb);
         EXPECT_LE(memory.grantedKb + memory.swappedKb + memory.balloonKb, sizeKb);
      }
   }
   EXPECT_NE(Counter(SimHost::MakeKey(2, "vm-0001"), Figure::BLOCKS_READ, {kStartSec}),
             Counter(key, Figure::BLOCKS_READ, {kStartSec}));
}

TEST(SimEventsTest, ScriptErrorsNameFileAndLine)
{
   const Scratch scratch;
   const auto state = MakeRef<SimHost::SimState>(ParseSimOptions("vms=2,pools=1"));
   const auto load = [&](const std::string& text) {
      scratch.Write("s", text);
      return SimHost::LoadScript(scratch.Path() + "s", *state);
   };
   const std::vector<SimEvent> events =
      load("# all\n\n20 off-vm vm-0002 # late\n5 destroy-pool pool-01");
   ASSERT_EQ(events.size(), 2u);
   EXPECT_EQ(events[0].timeUs, 5000000);
   EXPECT_EQ(events[1].action, SimAction::OFF_VM);
   ExpectRefusals(
      load, {{"#\n1 off-vm", "s:2: a line must be SECONDS ACTION ID"},
             {"1.5 off-vm vm-0001", "s:1: '1.5' is not a whole number of seconds"},
             {"1 of-vm vm-0001", "s:1: there is no action 'of-vm': the actions are on-vm, off-vm,"},
             {"1 off-vm vm-0001 2", "s:1: with off-vm, a line must be SECONDS ACTION ID"},
             {"1 vcpus-vm vm-0001", "s:1: with vcpus-vm, a line must be SECONDS ACTION ID NUMBER"},
             {"1 vcpus-vm vm-0001 0", "s:1: '0' is not a whole number from 1 to 64"},
             {"1 disks-host host 1", "s:1: there is no host 'host': the host is ha-host"},
             {"1 off-vm vm-0003", "s:1: there is no virtual machine 'vm-0003': the host has 2"},
             {"1 off-vm vm-001", "s:1: there is no virtual machine 'vm-001'"},
             {"1 destroy-pool ha-root-pool",
              "s:1: there is no resource pool 'ha-root-pool': the host has 1"}});
   EXPECT_THROW(SimHost::LoadScript(scratch.Path() + "none", *state), Corvax::PlatformException);
}

TEST(SimEventsTest, DelayedRandomEventsAreAllAppliedAndKeepTheHostsSize)
{
   FakeAgent agent;
   const SimOptions options = ParseSimOptions("vms=30,pools=10,events=600");
   SimHost::SimHost host(options, agent.logger.Get());
   const auto state = MakeRef<SimHost::SimState>(options);
   std::vector<std::string> taken[2];
   std::set<SimAction> applied;
   const auto newEvents = [&](std::vector<std::string>& list) {
      const auto apply = [&](const SimEvent& event) {
         list.push_back(std::to_string(static_cast<int>(event.action)) + event.id);
         return host.Apply(event.action, event.id, event.count) &&
                applied.insert(event.action).second;
      };
      return MakeRef<SimHost::SimEvents>(state, apply, agent.logger.Get());
   };
   const auto punctual = newEvents(taken[0]);
   for (int64_t second = 1; second <= 600; ++second) {
      punctual->ApplyDue(second * 1000000);
      EXPECT_EQ(taken[0].size(), static_cast<size_t>(second) * 10);
   }
   newEvents(taken[1])->ApplyDue(600000000);
   EXPECT_EQ(taken[1], taken[0]);
   EXPECT_EQ(applied.size(), 18u);
   // 3 services, the root pool, and most of the 30 VMs and 10 pools.
   EXPECT_GE(Corvax::Service::GetApp()->GetObjectRegistry()->GetAll().size(), 4u + 26 + 6);
}

TEST(SimHostTest, TheHostsObjectsAreRegisteredOnceAndRemovedAtItsEnd)
{
   FakeAgent agent;
   const SimOptions options = ParseSimOptions("vms=1");
   auto* const registry = Corvax::Service::GetApp()->GetObjectRegistry();
   {
      SimHost::SimHost host(options, agent.logger.Get());
      EXPECT_EQ(registry->GetAll().size(), 9u); // 3 services, a VM, 4 pools and the root
      EXPECT_THROW(SimHost::SimHost(options, agent.logger.Get()), Corvax::InvalidArgumentException);
      EXPECT_EQ(registry->GetAll().size(), 9u);
   }
   EXPECT_EQ(registry->GetAll().size(), 0u);
}

TEST(SimEventsTest, TheThreadAppliesDueEventsAndStopLogsHowManyChangedAnything)
{
   FakeAgent agent;
   const Scratch scratch;
   scratch.Write("s", "0 off-vm vm-0001\n0 off-vm vm-0001\n999999 on-vm vm-0001\n");
   std::promise<void> both;
   int calls = 0;
   const auto events = MakeRef<SimHost::SimEvents>(
      MakeRef<SimHost::SimState>(ParseSimOptions("vms=1,script=" + scratch.Path() + "s")),
      [&](const SimEvent&) {
         if (++calls == 2) {
            both.set_value();
         }
         return calls == 1;
      },
      agent.logger.Get());
   events->Start();
   both.get_future().wait();
   events->Stop();
   EXPECT_EQ(calls, 2);
   EXPECT_EQ(agent.logger->Count("5 1 events of the simulated host were applied"), 1);
}

} // namespace
