#pragma once

#include "agentd/stopSignal.h"
#include "corvax/logger.h"
#include "corvax/scheduler.h"

#include <atomic>
#include <chrono>
#include <cstdint>

namespace Agentd {

/// Watches the collection runs of the statistics plug-in from outside: logs overruns, failures and
/// silence, prints the report, and requests the agent's stop after a number of runs.
///
/// Locking: none; the plug-in's timer thread calls OnRun, the main thread everything else.
class CollectionMonitor {
public:
   /// `runs` 0: never requests a stop.
   CollectionMonitor(Corvax::Logger* logger, StopSignal& stop, int64_t runs, bool report);

   /// Call it before the first run. Gets the interval from the performance manager.
   void Start();
   /// From now on a run that schedules no successor is normal.
   void Stop() { _stopping = true; }

   void OnRun(const Corvax::TimerRun& run);

   /// Logs an error, once for each silence, if no run has ended for three intervals.
   void CheckSilence();
   std::chrono::milliseconds GetCheckPeriod() const { return std::chrono::seconds(_intervalSec); }

private:
   void LogTrouble(const Corvax::TimerRun& run);
   void PrintReport(const Corvax::TimerRun& run);

   const Corvax::Ref<Corvax::Logger> _logger;
   StopSignal& _stop;
   const int64_t _runs;
   const bool _report;
   int64_t _intervalSec = 0;
   int64_t _runsDone = 0;
   std::atomic<bool> _stopping{false};
   std::atomic<int64_t> _lastRunUs{0}; ///< monotonic
   int64_t _silenceLoggedUs = 0;       ///< the last run before the silence that was logged
};

} // namespace Agentd
