#include "bench/floors.h"
#include "bench/measurement.h"
#include "bench/meters.h"
#include "bench/resultLines.h"
#include "bench/workload.h"

namespace Bench {

namespace {

using Corvax::Ref;
using Metrix::StatsDepot;
using Metrix::StatVal;
using Metrix::TimeStamp;

constexpr unsigned kHotPasses = kFineSamples; // an hour
constexpr unsigned kColdPasses = 2 * kPassesPerRollup;
constexpr unsigned kManyPasses = 2 * kPassesPerRollup;
constexpr size_t kManyStats = 100000;
constexpr size_t kFewStats = 1000;

/// Whether a pass finds what a pass 20 seconds later finds: clean pages and other data in the
/// caches.
enum class Cadence { HOT, REAL };

void Settle(Cadence cadence, const std::string& directory)
{
   if (cadence == Cadence::REAL) {
      SyncFiles(directory);
      FlushCpuCaches();
   }
}

/// A depot to which pass after pass adds a sample of every stat.
class Recording {
public:
   explicit Recording(const StatPlan& plan)
      : _plan(plan), _depot(NewDepot(_scratch.GetPath(), _agent.GetLogger()))
   {
      CreateStats(*_depot, plan);
   }

   void Pass()
   {
      const TimeStamp ts = kFirstPass + _passes * kFinePeriodSec;
      StatVal value = _passes * kGrowth; // grows, so that differences and rates are stored, too
      {
         const Corvax::Locker lock(_depot.Get());
         for (const PlannedStat& stat : _plan) {
            _depot->AddSample(stat.entityId, stat.statName, ts, ++value, 0);
         }
      }
      ++_passes;
   }
   const std::string& GetDirectory() const { return _scratch.GetPath(); }

private:
   static constexpr StatVal kGrowth = 1000;

   const StatPlan& _plan;
   const QuietAgent _agent;
   const ScratchDirectory _scratch;
   const Ref<StatsDepot> _depot;
   unsigned _passes = 0;
};

/// CPU time of so many passes, all samples and their roll-ups, after two roll-ups have made all
/// rows.
void Ingest(Measurement& measurement, const std::string& work, const StatPlan& plan,
            Cadence cadence, unsigned passes)
{
   Recording recording(plan);
   for (unsigned i = 0; i <= 2 * kPassesPerRollup; ++i) {
      recording.Pass();
   }
   const IoCounts before = IoCounts::Read("self");
   CpuMeter meter;
   for (unsigned i = 0; i < passes; ++i) {
      Settle(cadence, recording.GetDirectory());
      meter.Start();
      recording.Pass();
      meter.Stop();
   }
   const double samples = static_cast<double>(passes) * static_cast<double>(plan.size());
   measurement.Report(work, "us", meter.GetTotalUs() / samples);
   const IoCounts io = IoCounts::Read("self") - before;
   measurement.Report(work + "-calls", "calls", io.calls / samples);
   measurement.Report(work + "-bytes", "bytes", io.bytes / samples);
}

void IngestHot(Measurement& measurement)
{
   Ingest(measurement, "ingest-hot", CapturePlan(kStats), Cadence::HOT, Scaled(kHotPasses));
}

void IngestThreeRollups(Measurement& measurement)
{
   Ingest(measurement, "ingest-three-rollups", WithThreeRollups(CapturePlan(kStats)), Cadence::HOT,
          Scaled(kHotPasses));
}

void IngestCold(Measurement& measurement)
{
   Ingest(measurement, "ingest-cold", CapturePlan(kStats), Cadence::REAL, kColdPasses);
}

void IngestFew(Measurement& measurement)
{
   Ingest(measurement, "ingest-1k", CapturePlan(kFewStats), Cadence::HOT, Scaled(kHotPasses));
}

void IngestMany(Measurement& measurement)
{
   Ingest(measurement, "ingest-100k", CapturePlan(kManyStats), Cadence::HOT, kManyPasses);
}

template <void (FloorFile::*pass)(uint64_t), Cadence cadence>
void Floor(Measurement& measurement)
{
   const ScratchDirectory scratch;
   FloorFile floor(scratch.GetPath(), kStats);
   (floor.*pass)(0);
   const unsigned passes = cadence == Cadence::HOT ? Scaled(kHotPasses) : kColdPasses;
   CpuMeter meter;
   for (unsigned i = 1; i <= passes; ++i) {
      Settle(cadence, scratch.GetPath());
      meter.Start();
      (floor.*pass)(i);
      meter.Stop();
   }
   measurement.Report(cadence == Cadence::HOT ? "ingest-hot" : "ingest-cold", "us",
                      meter.GetTotalUs() / (static_cast<double>(passes) * kStats));
}

const Registration kRegistrations[] = {
   {"ingest-hot", kOurs, IngestHot},
   {"ingest-hot", "floor F1", Floor<&FloorFile::PassByRow, Cadence::HOT>},
   {"ingest-hot", "floor blocks", Floor<&FloorFile::PassByBlock, Cadence::HOT>},
   {"ingest-hot", "floor mapping", Floor<&FloorFile::PassByMapping, Cadence::HOT>},
   {"ingest-cold", kOurs, IngestCold},
   {"ingest-cold", "floor F1", Floor<&FloorFile::PassByRow, Cadence::REAL>},
   {"ingest-cold", "floor blocks", Floor<&FloorFile::PassByBlock, Cadence::REAL>},
   {"ingest-cold", "floor mapping", Floor<&FloorFile::PassByMapping, Cadence::REAL>},
   {"ingest-three-rollups", kOurs, IngestThreeRollups},
   {"ingest-1k", kOurs, IngestFew},
   {"ingest-100k", kOurs, IngestMany},
};

} // namespace

} // namespace Bench
