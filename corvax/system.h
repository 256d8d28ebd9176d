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

   /// The timers of the calling thread; AssertionException on a thread without any.
   static Scheduler& GetThisThread();

   /// Sets the timers of the calling thread, null for none; takes no reference.
   static void SetThisThread(Scheduler* scheduler);

   /// Replaces clock or files for the process, null for the real ones. Not while other threads run.
   static void SetClock(Clock* clock);
   static void SetFactory(SystemFactory* factory);

private:
   static Clock& GetClock();
};

} // namespace Corvax
