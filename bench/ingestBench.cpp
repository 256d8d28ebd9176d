#include "bench/floors.h"
#include "bench/measurement.h"
#include "bench/meters.h"
#include "bench/processFigures.h"
#include "bench/recording.h"

namespace Bench {

namespace {

using Metrix::JournalOptions;

constexpr unsigned kHotStamps = kFineSamples; // an hour
constexpr unsigned kColdStamps = 2 * kStampsPerRollup;
constexpr unsigned kManyStamps = 2 * kStampsPerRollup;
constexpr size_t kManyStats = 100000;
constexpr size_t kFewStats = 1000;

/// HOT: one stamp straight after the other. REAL: each stamp finds the machine as 20 seconds later,
/// with clean pages and other data in the caches.
enum class Cadence { HOT, REAL };

struct IngestWork {
   const char* name;
   size_t stats = kStats;
   Cadence cadence = Cadence::HOT;
   unsigned stamps = kHotStamps; ///< fewer if figures may be rough
   bool hasThreeRollups = false;
   RowOrder order = RowOrder::AS_RECORDED;
};

constexpr IngestWork kIngestWorks[] = {
   {.name = "ingest-hot"},
   {.name = "ingest-fifth-later", .order = RowOrder::EVERY_FIFTH_VM_LATER},
   {.name = "ingest-vm-by-vm", .order = RowOrder::VM_BY_VM},
   {.name = "ingest-entities-shuffled", .order = RowOrder::ENTITIES_SHUFFLED},
   {.name = "ingest-shuffled", .order = RowOrder::SHUFFLED},
   {.name = "ingest-three-rollups", .hasThreeRollups = true},
   {.name = "ingest-cold", .cadence = Cadence::REAL, .stamps = kColdStamps},
   {.name = "ingest-1k", .stats = kFewStats},
   {.name = "ingest-100k", .stats = kManyStats, .stamps = kManyStamps},
};

/// Writes what the kernel would have written in the meantime, and returns the CPU time of that.
double Settle(Cadence cadence, const std::string& directory)
{
   if (cadence == Cadence::HOT) {
      return 0;
   }
   CpuMeter meter;
   meter.Start();
   SyncFiles(directory);
   meter.Stop();
   FlushCpuCaches();
   return meter.GetTotalUs();
}

/// CPU time of all samples and rollups of a number of stamps, in a depot that has all its rows.
void Ingest(Measurement& measurement, const IngestWork& work, const JournalOptions& journal)
{
   const StatPlan& captured = CapturePlan(work.stats);
   const StatPlan plan = work.hasThreeRollups ? WithThreeRollups(captured) : captured;
   const unsigned stamps = work.stamps == kHotStamps ? Scaled(work.stamps) : work.stamps;
   const ScratchDirectory scratch;
   Recording recording(plan);
   recording.CreateDepot(scratch.GetPath(), journal, work.order);
   recording.RecordUntilSteady();
   const IoCounts before = IoCounts::Read("self");
   CpuMeter meter;
   RunHolds holds;
   double syncUs = 0;
   for (unsigned i = 1; i <= stamps; ++i) {
      syncUs += Settle(work.cadence, scratch.GetPath());
      recording.TakeHolds();
      meter.Start();
      recording.RecordNextStamp();
      meter.Stop();
      holds.Add(recording.TakeHolds(), i % kStampsPerRollup == 0);
   }
   const double samples = static_cast<double>(stamps) * static_cast<double>(plan.size());
   const std::string name = work.name;
   measurement.Report(name, "us", meter.GetTotalUs() / samples);
   if (work.cadence == Cadence::REAL) {
      measurement.Report(name + "-synced", "us", (meter.GetTotalUs() + syncUs) / samples);
   }
   const IoCounts io = IoCounts::Read("self") - before;
   measurement.Report(name + "-calls", "calls", io.calls / samples);
   measurement.Report(name + "-bytes", "bytes", io.bytes / samples);
   measurement.Report(name + "-hold", "ms", holds.usualUs / 1e3);
   measurement.Report(name + "-hold-any", "ms", holds.anyUs / 1e3);
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

std::vector<DepotRegistration> RegisterIngest()
{
   std::vector<DepotRegistration> registrations;
   for (const IngestWork& work : kIngestWorks) {
      registrations.emplace_back(work.name,
                                 [work](Measurement& measurement, const JournalOptions& journal) {
                                    Ingest(measurement, work, journal);
                                 });
   }
   return registrations;
}

const std::vector<DepotRegistration> kIngestRegistrations = RegisterIngest();
const Registration kFloorRegistrations[] = {
   {"ingest-hot", "floor F1", Floor<&FloorFile::StoreByRow, Cadence::HOT>},
   {"ingest-hot", "floor blocks", Floor<&FloorFile::StoreByBlock, Cadence::HOT>},
   {"ingest-hot", "floor mapping", Floor<&FloorFile::StoreByMapping, Cadence::HOT>},
   {"ingest-cold", "floor F1", Floor<&FloorFile::StoreByRow, Cadence::REAL>},
   {"ingest-cold", "floor blocks", Floor<&FloorFile::StoreByBlock, Cadence::REAL>},
   {"ingest-cold", "floor mapping", Floor<&FloorFile::StoreByMapping, Cadence::REAL>},
};

} // namespace

} // namespace Bench
