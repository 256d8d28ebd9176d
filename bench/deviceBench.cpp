#include "bench/measurement.h"
#include "bench/meters.h"
#include "bench/processFigures.h"
#include "bench/recording.h"
#include "bench/resultLines.h"

/// Bytes that go to the disk in a day.
namespace Bench {

namespace {

using Metrix::JournalOptions;

/// By default the kernel writes back what has been dirty for 30 seconds, and looks every 5 seconds:
/// a run's pages are written after the next run, together with those of that one.
constexpr unsigned kStampsPerWriteBack = 2;

/// Records stamps and writes back as the kernel does at a real cadence, for as long as it takes
/// until each row was written once.
void WriteDay(Measurement& measurement, const std::string& work, const JournalOptions& journal)
{
   const bool hasDevice = !GetSettings().deviceDirectory.empty();
   const ScratchDirectory scratch(hasDevice ? GetSettings().deviceDirectory
                                            : GetSettings().directory);
   Recording recording(CaptureSimulatedHost());
   recording.CreateDepot(scratch.GetPath(), journal);
   recording.RecordUntilSteady();
   SyncFileSystem(scratch.GetPath());

   const IoCounts before = IoCounts::Read("self");
   const double deviceBefore = GetDeviceBytes(scratch.GetPath());
   const unsigned stamps = Recording::CountUntilSteady(journal) - 1;
   for (unsigned i = 1; i <= stamps; ++i) {
      recording.RecordNextStamp();
      if (i % kStampsPerWriteBack == 0) {
         SyncFiles(scratch.GetPath());
      }
   }
   SyncFileSystem(scratch.GetPath());
   const double gbPerDay = GetGbPerDay(stamps * kFinePeriodSec);
   const IoCounts io = IoCounts::Read("self") - before;
   measurement.Report(work, "GB", io.deviceBytes * gbPerDay);
   if (hasDevice) {
      const double written = GetDeviceBytes(scratch.GetPath()) - deviceBefore;
      measurement.Report(work + "-block", "GB", written * gbPerDay);
   }
}

const DepotRegistration kDefault(
   "device-day",
   [](Measurement& measurement, const JournalOptions& journal) {
      WriteDay(measurement, "device-day", journal);
   },
   true);
const Registration kLongest(
   "device-day-longest", kOurs,
   [](Measurement& measurement) {
      WriteDay(measurement, "device-day-longest", kLongestCheckpoints);
   },
   true);

} // namespace

} // namespace Bench
