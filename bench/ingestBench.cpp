#include "bench/floors.h"
#include "bench/measurement.h"
#include "bench/meters.h"
#include "bench/processFigures.h"
#include "bench/resultLines.h"
#include "bench/workload.h"

namespace Bench {

namespace {

using Corvax::Ref;
using Metrix::StatsDepot;
using Metrix::StatVal;
using Metrix::TimeStamp;

constexpr unsigned kHotStamps = kFineSamples; // an hour
constexpr unsigned kColdStamps = 2 * kStampsPerRollup;
constexpr unsigned kManyStamps = 2 * kStampsPerRollup;
constexpr size_t kManyStats = 100000;
constexpr size_t kFewStats = 1000;

/// HOT: one stamp straight after the other. REAL: each stamp finds the machine as 20 seconds later,
/// with clean pages and other data in the caches.
enum class Cadence { HOT, REAL };

void Settle(Cadence cadence, const std::string& directory)
{
   if (cadence == Cadence::REAL) {
      SyncFiles(directory);
      FlushCpuCaches();
   }
}

/// A depot that takes a sample of every stat, stamp after stamp.
class Recording {
public:
   explicit Recording(const StatPlan& plan)
      : _plan(plan), _depot(NewDepot(_scratch.GetPath(), _agent.GetLogger()))
   {
      CreateStats(*_depot, plan);
   }

   void RecordNextStamp()
   {
      const TimeStamp ts = GetStamp(_stamps);
      StatVal value = _stamps * kGrowth; // grows, so that deltas and rates are stored, too
      {
         const Corvax::Locker lock(_depot.Get());
         for (const PlannedStat& stat : _plan) {
            _depot->AddSample(stat.entityId, stat.statName, ts, ++value, 0);
         }
      }
      ++_stamps;
   }
   const std::string& GetDirectory() const { return _scratch.GetPath(); }

private:
   static constexpr StatVal kGrowth = 1000;

   const StatPlan& _plan;
   const QuietAgent _agent;
   const ScratchDirectory _scratch;
   const Ref<StatsDepot> _depot;
   unsigned _stamps = 0;
};

/// CPU time of all samples and rollups of that number of stamps, after two rollups have created all
/// rows.
void Ingest(Measurement& measurement, const std::string& work, const StatPlan& plan,
            Cadence cadence, unsigned stamps)
{
   Recording recording(plan);
   for (unsigned i = 0; i <= 2 * kStampsPerRollup; ++i) {
      recording.RecordNextStamp();
   }
   const IoCounts before = IoCounts::Read("self");
   CpuMeter meter;
   for (unsigned i = 0; i < stamps; ++i) {
      Settle(cadence, recording.GetDirectory());
      meter.Start();
      recording.RecordNextStamp();
      meter.Stop();
   }
   const double samples = static_cast<double>(stamps) * static_cast<double>(plan.size());
   measurement.Report(work, "us", meter.GetTotalUs() / samples);
   const IoCounts io = IoCounts::Read("self") - before;
   measurement.Report(work + "-calls", "calls", io.calls / samples);
   measurement.Report(work + "-bytes", "bytes", io.bytes / samples);
}

void IngestHot(Measurement& measurement)
{
   Ingest(measurement, "ingest-hot", CapturePlan(kStats), Cadence::HOT, Scaled(kHotStamps));
}

void IngestThreeRollups(Measurement& measurement)
{
   Ingest(measurement, "ingest-three-rollups", WithThreeRollups(CapturePlan(kStats)), Cadence::HOT,
          Scaled(kHotStamps));
}

void IngestCold(Measurement& measurement)
{
   Ingest(measurement, "ingest-cold", CapturePlan(kStats), Cadence::REAL, kColdStamps);
}

void IngestFew(Measurement& measurement)
{
   Ingest(measurement, "ingest-1k", CapturePlan(kFewStats), Cadence::HOT, Scaled(kHotStamps));
}

void IngestMany(Measurement& measurement)
{
   Ingest(measurement, "ingest-100k", CapturePlan(kManyStats), Cadence::HOT, kManyStamps);
}

template <void (FloorFile::*Store)(uint64_t), Cadence Pace>
void Floor(Measurement& measurement)
{
   const ScratchDirectory scratch;
   FloorFile floor(scratch.GetPath(), kStats);
   (floor.*Store)(0);
   const unsigned stamps = Pace == Cadence::HOT ? Scaled(kHotStamps) : kColdStamps;
   CpuMeter meter;
   for (unsigned i = 1; i <= stamps; ++i) {
      Settle(Pace, scratch.GetPath());
      meter.Start();
      (floor.*Store)(i);
      meter.Stop();
   }
   measurement.Report(Pace == Cadence::HOT ? "ingest-hot" : "ingest-cold", "us",
                      meter.GetTotalUs() / (static_cast<double>(stamps) * kStats));
}

const Registration kRegistrations[] = {
   {"ingest-hot", kOurs, IngestHot},
   {"ingest-hot", "floor F1", Floor<&FloorFile::StoreByRow, Cadence::HOT>},
   {"ingest-hot", "floor blocks", Floor<&FloorFile::StoreByBlock, Cadence::HOT>},
   {"ingest-hot", "floor mapping", Floor<&FloorFile::StoreByMapping, Cadence::HOT>},
   {"ingest-cold", kOurs, IngestCold},
   {"ingest-cold", "floor F1", Floor<&FloorFile::StoreByRow, Cadence::REAL>},
   {"ingest-cold", "floor blocks", Floor<&FloorFile::StoreByBlock, Cadence::REAL>},
   {"ingest-cold", "floor mapping", Floor<&FloorFile::StoreByMapping, Cadence::REAL>},
   {"ingest-three-rollups", kOurs, IngestThreeRollups},
   {"ingest-1k", kOurs, IngestFew},
   {"ingest-100k", kOurs, IngestMany},
};

} // namespace

} // namespace Bench
