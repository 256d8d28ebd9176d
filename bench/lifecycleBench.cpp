#include "bench/filledDepot.h"
#include "bench/measurement.h"
#include "bench/meters.h"
#include "bench/recording.h"
#include "corvax/exception.h"

#include <optional>

namespace Bench {

namespace {

using Corvax::Ref;
using Metrix::JournalOptions;
using Metrix::StatsDepot;
using Metrix::TimeStamp;

constexpr int kPurged = 1000;
constexpr char kOneEntity[] = "vm-with-all";

/// The plan's stats, but all of one entity.
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

void CreateAndDelete(Measurement& measurement, const JournalOptions& journal)
{
   const StatPlan plan = OfOneEntity(CapturePlan(kStats));
   const QuietAgent agent;
   const ScratchDirectory scratch;
   const Ref<StatsDepot> depot = NewDepot(scratch.GetPath(), agent.GetLogger(), journal);
   CpuMeter create;
   create.Start();
   CreateStats(*depot, plan);
   create.Stop();
   measurement.Report("create", "ms", create.GetTotalUs() / 1e3);

   for (unsigned i = 0; i <= kStampsPerRollup + 1; ++i) {
      AddSamples(*depot, plan, GetStamp(i));
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

/// A depot in which all stats but one have been silent for so long that they are about to be
/// purged, at most `maxPurged` at a time.
class SilentDepot {
public:
   SilentDepot(const StatPlan& plan, int maxPurged, const JournalOptions& journal,
               Corvax::Logger* logger)
   {
      Metrix::GetStatsDepot(_scratch.GetPath(), kDepotName, logger, maxPurged, _depot, journal);
      _depot->Create();
      _depot->AddInterval(kFineName, kFinePeriodSec, 2);
      _depot->AddInterval(kCoarseName, kCoarsePeriodSec, 2);
      CreateStats(*_depot, plan);
      _depot->CreateStat(kLive, "sys-uptime", StatsDepot::STATTYPE_ABSOLUTE, 1,
                         {StatsDepot::ROLLUP_LAST});
      AddSamples(*_depot, plan, kFirstStamp);
   }

   /// Returns the CPU time of the next sample of the live stat, microseconds.
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
   TimeStamp _ts = kFirstStamp;
};

/// A purge follows a rollup. It costs the difference between that rollup with purge and the same
/// one in a depot that never purges.
void Purge(Measurement& measurement, const JournalOptions& journal)
{
   constexpr unsigned kMaxStamps = 10 * kStampsPerRollup;
   const StatPlan plan = OfOneEntity(CapturePlan(kStats));
   const QuietAgent agent;
   SilentDepot purging(plan, kPurged, journal, agent.GetLogger());
   SilentDepot keeping(plan, 0, journal, agent.GetLogger());
   for (unsigned i = 0; i < kMaxStamps; ++i) {
      const double purgeUs = purging.AddLiveSample();
      const double keepUs = keeping.AddLiveSample();
      if (purging.CountSilent() == kStats - kPurged) {
         measurement.Report("purge", "ms", (purgeUs - keepUs) / 1e3);
         return;
      }
   }
   throw Corvax::Exception("Nothing was purged");
}

/// The load alone; agentBench measures from the agent's start to its first answer.
double LoadMs(const std::string& directory, const JournalOptions& journal)
{
   const QuietAgent agent;
   const SteppedTime time(kFirstStamp);
   Ref<StatsDepot> depot;
   Metrix::GetStatsDepot(directory, kDepotName, agent.GetLogger(), kPurged, depot, journal);
   CpuMeter meter;
   meter.Start();
   depot->Load();
   meter.Stop();
   return meter.GetTotalUs() / 1e3;
}

void Load(Measurement& measurement, const JournalOptions& journal)
{
   const ScratchDirectory scratch;
   MakeFilledDepot(scratch.GetPath(), WithThreeRollups(CapturePlan(kStats)), kFirstStamp);
   measurement.Report("load", "ms", LoadMs(scratch.GetPath(), journal));
}

void LoadAfterKill(Measurement& measurement, const JournalOptions& journal)
{
   const ScratchDirectory scratch;
   RecordAndKill(CaptureSimulatedHost(), scratch.GetPath(), journal, kFirstStamp);
   measurement.Report("load-killed", "ms", LoadMs(scratch.GetPath(), journal));
}

const DepotRegistration kRegistrations[] = {
   {"create", CreateAndDelete},
   {"purge", Purge},
   {"load", Load},
   {"load-killed", LoadAfterKill},
};

} // namespace

} // namespace Bench
