#pragma once

#include "corvax/file.h"
#include "corvax/scheduler.h"

#include <cstdint>

namespace Corvax {

class Clock {
public:
   virtual ~Clock() = default;
   /// Wall clock, microseconds since the epoch.
   virtual int64_t GetTime() = 0;
   /// CPU time that the process has used in user and kernel mode, microseconds.
   virtual void GetCpuTime(int64_t& userUs, int64_t& systemUs) = 0;
};

/// The way to the platform: clock, files, timers. Everything above reaches them here, so that a
/// test can put its own in their place.
class System {
public:
   static int64_t GetTime() { return GetClock().GetTime(); }
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
