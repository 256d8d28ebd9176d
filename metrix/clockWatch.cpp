#include "metrix/clockWatch.h"

#include "corvax/clock.h"

#include <algorithm>
#include <cstdlib>

namespace Metrix {

namespace {

using Corvax::kMicrosecondsPerSecond;

constexpr int64_t kLongestWaitSec = 60;
constexpr int64_t kLeastLeapSec = 60;
constexpr int64_t kJitterUs = kMicrosecondsPerSecond; // of the moments at which runs start

/// By how much the wall clock advanced more than the monotonic one.
int64_t GetLeadUs(const ClockWatch::Moment& now, const ClockWatch::Moment& before)
{
   return (now.wallUs - before.wallUs) - (now.monotonicUs - before.monotonicUs);
}

} // namespace

void ClockWatch::Start(std::optional<int64_t> newestSec)
{
   _newestSec = newestSec;
   _last.reset();
   _leap.reset();
}

int64_t ClockWatch::GetBoundary(const Moment& now, int64_t intervalSec)
{
   const int64_t sec = now.wallUs / kMicrosecondsPerSecond;
   return sec - sec % intervalSec;
}

ClockWatch::Verdict ClockWatch::Judge(const Moment& now, int64_t intervalSec)
{
   if (IsLeap(now, intervalSec)) {
      return Verdict::HOLD;
   }
   if (!_newestSec || GetBoundary(now, intervalSec) > *_newestSec) {
      return Verdict::RUN;
   }
   const int64_t aheadSec = *_newestSec - now.wallUs / kMicrosecondsPerSecond;
   return aheadSec <= kLongestWaitSec ? Verdict::WAIT : Verdict::GIVE_UP;
}

bool ClockWatch::IsLeap(const Moment& now, int64_t intervalSec)
{
   const int64_t toleratedUs = std::max(kLeastLeapSec, 2 * intervalSec) * kMicrosecondsPerSecond;
   if (!_last || GetLeadUs(now, *_last) <= toleratedUs) {
      _leap.reset();
      return false;
   }
   if (!_leap || std::abs(GetLeadUs(now, *_leap)) > toleratedUs) {
      _leap = now;
      return true;
   }
   // The leap itself makes a run due, so the next boundary may follow at once.
   const int64_t heldUs = now.monotonicUs - _leap->monotonicUs;
   return heldUs < intervalSec * kMicrosecondsPerSecond - kJitterUs;
}

void ClockWatch::Accept(const Moment& now, int64_t intervalSec)
{
   _newestSec = GetBoundary(now, intervalSec);
   _last = now;
   _leap.reset();
}

} // namespace Metrix
