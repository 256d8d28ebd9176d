#pragma once

#include "corvax/clock.h"
#include "corvax/file.h"
#include "corvax/scheduler.h"

namespace Corvax {

/// Access to the platform: clock, files, timers. Everything above reaches them through this class,
/// so that a test can replace them.
class System {
public:
   static int64_t GetTime() { return GetClock().GetTime(); }
   static int64_t GetMonotonicTime() { return GetClock().GetMonotonicTime(); }
   static void GetCpuTime(int64_t& userUs, int64_t& systemUs)
   {
      GetClock().GetCpuTime(userUs, systemUs);
   }

   static SystemFactory& GetFactory();

   /// The timer facility of the calling thread; AssertionException on a thread without one.
   static Scheduler& GetThisThread();

   /// Gives the calling thread its timer facility, null for none; no reference is taken.
   static void SetThisThread(Scheduler* scheduler);

   /// Replaces clock or files process-wide, null for the real ones; not while other threads run.
   static void SetClock(Clock* clock);
   static void SetFactory(SystemFactory* factory);

private:
   static Clock& GetClock();
};

} // namespace Corvax
