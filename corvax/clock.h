#pragma once

#include <cstdint>

namespace Corvax {

constexpr int64_t kMicrosecondsPerSecond = 1'000'000;

/// The platform's times, all in microseconds.
class Clock {
public:
   virtual ~Clock();
   /// Wall clock, since the epoch. May be set back.
   virtual int64_t GetTime() = 0;
   /// Since some start; never goes back.
   virtual int64_t GetMonotonicTime() = 0;
   /// CPU time that the process has used in user and kernel mode.
   virtual void GetCpuTime(int64_t& userUs, int64_t& systemUs) = 0;
};

} // namespace Corvax
