#include "corvax/system.h"

#include "corvax/exception.h"

#include <sys/resource.h>
#include <sys/time.h>

#include <atomic>
#include <chrono>

namespace Corvax {

namespace {

class RealClock : public Clock {
public:
   int64_t GetTime() override
   {
      const auto now = std::chrono::system_clock::now().time_since_epoch();
      return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
   }

   int64_t GetMonotonicTime() override
   {
      const auto now = std::chrono::steady_clock::now().time_since_epoch();
      return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
   }

   void GetCpuTime(int64_t& userUs, int64_t& systemUs) override
   {
      struct rusage usage{};
      ::getrusage(RUSAGE_SELF, &usage);
      userUs = Microseconds(usage.ru_utime);
      systemUs = Microseconds(usage.ru_stime);
   }

private:
   static int64_t Microseconds(const timeval& time)
   {
      return int64_t{time.tv_sec} * kMicrosecondsPerSecond + time.tv_usec;
   }
};

std::atomic<Clock*> replacedClock{nullptr};
std::atomic<SystemFactory*> replacedFactory{nullptr};
thread_local Scheduler* thisThread = nullptr;

} // namespace

Clock::~Clock() = default;

Clock& System::GetClock()
{
   static RealClock realClock;
   Clock* const clock = replacedClock.load(std::memory_order_acquire);
   return clock ? *clock : realClock;
}

SystemFactory& System::GetFactory()
{
   static const std::unique_ptr<SystemFactory> realFactory = NewPosixFactory();
   SystemFactory* const factory = replacedFactory.load(std::memory_order_acquire);
   return factory ? *factory : *realFactory;
}

Scheduler& System::GetThisThread()
{
   Assert(thisThread != nullptr, "the calling thread has a timer facility");
   return *thisThread;
}

void System::SetThisThread(Scheduler* scheduler)
{
   thisThread = scheduler;
}

void System::SetClock(Clock* clock)
{
   replacedClock.store(clock, std::memory_order_release);
}

void System::SetFactory(SystemFactory* factory)
{
   replacedFactory.store(factory, std::memory_order_release);
}

} // namespace Corvax
