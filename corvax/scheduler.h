#pragma once

#include "corvax/functor.h"
#include "corvax/logger.h"

#include <cstdint>
#include <functional>
#include <string>

namespace Corvax {

/// A functor waiting for its time.
class ScheduledItem : public virtual Object {
public:
   /// True when the functor was still waiting and will now never be called.
   virtual bool Cancel() = 0;
   /// True until the functor is taken for its call or cancelled.
   virtual bool IsPending() const = 0;

protected:
   ~ScheduledItem() override;
};

/// The timer facility of a thread: calls functors once, when their time has come.
class Scheduler : public virtual Object {
public:
   /// Calls the functor when the wall clock has advanced by `delayUs` microseconds, never sooner.
   /// When the wall clock is set back, an item waits no longer than its delay in real time (to
   /// about a second).
   virtual Ref<ScheduledItem> ScheduleOnce(Ref<Functor<>> functor, int64_t delayUs) = 0;

protected:
   ~Scheduler() override;
};

/// One call of a functor as its timer thread saw it. Times are wall clock, microseconds.
struct TimerRun {
   int64_t dueUs;
   int64_t startUs;
   int64_t endUs;
   /// What the functor threw; empty when it returned.
   std::string error;
   /// Whether the thread holds further items, those scheduled by this call included.
   bool morePending;
};

/// A thread of its own with a timer facility: functors run on it one after the other, earliest
/// first, and while one runs System::GetThisThread() is this scheduler.
///
/// Errors: an exception out of a functor ends that call only; it is told to the observer.
class TimerThread : public Scheduler {
public:
   /// Ends the thread: waits for a functor under way and drops those still waiting. Called on the
   /// thread itself it only asks for the end. Later ScheduleOnce calls throw.
   virtual void Stop() = 0;

protected:
   ~TimerThread() override;
};

/// `name` is the thread's name (at most 15 characters); `observer`, when set, is called on the
/// thread after each functor.
Ref<TimerThread> NewTimerThread(const std::string& name,
                                std::function<void(const TimerRun&)> observer);

} // namespace Corvax
