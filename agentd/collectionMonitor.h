#pragma once

#include "agentd/stopSignal.h"
#include "corvax/lockable.h"
#include "corvax/logger.h"
#include "corvax/scheduler.h"

#include <atomic>
#include <chrono>
#include <cstdint>

namespace Agentd {

/// Watches the statistics plug-in's collection runs from outside: makes overruns, failures and
/// silence visible in the log, prints the report, and wishes the agent to stop after a number of
/// runs.
///
/// Locking: OnRun is called on the plug-in's timer thread, everything else on the main thread.
class CollectionMonitor {
public:
   /// `runs` 0: no end.
   CollectionMonitor(Corvax::Logger* logger, StopSignal& stop, int64_t runs, bool report);

   /// Before the first run: the interval, in seconds, is read from the performance manager.
   void Start();
   /// From now on runs that schedule no other one are no news.
   void Stop() { _stopping = true; }

   void OnRun(const Corvax::TimerRun& run);

   /// Says so when there has been no run for three intervals.
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
   int64_t _silenceToldUs = 0;
};

} // namespace Agentd
