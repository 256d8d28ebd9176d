#include "agentd/collectionMonitor.h"

#include "agentdCommon/haPerformanceManager.h"
#include "agentdCommon/wellKnown.h"
#include "corvax/application.h"
#include "corvax/dateTime.h"
#include "corvax/exception.h"
#include "corvax/system.h"
#include "quen/inventory.h"

#include <cstdio>

namespace Agentd {

namespace {

using AgentdCommon::HaPerformanceManager;
using AgentdCommon::Long;
using Corvax::kMicrosecondsPerSecond;
using Corvax::Ref;
using Corvax::System;

Ref<HaPerformanceManager> GetPerformanceManager()
{
   return Corvax::Service::GetApp()->GetObjectRegistry()->LookupObject<HaPerformanceManager>(
      AgentdCommon::moid_perfmgr);
}

std::string FigureOrDash(Long figure)
{
   return figure < 0 ? "-" : std::to_string(figure);
}

} // namespace

CollectionMonitor::CollectionMonitor(Corvax::Logger* logger, StopSignal& stop, int64_t runs,
                                     bool report)
   : _logger(logger), _stop(stop), _runs(runs), _report(report)
{
}

void CollectionMonitor::Start()
{
   const auto host = Corvax::MakeRef<Plexa::MoRef>(Quen::HostSystem::GetManagedType(),
                                                   AgentdCommon::moid_hostsystem);
   Ref<Quen::PerformanceManager::ProviderSummary> summary;
   GetPerformanceManager()->QueryProviderSummary(host.Get(), summary);
   _intervalSec = summary->refreshRate.value();
   _lastRunUs = System::GetMonotonicTime();
}

void CollectionMonitor::OnRun(const Corvax::TimerRun& run)
{
   _lastRunUs = System::GetMonotonicTime();
   LogTrouble(run);
   if (_report) {
      PrintReport(run);
   }
   if (++_runsDone == _runs) {
      _stop.Request();
   }
}

void CollectionMonitor::LogTrouble(const Corvax::TimerRun& run)
{
   if (!run.error.empty()) {
      _logger->Log(Corvax::kLogError, "A collection failed: %1", run.error);
   }
   const int64_t intervalUs = _intervalSec * kMicrosecondsPerSecond;
   const int64_t skipped = run.endUs / intervalUs - run.dueUs / intervalUs;
   if (skipped > 0) {
      _logger->Log(Corvax::kLogWarning,
                   "The collection of %1 started %2 ms late, took %3 ms and skipped %4 of the "
                   "%5-second boundaries",
                   Corvax::DateTime(run.dueUs).ToString(), (run.startUs - run.dueUs) / 1000,
                   (run.endUs - run.startUs) / 1000, skipped, _intervalSec);
   }
   if (!run.morePending && !_stopping) {
      _logger->Log(Corvax::kLogError,
                   "Collection has stopped: no further run is scheduled. Restart "
                   "the agent to resume it");
   }
}

void CollectionMonitor::PrintReport(const Corvax::TimerRun& run)
{
   Long cpuMhz = -1;
   Long memoryKb = -1;
   try {
      GetPerformanceManager()->GetHostCpuMemUsage(cpuMhz, memoryKb);
   } catch (const Corvax::Exception& e) {
      _logger->Log(Corvax::kLogError, "The newest figures cannot be read: %1", e.GetMessage());
   }
   const auto time = Corvax::DateTime::FromSeconds(run.startUs / kMicrosecondsPerSecond);
   std::printf("%s cpu %s MHz memory %s KB\n", time.ToString().c_str(),
               FigureOrDash(cpuMhz).c_str(), FigureOrDash(memoryKb).c_str());
   std::fflush(stdout);
}

void CollectionMonitor::CheckSilence()
{
   const int64_t lastUs = _lastRunUs;
   const int64_t silentUs = System::GetMonotonicTime() - lastUs;
   if (silentUs > 3 * _intervalSec * kMicrosecondsPerSecond && _silenceLoggedUs != lastUs) {
      _silenceLoggedUs = lastUs;
      _logger->Log(Corvax::kLogError, "No collection has ended for %1 s; the interval is %2 s",
                   silentUs / kMicrosecondsPerSecond, _intervalSec);
   }
}

} // namespace Agentd
