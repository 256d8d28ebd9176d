#include "bench/measurement.h"
#include "bench/meters.h"
#include "bench/processFigures.h"
#include "bench/recording.h"
#include "bench/resultLines.h"
#include "linuxHost/linuxHostProvider.h"

#include <memory>

namespace Bench {

namespace {

constexpr unsigned kRuns = 3 * kStampsPerRollup;
constexpr unsigned kHostReads = 200;

/// Whole runs of the collector: collect, name, buffer, flush.
void WholeRun(Measurement& measurement, const Metrix::JournalOptions& journal)
{
   const auto samples = static_cast<double>(CaptureSimulatedHost().size());
   const QuietAgent agent;
   SimulatedCollection collection(kSimulatedHost, journal, agent.GetLogger());
   for (unsigned i = Recording::CountUntilSteady(journal); i > 0; --i) {
      collection.Run();
   }
   collection.TakeHolds();
   const IoCounts before = IoCounts::Read("self");
   CpuMeter meter;
   RunHolds holds;
   for (unsigned i = 1; i <= kRuns; ++i) {
      meter.Start();
      collection.Run();
      meter.Stop();
      holds.Add(collection.TakeHolds(), i % kStampsPerRollup == 0);
   }
   const IoCounts io = IoCounts::Read("self") - before;
   measurement.Report("run", "us", meter.GetTotalUs() / (kRuns * samples));
   measurement.Report("run-samples", "samples", samples);
   measurement.Report("run-calls", "calls", io.calls / kRuns);
   measurement.Report("run-bytes", "bytes", io.bytes / (kRuns * samples));
   measurement.Report("hold", "ms", holds.usualUs / 1e3);
   measurement.Report("hold-any", "ms", holds.anyUs / 1e3);
   measurement.Report("hold-total", "ms", holds.GetMeanTotalUs() / 1e3);
}

template <class T>
std::unique_ptr<T> Own(T* object)
{
   return std::unique_ptr<T>(object);
}

/// Reads all that a run reads of the host itself.
void ReadHost(HostCtl::HostProvider& provider)
{
   const auto host = Own(provider.GetHost());
   const auto resources = Own(host->GetResourceInfo());
   resources->GetCpuStats();
   resources->GetUptimeUs();
   resources->GetCapacity();
   resources->GetMemoryStats();
   Own(Own(resources->GetRootGroup())->GetCpuLoadHistory());
   const auto storage = Own(host->GetStorageInfo());
   for (HostCtl::Storage::DiskLun* const disk : storage->GetDiskLuns()) {
      Own(disk)->GetStatistics();
   }
   const auto network = Own(host->GetNetworkInfo());
   for (HostCtl::Network::PhysicalNic* const nic : network->GetPhysicalNics()) {
      if (const auto port = Own(Own(nic)->GetUplinkPort())) {
         port->GetStatistics();
      }
   }
}

void HostRead(Measurement& measurement)
{
   const QuietAgent agent;
   const auto provider = LinuxHost::NewLinuxHostProvider({}, nullptr);
   ReadHost(*provider); // opens the files
   CpuMeter meter;
   meter.Start();
   for (unsigned i = 0; i < kHostReads; ++i) {
      ReadHost(*provider);
   }
   meter.Stop();
   measurement.Report("host-read", "us", meter.GetTotalUs() / kHostReads);
}

const DepotRegistration kRun("run", WholeRun);
const Registration kRegistrations[] = {
   {"host-read", kOurs, HostRead},
};

} // namespace

} // namespace Bench
