#include "metrix/selfTest.h"

#include "corvax/exception.h"
#include "corvax/system.h"
#include "metrix/statsDepot.h"

#include <string>
#include <vector>

namespace Metrix {

namespace {

using Corvax::Assert;
using Corvax::Ref;
using Corvax::System;

constexpr char kEntity[] = "self-test";
constexpr char kLevel[] = "level";       // absolute
constexpr char kTraffic[] = "traffic";   // rate
constexpr TimeStamp kFirst = 1000000200; // on a coarse boundary
constexpr TimeStamp kPeriod = 20;
constexpr TimeStamp kCoarsePeriod = 300;
constexpr uint64_t kFineSamples = 180;
constexpr uint64_t kCoarseSamples = 432;
constexpr uint64_t kRuns = 270;
constexpr StatVal kGrowthPerSec = 7;

const std::vector<StatsDepot::RollupType> kRollups = {
   StatsDepot::ROLLUP_AVERAGE, StatsDepot::ROLLUP_MIN, StatsDepot::ROLLUP_MAX};

class ScratchDirectory {
public:
   explicit ScratchDirectory(Corvax::Logger* logger)
      : _logger(logger), _path(System::GetFactory().NewScratchDirectory())
   {
   }
   ~ScratchDirectory()
   {
      try {
         System::GetFactory().Remove(_path);
      } catch (const Corvax::Exception& e) {
         _logger->Log(Corvax::kLogWarning, "Cannot remove the self-test's files: %1",
                      e.GetMessage());
      }
   }
   ScratchDirectory(const ScratchDirectory&) = delete;
   ScratchDirectory& operator=(const ScratchDirectory&) = delete;

   const std::string& Path() const { return _path; }

private:
   Corvax::Logger* const _logger;
   const std::string _path;
};

TimeStamp RunTime(uint64_t run)
{
   return kFirst + run * kPeriod;
}

void Record(StatsDepot& depot)
{
   for (uint64_t run = 0; run < kRuns; ++run) {
      const TimeStamp ts = RunTime(run);
      Assert(depot.AddSample(kEntity, kLevel, ts, run, 0), "a registered stat takes a sample");
      Assert(depot.AddSample(kEntity, kTraffic, ts, kGrowthPerSec * kPeriod * run, 0),
             "a registered stat takes a sample");
   }
}

void CheckFine(StatsDepot& depot)
{
   std::vector<StatVal> values;
   std::vector<TimeStamp> times;
   depot.GetSamples(kEntity, kLevel, kUnset, kUnset, values, &times, "", StatsDepot::ROLLUP_NONE);
   Assert(times.size() == kFineSamples && times.back() == RunTime(kRuns - 1),
          "the finest interval holds the newest hour");
   for (size_t i = 0; i < values.size(); ++i) {
      Assert(RunTime(values[i]) == times[i], "a sample has its time");
   }
   const StatVal rate =
      depot.GetSample(kEntity, kTraffic, times.back(), "", StatsDepot::ROLLUP_NONE);
   Assert(rate == kGrowthPerSec, "a rate is the growth per second");
}

void CheckCoarse(StatsDepot& depot)
{
   // One full period: the samples after its predecessor's end up to its own.
   const TimeStamp end = kFirst + 2 * kCoarsePeriod;
   const StatVal last = (end - kFirst) / kPeriod;
   const StatVal first = last + 1 - kCoarsePeriod / kPeriod;
   const auto rolledUp = [&](StatsDepot::RollupType rollup) {
      return depot.GetSample(kEntity, kLevel, end, "coarse", rollup);
   };
   Assert(rolledUp(StatsDepot::ROLLUP_MAX) == last, "a maximum is the greatest sample");
   Assert(rolledUp(StatsDepot::ROLLUP_MIN) == first, "a minimum is the smallest sample");
   Assert(rolledUp(StatsDepot::ROLLUP_AVERAGE) == (first + last) / 2, "an average lies between");
}

} // namespace

void TestScratchDepot(Corvax::Logger* logger)
{
   const ScratchDirectory directory(logger);
   Ref<StatsDepot> depot;
   GetStatsDepot(directory.Path(), "scratch", logger, 1, depot);
   {
      const Corvax::Locker lock(depot.Get());
      depot->Create();
      depot->AddInterval("fine", kPeriod, kFineSamples);
      depot->AddInterval("coarse", kCoarsePeriod, kCoarseSamples);
      depot->CreateStat(kEntity, kLevel, StatsDepot::STATTYPE_ABSOLUTE, 1, kRollups);
      depot->CreateStat(kEntity, kTraffic, StatsDepot::STATTYPE_RATE, 1, kRollups);
      Record(*depot);
      CheckFine(*depot);
      CheckCoarse(*depot);
   }
   depot = nullptr;
   GetStatsDepot(directory.Path(), "scratch", logger, 1, depot);
   const Corvax::Locker lock(depot.Get());
   depot->Load();
   CheckFine(*depot);
   CheckCoarse(*depot);
   depot->DeleteEntityStats(kEntity);
   std::vector<std::string> names;
   depot->GetAvailableStatNames(kEntity, kUnset, kUnset, names);
   Assert(names.empty(), "a deleted entity has no stats");
}

} // namespace Metrix
