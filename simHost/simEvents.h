#pragma once

#include "corvax/logger.h"
#include "corvax/scheduler.h"
#include "simHost/simActions.h"

#include <functional>
#include <mutex>

namespace SimHost {

/// Applies the events of a simulated host, each at its time, on the thread "simEvents".
///
/// Locking: its own guards start and stop; events are applied without it, on one thread at a time.
class SimEvents : public Corvax::ObjectImpl {
public:
   /// Returns true if the action changed anything.
   using ApplyFunction = std::function<bool(const SimEvent& event)>;

   /// Reads the script, with LoadScript's errors. `apply` is called between Start and the end of
   /// Stop.
   SimEvents(Corvax::Ref<SimState> state, ApplyFunction apply, Corvax::Logger* logger);
   ~SimEvents() override;

   /// Starts with the first event; no effect if already started or if there are no events.
   void Start();
   /// Waits for an event under way and logs how many were applied; no effect if not started.
   void Stop();

   /// Applies all events due up to this time since the start that have not been applied: a delay
   /// loses none.
   void ApplyDue(int64_t elapsedUs);
   /// Events that changed something since the start.
   uint64_t GetAppliedCount() const { return _appliedCount; }

private:
   /// Returns false if there are no more events.
   bool FindNext(SimEvent& event) const;
   void TakeNext(const SimEvent& event);
   void OnTimer();
   void ScheduleNext();

   const Corvax::Ref<SimState> _state;
   const SimOptions& _options; ///< the state's
   const std::vector<SimEvent> _script;
   const ApplyFunction _apply;
   const Corvax::Ref<Corvax::Logger> _logger;
   size_t _nextOfScript = 0;
   uint64_t _nextRandom = 0;
   uint64_t _appliedCount = 0;

   std::mutex _mutex;                        // guards the thread
   Corvax::Ref<Corvax::TimerThread> _thread; ///< null: not started
   int64_t _startUs = 0;                     ///< written before the thread starts
};

} // namespace SimHost
