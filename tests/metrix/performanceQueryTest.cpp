#include "corvax/exception.h"
#include "metrix/counterIds.h"
#include "plexa/fault.h"
#include "quen/inventory.h"
#include "tests/metrix/managerFixture.h"

#include <algorithm>
#include <functional>

namespace {

using namespace Metrix;
using Corvax::DateTime;
using Corvax::MakeRef;
using Corvax::Ref;
using Quen::PerformanceManager;
using InvalidArgument = Plexa::Fault::InvalidArgument::Exception;
using MetricIds = Plexa::DataArray<PerformanceManager::MetricId>;

/// A manager, and with Collect 50 minutes of samples of the host, every 20 s up to kNow: cpu-usage
/// is the number of the run, cpu-usage#0 half of it, and mem-active starts in the middle.
class PerformanceQueryTest : public ManagerTest {
protected:
   using Pairs = std::vector<std::pair<int, std::string>>; ///< counter and instance
   static constexpr int64_t kNow = 1000000200;
   static constexpr int kRuns = 150;

   PerformanceQueryTest()
   {
      _clock.SetSeconds(kNow - 20 * kRuns);
      NewManager();
   }

   /// Writes the samples into the manager's files and loads them.
   void Collect()
   {
      auto depot = TakeDepot();
      const auto record = [&](const std::string& stat, TimeStamp ts, StatVal value) {
         Add(*depot, "ha-host", stat, ts, value,
             {StatsDepot::ROLLUP_AVERAGE, StatsDepot::ROLLUP_MIN, StatsDepot::ROLLUP_MAX});
      };
      for (int run = 0; run <= kRuns; ++run) {
         const auto ts = static_cast<TimeStamp>(kNow - 20 * (kRuns - run));
         const auto value = static_cast<StatVal>(run);
         record("cpu-usage", ts, value);
         record("cpu-usage#0", ts, value / 2);
         if (run >= kRuns / 2) {
            record("mem-active", ts, value);
         }
      }
      record("dummy-stat", static_cast<TimeStamp>(kNow), 1);
      _clock.SetSeconds(kNow);
      depot = nullptr;
      NewManager();
   }

   static Ref<PerformanceManager::QuerySpec> Spec(std::optional<int32_t> interval,
                                                  const Pairs& metrics)
   {
      auto spec = MakeRef<PerformanceManager::QuerySpec>();
      spec->entity = MakeRef<Plexa::MoRef>(Quen::HostSystem::GetManagedType(), "ha-host");
      spec->intervalId = interval;
      spec->metricId = MakeRef<MetricIds>();
      for (const auto& [counterId, instance] : metrics) {
         spec->metricId->Append(MakeRef<PerformanceManager::MetricId>(counterId, instance));
      }
      return spec;
   }

   Ref<Plexa::DataArray<PerformanceManager::EntityMetricBase>>
   Query(const Corvax::RefVector<PerformanceManager::QuerySpec>& specs)
   {
      Plexa::DataArray<PerformanceManager::QuerySpec> array;
      for (const auto& spec : specs) {
         array.Append(spec);
      }
      _results = nullptr;
      _manager->QueryStats(&array, _results);
      return _results;
   }
   /// The only result of a query spec.
   const PerformanceManager::EntityMetric& One(const Ref<PerformanceManager::QuerySpec>& spec)
   {
      return dynamic_cast<PerformanceManager::EntityMetric&>(*(*Query({spec}))[0]);
   }
   static Pairs Ids(const PerformanceManager::EntityMetric& result)
   {
      Pairs ids;
      for (const auto& series : *result.value) {
         ids.emplace_back(series->id->counterId, series->id->instance);
      }
      std::ranges::sort(ids);
      return ids;
   }
   static const std::vector<int64_t>& Values(const PerformanceManager::EntityMetric& result,
                                             size_t index)
   {
      return dynamic_cast<PerformanceManager::IntSeries&>(*(*result.value)[index]).value;
   }

   Ref<Plexa::DataArray<PerformanceManager::EntityMetricBase>> _results;
};

TEST_F(PerformanceQueryTest, RealTimeSeriesAreTheStoredValues)
{
   Collect();
   auto spec = Spec(20, {{kCpuUsage, ""}, {kMemActive, ""}});
   spec->startTime = DateTime::FromSeconds(kNow - 60);
   const auto& result = One(spec);
   ASSERT_EQ(result.sampleInfo->GetSize(), 3u); // the start is exclusive
   EXPECT_EQ((*result.sampleInfo)[0]->timestamp, DateTime::FromSeconds(kNow - 40));
   EXPECT_EQ((*result.sampleInfo)[0]->interval, 20);
   EXPECT_EQ(Values(result, 0), (std::vector<int64_t>{148, 149, 150}));
   EXPECT_EQ(Values(result, 1), (std::vector<int64_t>{148, 149, 150}));
   EXPECT_NE((*result.value)[0]->id.Get(), (*spec->metricId)[0]); // which the client may change
}

TEST_F(PerformanceQueryTest, AnswersWithTheSameTimeStampsShareThem)
{
   Collect();
   const int64_t end = kNow - 600;
   // More than are kept for later queries; some differ in the interval or the first stamp alone.
   const std::tuple<int32_t, int64_t, size_t> ranges[] = {
      {20, end, 1},  {300, end, 1}, {20, end - 300, 1}, {300, end - 300, 2},
      {20, end, 15}, {20, end, 16}, {20, end, 1},       {300, end - 300, 2},
   };
   for (const auto& [interval, first, count] : ranges) {
      SCOPED_TRACE(testing::Message() << interval << " " << end - first << " " << count);
      Corvax::RefVector<PerformanceManager::QuerySpec> specs;
      for (const int counter : {kCpuUsage, kMemActive}) {
         specs.push_back(Spec(interval, {{counter, ""}}));
         specs.back()->startTime = DateTime::FromSeconds(first - 1);
         specs.back()->endTime =
            DateTime::FromSeconds(first + interval * (static_cast<int64_t>(count) - 1));
      }
      const auto results = Query(specs);
      ASSERT_EQ(results->GetSize(), 2u);
      const auto stampsOf = [&](size_t i) {
         return dynamic_cast<PerformanceManager::EntityMetric&>(*(*results)[i]).sampleInfo;
      };
      EXPECT_EQ(stampsOf(0), stampsOf(1));
      ASSERT_EQ(stampsOf(0)->GetSize(), count);
      EXPECT_EQ((*stampsOf(0))[0]->timestamp, DateTime::FromSeconds(first));
      EXPECT_EQ((*stampsOf(0))[count - 1]->timestamp, specs[0]->endTime);
      EXPECT_EQ((*stampsOf(0))[0]->interval, interval);
   }
}

TEST_F(PerformanceQueryTest, MaxSampleMovesTheStartTowardsTheEnd)
{
   Collect();
   auto spec = Spec(20, {{kCpuUsage, ""}});
   spec->endTime = DateTime::FromSeconds(kNow - 20);
   spec->maxSample = 2;
   EXPECT_EQ(Values(One(spec), 0), (std::vector<int64_t>{147, 148, 149})); // 40 s before the end
   spec->maxSample = INT32_MAX;
   EXPECT_EQ(Values(One(spec), 0).size(), 150u);
}

TEST_F(PerformanceQueryTest, HistoricalSeriesAreRollups)
{
   Collect();
   const int64_t end = kNow - kNow % 300 - 300;
   auto spec = Spec(std::nullopt, {{kCpuUsage, ""}}); // interval 300 by default
   spec->startTime = DateTime::FromSeconds(end - 1);
   spec->endTime = DateTime::FromSeconds(end);
   const auto& all = One(spec); // a composite stands for all counters of its stat
   const auto last = (end - (kNow - 20 * kRuns)) / 20;
   EXPECT_EQ(Ids(all), (Pairs{{1, ""}, {2, ""}, {3, ""}}));
   EXPECT_EQ(Values(all, 0), (std::vector<int64_t>{last - 7}));  // average of last-14 .. last
   EXPECT_EQ(Values(all, 1), (std::vector<int64_t>{last - 14})); // minimum
   EXPECT_EQ(Values(all, 2), (std::vector<int64_t>{last}));      // maximum
   spec->metricId = Spec(300, {{2, "0"}})->metricId;
   EXPECT_EQ(Values(One(spec), 0), (std::vector<int64_t>{last / 2}));
   spec->metricId = nullptr;
   EXPECT_EQ(Ids(One(spec)).size(), 9u); // of three stats: the catalogue lacks dummy-stat
}

TEST_F(PerformanceQueryTest, WildcardsExpandToTheInstancesOfTheEntity)
{
   Collect();
   EXPECT_EQ(Ids(One(Spec(20, {{kCpuUsage, "*"}}))), (Pairs{{kCpuUsage, ""}, {kCpuUsage, "0"}}));
   EXPECT_EQ(Ids(One(Spec(20, {{kCpuUsage, "0"}, {kCpuUsage, "*"}}))),
             (Pairs{{kCpuUsage, ""}, {kCpuUsage, "0"}, {kCpuUsage, "0"}}));
   EXPECT_EQ(Ids(One(Spec(300, {{2, "*"}}))), (Pairs{{2, ""}, {2, "0"}}));
   EXPECT_TRUE(Query({Spec(20, {{kDiskUsage, "*"}})})->IsEmpty());
   EXPECT_EQ(Ids(One(Spec(20, {}))), (Pairs{{kCpuUsage, ""}, {kCpuUsage, "0"}, {kMemActive, ""}}));
   EXPECT_TRUE(Query({Spec(20, {{kCpuUsage, "nowhere"}})})->IsEmpty());
}

TEST_F(PerformanceQueryTest, LatestValuesAreThoseOfTheNewestRun)
{
   EXPECT_TRUE(Query({Spec(0, {{kCpuUsage, ""}})})->IsEmpty()); // an empty depot
   _clock.SetSeconds(kNow);
   RunCollection(1);
   const auto& result = One(Spec(0, {{kMemActive, ""}, {kDiskBusResets, ""}, {kCpuUsage, "0"}}));
   EXPECT_EQ((*result.sampleInfo)[0]->interval, 0);
   EXPECT_EQ((*result.sampleInfo)[0]->timestamp, DateTime::FromSeconds(kNow + 20));
   EXPECT_EQ(Ids(result), (Pairs{{kCpuUsage, "0"}, {kMemActive, ""}}));
}

TEST_F(PerformanceQueryTest, CsvHoldsTheSameValues)
{
   Collect();
   auto spec = Spec(20, {{kCpuUsage, ""}, {kMemActive, ""}});
   spec->startTime = DateTime::FromSeconds(kNow - 20 * (kRuns / 2 + 2));
   spec->endTime = DateTime::FromSeconds(kNow - 20 * (kRuns / 2));
   spec->format = "csv";
   const auto& csv = dynamic_cast<PerformanceManager::EntityMetricCSV&>(*(*Query({spec}))[0]);
   EXPECT_EQ(csv.sampleInfoCSV, "20,2001-09-09T01:24:40Z,20,2001-09-09T01:25:00Z");
   EXPECT_EQ((*csv.value)[0]->value, "74,75");
   EXPECT_EQ((*csv.value)[1]->value, "-1,75");
   EXPECT_EQ((*csv.value)[1]->id->counterId, kMemActive);
}

TEST_F(PerformanceQueryTest, RefusalNamesThePropertyAndKeepsEarlierResults)
{
   Collect();
   const auto now = DateTime::FromSeconds(kNow);
   const Plexa::ManagedType datastore{"Datastore"};
   using QuerySpec = PerformanceManager::QuerySpec;
   const std::tuple<std::function<void(QuerySpec&)>, std::string, std::string> cases[] = {
      {[&](auto& spec) { spec.startTime = spec.endTime = now; }, "startTime",
       "is not before endTime"},
      {[](auto& spec) { spec.format = "xml"; }, "format", "'xml' is neither normal nor csv"},
      {[](auto& spec) { spec.maxSample = -5; }, "maxSample", "-5 is below 1"},
      {[](auto& spec) { spec.intervalId = 60; }, "intervalId",
       "60 is not an interval; use 20 (real time), 300 (historical) or 0 (latest values)"},
      {[](auto& spec) { spec.metricId = Spec(20, {{0x7FFF, ""}})->metricId; }, "metricId",
       "there is no counter 32767"},
      {[](auto& spec) { spec.intervalId = 0, spec.metricId = nullptr; }, "metricId",
       "is empty; the latest values need named metrics"},
      {[&](auto& spec) { spec.entity = MakeRef<Plexa::MoRef>(datastore, "d"); }, "entity",
       "'d' is a Datastore, not a virtual machine, host or resource pool"},
      {[](auto& spec) { spec.entity = nullptr; }, "entity", "is missing"},
   };
   for (const auto& [change, argument, reason] : cases) {
      SCOPED_TRACE(reason);
      auto spec = Spec(20, {{kCpuUsage, ""}});
      change(*spec);
      try {
         Query({Spec(20, {{kCpuUsage, ""}}), spec, Spec(20, {{kCpuUsage, ""}})});
         ADD_FAILURE() << "accepted";
      } catch (const InvalidArgument& e) {
         EXPECT_EQ(e.GetInvalidProperty(), ""); // clients get none
         EXPECT_EQ(e.GetArgument(), argument);
         EXPECT_EQ(e.GetReason(), reason);
         EXPECT_EQ(e.GetMessage(), "Invalid argument: " + argument + ": " + reason);
      }
      EXPECT_EQ(_results->GetSize(), 1u);
   }
}

TEST_F(PerformanceQueryTest, StartTimeMayBeBeforeTheEpochAndInTheFutureEndsTheQueryQuietly)
{
   Collect();
   auto ancient = Spec(20, {{kCpuUsage, ""}});
   ancient->startTime = DateTime(-2000000);
   auto future = Spec(20, {{kCpuUsage, ""}});
   future->startTime = DateTime::FromSeconds(kNow + 100);
   EXPECT_EQ(Query({ancient, future, Spec(20, {{kCpuUsage, ""}})})->GetSize(), 1u);
}

TEST_F(PerformanceQueryTest, AvailableMetricsDependOnTheInterval)
{
   Collect();
   const auto host = MakeRef<Plexa::MoRef>(Quen::HostSystem::GetManagedType(), "ha-host");
   const auto now = DateTime::FromSeconds(kNow);
   const auto later = DateTime::FromSeconds(kNow + 100);
   Ref<MetricIds> metrics;
   _manager->QueryAvailableMetric(host.Get(), {}, {}, 20, metrics);
   EXPECT_EQ(metrics->GetSize(), 3u); // the first counter of each stat
   for (const std::optional<int32_t> interval : {std::optional<int32_t>{}, {300}}) {
      _manager->QueryAvailableMetric(host.Get(), {}, now, interval, metrics);
      EXPECT_EQ(metrics->GetSize(), 9u);
   }
   EXPECT_THROW(_manager->QueryAvailableMetric(host.Get(), now, now, {}, metrics), InvalidArgument);
   metrics = nullptr;
   _manager->QueryAvailableMetric(host.Get(), later, {}, {}, metrics);
   EXPECT_FALSE(metrics);
}

} // namespace
