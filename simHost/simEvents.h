#pragma once

#include "corvax/logger.h"
#include "corvax/scheduler.h"
#include "simHost/simActions.h"

#include <functional>
#include <mutex>

namespace SimHost {

/// Lets the events of a simulated host happen, each at its time, on the thread "simEvents".
///
/// Locking: its own around start and stop; the events are applied without it, on one thread at a
/// time.
class SimEvents : public Corvax::ObjectImpl {
public:
   /// True when the action changed anything.
   using ApplyFunction = std::function<bool(SimAction action, const std::string& id)>;

   /// Reads the script; errors as LoadScript's. `apply` is called between Start and the end of
   /// Stop.
   SimEvents(Corvax::Ref<SimState> state, ApplyFunction apply, Corvax::Logger* logger);
   ~SimEvents() override;

   /// The events begin, with the first ones; nothing when they run already or there are none.
   void Start();
   /// Waits for an event under way, and logs how many were applied. Nothing when none run.
   void Stop();

   /// Applies what is due up to that time since the start and was not yet; a delay loses nothing.
   void ApplyDue(int64_t elapsedUs);
   /// Events that changed something since the start.
   uint64_t GetAppliedCount() const { return _appliedCount; }

private:
   /// False when there is none.
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
   Corvax::Ref<Corvax::TimerThread> _thread; ///< null: no events run
   int64_t _startUs = 0;                     ///< written before there is a thread
};

} // namespace SimHost
