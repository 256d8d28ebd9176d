#include "simHost/simEvents.h"

#include "corvax/exception.h"
#include "corvax/system.h"

#include <algorithm>

namespace SimHost {

using Corvax::System;

SimEvents::SimEvents(Corvax::Ref<SimState> state, ApplyFunction apply, Corvax::Logger* logger)
   : _state(std::move(state)), _options(_state->GetOptions()),
     _script(_options.script.empty() ? std::vector<SimEvent>()
                                     : LoadScript(_options.script, *_state)),
     _apply(std::move(apply)), _logger(logger)
{
}

SimEvents::~SimEvents() = default;

void SimEvents::Start()
{
   const std::lock_guard guard(_mutex);
   if (_thread || (_script.empty() && !HasRandomEvents(_options))) {
      return;
   }
   _nextOfScript = 0;
   _nextRandom = 0;
   _appliedCount = 0;
   _startUs = System::GetTime();
   _thread = Corvax::NewTimerThread("simEvents", nullptr);
   ScheduleNext();
}

void SimEvents::Stop()
{
   Corvax::Ref<Corvax::TimerThread> thread;
   {
      const std::lock_guard guard(_mutex);
      thread = std::exchange(_thread, nullptr);
   }
   // Without the lock, because OnTimer takes it after an event.
   if (thread) {
      thread->Stop();
      _logger->Log(Corvax::kLogNotice, "%1 events of the simulated host were applied",
                   _appliedCount);
   }
}

bool SimEvents::FindNext(SimEvent& event) const
{
   const bool hasScript = _nextOfScript < _script.size();
   const bool hasRandom = HasRandomEvents(_options);
   if (hasRandom) {
      event = GetRandomEvent(_options, _nextRandom);
   }
   if (hasScript && (!hasRandom || _script[_nextOfScript].timeUs <= event.timeUs)) {
      event = _script[_nextOfScript];
   }
   return hasScript || hasRandom;
}

void SimEvents::ApplyDue(int64_t elapsedUs)
{
   SimEvent event;
   while (FindNext(event) && event.timeUs <= elapsedUs) {
      // Taken before it is applied: an event that fails is not tried again.
      TakeNext(event);
      try {
         _appliedCount += _apply(event) ? 1 : 0;
      } catch (const Corvax::Exception& e) {
         _logger->Log(Corvax::kLogError, "Cannot apply an event of the simulated host to %1: %2",
                      event.id, e.GetMessage());
      }
   }
}

void SimEvents::TakeNext(const SimEvent& event)
{
   // At equal times the script comes first, as in FindNext.
   if (_nextOfScript < _script.size() && _script[_nextOfScript].timeUs == event.timeUs) {
      ++_nextOfScript;
   } else {
      ++_nextRandom;
   }
}

void SimEvents::OnTimer()
{
   ApplyDue(System::GetTime() - _startUs);
   const std::lock_guard guard(_mutex);
   ScheduleNext();
}

/// The caller holds the lock.
void SimEvents::ScheduleNext()
{
   SimEvent event;
   if (_thread && FindNext(event)) {
      const int64_t delayUs = _startUs + event.timeUs - System::GetTime();
      _thread->ScheduleOnce(Corvax::MakeFunctor(this, &SimEvents::OnTimer),
                            std::max<int64_t>(delayUs, 0));
   }
}

} // namespace SimHost
