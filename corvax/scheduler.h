#pragma once

#include "corvax/functor.h"
#include "corvax/logger.h"

#include <cstdint>
#include <functional>
#include <string>

namespace Corvax {

/// A scheduled call of a functor.
class ScheduledItem : public virtual Object {
public:
   /// True if the functor was still pending; it will not be called.
   virtual bool Cancel() = 0;
   /// True until the call begins or is cancelled.
   virtual bool IsPending() const = 0;

protected:
   ~ScheduledItem() override;
};

/// The timers of a thread: each calls a functor once, when it is due.
class Scheduler : public virtual Object {
public:
   /// Calls the functor when the wall clock has advanced by `delayUs` microseconds, never sooner.
   /// If the wall clock is set back, the call is made when the delay has passed on the monotonic
   /// clock (about a second late).
   virtual Ref<ScheduledItem> ScheduleOnce(Ref<Functor<>> functor, int64_t delayUs) = 0;

protected:
   ~Scheduler() override;
};

/// One call of a functor, measured by its timer thread. Wall-clock times in microseconds.
struct TimerRun {
   int64_t dueUs;
   int64_t startUs;
   int64_t endUs;
   /// Text of the exception that the functor threw; empty if it returned.
   std::string error;
   /// Whether further items are scheduled, by this call or earlier.
   bool morePending;
};

/// A thread with timers: it calls one functor at a time, earliest first. During a call
/// System::GetThisThread() is this scheduler.
///
/// Errors: an exception of a functor ends that call only; the observer receives its text.
class TimerThread : public Scheduler {
public:
   /// Drops all pending items and waits for a call in progress. Called on the thread itself, it
   /// does not wait. Later calls of ScheduleOnce throw AssertionException.
   virtual void Stop() = 0;

protected:
   ~TimerThread() override;
};

/// `name` is the thread's name (at most 15 characters). `observer`, unless empty, is called on the
/// thread after each call of a functor.
Ref<TimerThread> NewTimerThread(const std::string& name,
                                std::function<void(const TimerRun&)> observer);

} // namespace Corvax
