#include "corvax/exception.h"
#include "metrix/metrix.h"
#include "plexa/fault.h"
#include "quen/inventory.h"
#include "tests/fakes/faultyFiles.h"
#include "tests/fakes/messageOf.h"
#include "tests/metrix/managerFixture.h"

#include <random>

namespace {

using namespace Metrix;
using Corvax::MakeRef;
using Corvax::Ref;
using Quen::PerformanceManager;
using InvalidArgument = Plexa::Fault::InvalidArgument::Exception;
using NotImplemented = Plexa::Fault::NotImplemented::Exception;

TEST(FindIntervalBoundaryTest, ReturnsTheNextInstantOfTheGrid)
{
   const std::array<int64_t, 4> cases[] = {{0, 1000, 300, 1200},
                                           {0, 1200, 300, 1200},
                                           {20, 1000, 300, 1220},
                                           {250, 1000, 300, 1150},
                                           {901, 1000, 300, 1201}};
   for (const auto& [reference, time, interval, boundary] : cases) {
      EXPECT_EQ(FindIntervalBoundary(reference, time, interval), boundary);
   }
}

class PerformanceManagerTest : public ManagerTest {
protected:
   static constexpr int64_t kNow = 1000000000;

   PerformanceManagerTest() { _clock.SetSeconds(kNow); }

   /// Creates the manager as the agent does when it starts.
   void Start(const std::string& interval = "")
   {
      _manager = nullptr;
      _agent.logger->Clear();
      if (!interval.empty()) {
         _agent.config->Set("plugins/metrix/collectionInterval", interval);
      }
      NewManager();
   }
   bool HasReverted() const
   {
      return _agent.logger->Count("4 Reverting to default stats configuration") == 1;
   }
   /// The manager's depot, opened a second time from its files.
   Ref<StatsDepot> Depot()
   {
      Ref<StatsDepot> depot;
      GetStatsDepot(_scratch.Path(), "hostAgentStats", _agent.logger.Get(), 1, depot);
      depot->LoadReadOnly();
      return depot;
   }
   void Record(TimeStamp ts, const std::vector<std::pair<std::string, StatVal>>& figures,
               const std::string& entity = "ha-host")
   {
      for (const auto depot = TakeDepot(); const auto& [stat, value] : figures) {
         Add(*depot, entity, stat, ts, value);
      }
      Start();
   }
   /// All stats of the mock-up collector have a sample in the newest column.
   void ExpectNewestSamples()
   {
      const auto depot = Depot();
      std::vector<std::string> names;
      depot->GetAvailableStatNames("ha-host", 0, 0, names);
      EXPECT_EQ(names.size(), 24u);
      for (const std::string& name : names) {
         EXPECT_EQ(depot->GetSample("ha-host", name, depot->GetLatestTimeStamp(), "",
                                    StatsDepot::ROLLUP_NONE),
                   0u)
            << name;
      }
   }
   void Damage(const std::string& file, const std::string& damage)
   {
      std::string bytes = _scratch.Read(file);
      ASSERT_GT(bytes.size(), 8u);
      if (damage == "removed") {
         Corvax::System::GetFactory().Remove(_scratch.Path() + file);
         return;
      }
      if (damage == "random") {
         std::ranges::generate(bytes, [this] { return static_cast<char>(_random()); });
      } else {
         bytes.resize(damage == "emptied"       ? 0
                      : damage == "cut in half" ? bytes.size() / 2
                                                : bytes.size() - 1);
      }
      _scratch.Write(file, bytes);
   }

   std::mt19937_64 _random{20261121};
};

TEST_F(PerformanceManagerTest, CollectionIntervalMustDivideTheHistoricalPeriod)
{
   for (const std::string bad : {"0", "-20", "7", "301"}) {
      Start(bad);
      EXPECT_EQ(_agent.logger->Count("4 Invalid stats collection interval: " + bad), 1);
      EXPECT_EQ(_agent.logger->Count("5 Collection interval is 20 sec"), 1);
   }
   for (const auto& [interval, samples] : {std::pair{1, 3600}, {20, 180}, {150, 24}, {300, 12}}) {
      Start(std::to_string(interval));
      Corvax::RefVector<StatsDepotInterval> intervals;
      Depot()->GetIntervals(intervals);
      EXPECT_EQ(intervals[0]->samplingPeriod, interval);
      EXPECT_EQ(intervals[0]->numSamples, samples);
      EXPECT_EQ(intervals.size(), interval == 300 ? 1u : 2u);
      std::string name;
      EXPECT_TRUE(_manager->GetIntervalName(300, name));
      EXPECT_EQ(name, interval == 300 ? "RealTime" : "5min");
      EXPECT_FALSE(_manager->GetIntervalName(60, name));
   }
   EXPECT_THROW(Start("twenty"), Corvax::InvalidArgumentException);
}

TEST_F(PerformanceManagerTest, KeepsAUsableDepotAndReplacesAnyOther)
{
   Start();
   EXPECT_TRUE(HasReverted());
   Start(); // no column yet, so no time stamp in the future
   EXPECT_FALSE(HasReverted());
   for (const auto& [lead, reverts] : {std::pair{60, false}, {80, true}}) {
      Record(kNow + static_cast<TimeStamp>(lead), {{"mem-active", 1}});
      EXPECT_EQ(HasReverted(), reverts) << lead;
   }
   Start("30");
   EXPECT_TRUE(HasReverted());
   Start();
   EXPECT_FALSE(HasReverted());
}

TEST_F(PerformanceManagerTest, DepotThatIsReplacedIsSetAsideWhole)
{
   const std::string name = "hostAgentStats";
   const std::tuple<const char*, std::function<void()>, const char*> cases[] = {
      {"another interval", [] {}, "30"},
      {"ahead of the clock", [this] { _clock.SetSeconds(kNow - 3600); }, "20"},
      {"a damaged description", [&] { _scratch.Write(name + ".xml", "<config>"); }, "20"},
      {"no description", [&] { Damage(name + ".xml", "removed"); }, "20"},
      {"no id map", [&] { Damage(name + ".idMap", "removed"); }, "20"},
   };
   for (const auto& [reason, spoil, interval] : cases) {
      SCOPED_TRACE(reason);
      _manager = nullptr;
      Corvax::NewPosixFactory()->Remove(_scratch.Path());
      _clock.SetSeconds(kNow);
      Start("20");
      RunCollection(3);
      _manager = nullptr;
      spoil();
      const auto before = _scratch.ReadAll();
      Start(interval);
      EXPECT_TRUE(HasReverted());
      EXPECT_EQ(_agent.logger->Count("are now in " + _scratch.Path() + name + ".aside: "), 1);
      EXPECT_TRUE(_scratch.ReadAll(name + ".aside/") == before);
      RunCollection(1);
   }
}

TEST_F(PerformanceManagerTest, DepotThatCannotBeReadStaysAsItIs)
{
   Start();
   RunCollection(20);
   _manager = nullptr;
   const auto before = _scratch.ReadAll();
   for (const auto& [error, isLasting] : {std::pair{EACCES, true}, {EMFILE, true}, {EIO, false}}) {
      bool wasHit = true;
      for (int operation = 1; wasHit; ++operation) {
         FaultyFiles files;
         files.errorNumber = error;
         files.failAt = operation;
         files.failAll = isLasting;
         const std::string message = MessageOf([this] { Start(); });
         wasHit = files.failAt == 0;
         _manager = nullptr;
         EXPECT_EQ(!message.empty(), wasHit) << operation;
         EXPECT_TRUE(_scratch.ReadAll() == before) << operation;
         EXPECT_FALSE(HasReverted());
      }
   }
}

TEST_F(PerformanceManagerTest, StopNeedsNoJournalAfterwards)
{
   _agent.config->Set("plugins/metrix/checkpointSec", "300");
   Start();
   _manager->StartStatsCollection();
   _scheduler.RunNext();
   _scheduler.RunNext(); // a rate needs two
   ExpectNewestSamples();
   _manager->StopStatsCollection();
   _manager = nullptr;
   Damage("hostAgentStats.journal.0", "removed");
   Damage("hostAgentStats.journal.1", "removed");
   ExpectNewestSamples();
}

TEST_F(PerformanceManagerTest, StartsAndCollectsAfterAnyDamageToTheFiles)
{
   const std::string description = "hostAgentStats.xml";
   for (const std::string& file :
        {description, std::string("hostAgentStats.idMap"), std::string("hostAgentStats-20.stats"),
         std::string("hostAgentStats-300.stats")}) {
      for (const std::string damage :
           {"emptied", "cut in half", "cut by a byte", "random", "removed"}) {
         SCOPED_TRACE(file + " " + damage);
         Corvax::System::GetFactory().Remove(_scratch.Path() + description);
         Start();
         RunCollection(20);
         Damage(file, damage);
         Start();
         if (!(file == description && damage == "cut by a byte")) { // only its last line feed
            EXPECT_GT(_agent.logger->CountLevel(3) + _agent.logger->CountLevel(4), 0);
         }
         _agent.logger->Clear();
         RunCollection(2);
         EXPECT_EQ(_agent.logger->CountLevel(3), 0);
         ExpectNewestSamples();
      }
   }
}

TEST_F(PerformanceManagerTest, QueryCounterReturnsAllCountersOrNone)
{
   Start();
   Ref<Plexa::DataArray<PerformanceManager::CounterInfo>> counters;
   _manager->QueryCounter({4, 1, 4}, counters);
   ASSERT_EQ(counters->GetSize(), 3u);
   EXPECT_EQ((*counters)[2]->key, 4);
   EXPECT_THROW(_manager->QueryCounter({4, 0x7FFF, 1}, counters), InvalidArgument);
   EXPECT_EQ(counters->GetSize(), 3u); // no partial result
}

TEST_F(PerformanceManagerTest, ProviderSummaryIsForTypesWithStatistics)
{
   Start();
   Ref<PerformanceManager::ProviderSummary> summary;
   const Plexa::ManagedType derived{"SpecialMachine", &Quen::VirtualMachine::GetManagedType()};
   const auto vm = MakeRef<Plexa::MoRef>(derived, "vm");
   _manager->QueryProviderSummary(vm.Get(), summary);
   EXPECT_EQ(summary->refreshRate, 20);
   EXPECT_TRUE(summary->currentSupported && summary->summarySupported && summary->entity == vm);
   const Plexa::ManagedType datastore{"Datastore"};
   EXPECT_THROW(
      _manager->QueryProviderSummary(MakeRef<Plexa::MoRef>(datastore, "d").Get(), summary),
      InvalidArgument);
}

TEST_F(PerformanceManagerTest, RefusesToChangeIntervalsAndToSummarize)
{
   Start();
   EXPECT_THROW(_manager->CreateHistoricalInterval(nullptr), NotImplemented);
   EXPECT_THROW(_manager->RemoveHistoricalInterval(300), NotImplemented);
   EXPECT_THROW(_manager->UpdateHistoricalInterval(nullptr), NotImplemented);
   EXPECT_THROW(_manager->SummarizeStats(), NotImplemented);
}

TEST_F(PerformanceManagerTest, UsageComesOnlyFromTheNewestColumn)
{
   Start();
   PerformanceManagerImpl::Long cpu = 0;
   PerformanceManagerImpl::Long memory = 0;
   PerformanceManagerImpl::Long active = 0;
   _manager->GetHostCpuMemUsage(cpu, memory);
   EXPECT_EQ(std::pair(cpu, memory), std::pair(-1L, -1L)); // an empty depot

   Record(kNow - 40, {{"cpu-usagemhz", 500}, {"mem-consumed", 600}});
   Record(kNow - 20, {{"mem-consumed", 700}});
   _manager->GetHostCpuMemUsage(cpu, memory);
   EXPECT_EQ(std::pair(cpu, memory), std::pair(-1L, 700L));

   const auto vm = MakeRef<Plexa::MoRef>(Quen::VirtualMachine::GetManagedType(), "vm");
   constexpr StatVal kHuge = INT64_MAX;
   const std::tuple<StatVal, StatVal, int64_t> cases[] = {
      {1000, 50, 1050}, {1000, 0, -1}, {0, 50, -1}, {kHuge, 50, INT64_MAX}, {1000, kUnset, -1}};
   TimeStamp ts = kNow - 20;
   for (const auto& [consumed, overhead, sum] : cases) {
      Record(ts += 20, {{"mem-consumed", consumed}, {"mem-overhead", overhead}, {"mem-active", 9}},
             "vm");
      _clock.SetSeconds(static_cast<int64_t>(ts));
      _manager->GetVmCpuMemUsage(vm.Get(), cpu, memory, active);
      EXPECT_EQ(memory, sum);
      EXPECT_EQ(active, 9);
      EXPECT_EQ(cpu, -1);
   }
}

TEST_F(PerformanceManagerTest, PluginStartsAndStopsCollection)
{
   auto plugin = MakeRef<MetrixPlugin>();
   plugin->Init();
   const auto manager = Corvax::Service::GetApp()
                           ->GetObjectRegistry()
                           ->LookupObject<AgentdCommon::HaPerformanceManager>("ha-perfmgr");
   EXPECT_EQ(manager->GetMoRef()->GetId(), "ha-perfmgr");
   plugin->Start();
   EXPECT_EQ(_scheduler.GetWaiting(), 1u);
   EXPECT_TRUE(plugin->WaitStop(0));
   EXPECT_EQ(_scheduler.GetWaiting(), 0u);
   EXPECT_TRUE(plugin->Test());
   EXPECT_THROW(MakeRef<MetrixPlugin>()->Init(), Corvax::Exception); // the id is taken
}

} // namespace
