#include "bench/filledDepot.h"
#include "bench/measurement.h"
#include "bench/meters.h"
#include "bench/resultLines.h"
#include "bench/workload.h"
#include "corvax/exception.h"

#include <optional>

namespace Bench {

namespace {

using Corvax::Ref;
using Metrix::StatsDepot;
using Metrix::TimeStamp;

constexpr int kPurged = 1000;
constexpr char kOneEntity[] = "vm-with-all";

/// The plan's stats, all of one entity.
StatPlan OfOneEntity(StatPlan plan)
{
   size_t number = 0;
   for (PlannedStat& stat : plan) {
      stat.entityId = kOneEntity;
      stat.statName =
         stat.statName.substr(0, stat.statName.find('#')) + "#" + std::to_string(number++);
   }
   return plan;
}

void AddSamples(StatsDepot& depot, const StatPlan& plan, TimeStamp ts)
{
   const Corvax::Locker lock(&depot);
   for (const PlannedStat& stat : plan) {
      depot.AddSample(stat.entityId, stat.statName, ts, ts, 0);
   }
}

void CreateAndDelete(Measurement& measurement)
{
   const StatPlan plan = OfOneEntity(CapturePlan(kStats));
   const QuietAgent agent;
   const ScratchDirectory scratch;
   const Ref<StatsDepot> depot = NewDepot(scratch.GetPath(), agent.GetLogger());
   CpuMeter create;
   create.Start();
   CreateStats(*depot, plan);
   create.Stop();
   measurement.Report("create", "ms", create.GetTotalUs() / 1e3);

   for (unsigned i = 0; i <= kPassesPerRollup + 1; ++i) {
      AddSamples(*depot, plan, kFirstPass + i * kFinePeriodSec);
   }
   CpuMeter remove;
   remove.Start();
   {
      const Corvax::Locker lock(depot.Get());
      depot->DeleteEntityStats(kOneEntity);
   }
   remove.Stop();
   measurement.Report("delete", "ms", remove.GetTotalUs() / 1e3);
}

/// A depot in which all stats but one have fallen silent so long ago that they are about to be
/// purged, at most `maxPurged` of them at a time.
class SilentDepot {
public:
   SilentDepot(const StatPlan& plan, int maxPurged, Corvax::Logger* logger)
   {
      Metrix::GetStatsDepot(_scratch.GetPath(), kDepotName, logger, maxPurged, _depot);
      _depot->Create();
      _depot->AddInterval(kFineName, kFinePeriodSec, 2);
      _depot->AddInterval(kCoarseName, kCoarsePeriodSec, 2);
      CreateStats(*_depot, plan);
      _depot->CreateStat(kLive, "sys-uptime", StatsDepot::STATTYPE_ABSOLUTE, 1,
                         {StatsDepot::ROLLUP_LAST});
      AddSamples(*_depot, plan, kFirstPass);
   }

   /// CPU microseconds of the next sample of the stat that is not silent.
   double AddLiveSample()
   {
      _ts += kFinePeriodSec;
      CpuMeter meter;
      meter.Start();
      {
         const Corvax::Locker lock(_depot.Get());
         _depot->AddSample(kLive, "sys-uptime", _ts, _ts, 0);
      }
      meter.Stop();
      return meter.GetTotalUs();
   }
   size_t CountSilent() const
   {
      std::vector<std::string> names;
      _depot->GetAvailableStatNames(kOneEntity, 0, 0, names);
      return names.size();
   }

private:
   static constexpr char kLive[] = "ha-host";

   const ScratchDirectory _scratch;
   Ref<StatsDepot> _depot;
   TimeStamp _ts = kFirstPass;
};

/// A purge comes with a roll-up; what it costs is what the same roll-up takes more than in a depot
/// that never purges.
void Purge(Measurement& measurement)
{
   constexpr unsigned kMostPasses = 10 * kPassesPerRollup;
   const StatPlan plan = OfOneEntity(CapturePlan(kStats));
   const QuietAgent agent;
   SilentDepot purging(plan, kPurged, agent.GetLogger());
   SilentDepot keeping(plan, 0, agent.GetLogger());
   for (unsigned i = 0; i < kMostPasses; ++i) {
      const double purgeUs = purging.AddLiveSample();
      const double keepUs = keeping.AddLiveSample();
      if (purging.CountSilent() == kStats - kPurged) {
         measurement.Report("purge", "ms", (purgeUs - keepUs) / 1e3);
         return;
      }
   }
   throw Corvax::Exception("Nothing was purged");
}

/// In the process; agentBench has the way from a process's start to its first answer.
void Load(Measurement& measurement)
{
   const ScratchDirectory scratch;
   MakeFilledDepot(scratch.GetPath(), WithThreeRollups(CapturePlan(kStats)), kFirstPass);
   const QuietAgent agent;
   Ref<StatsDepot> depot;
   Metrix::GetStatsDepot(scratch.GetPath(), kDepotName, agent.GetLogger(), kPurged, depot);
   CpuMeter meter;
   meter.Start();
   depot->Load();
   meter.Stop();
   measurement.Report("load", "ms", meter.GetTotalUs() / 1e3);
}

const Registration kRegistrations[] = {
   {"create", kOurs, CreateAndDelete},
   {"purge", kOurs, Purge},
   {"load", kOurs, Load},
};

} // namespace

} // namespace Bench
