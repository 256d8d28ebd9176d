#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>

namespace Agentctl {

/// Waits so many seconds; false when there is nothing more to wait for.
using WaitFunction = std::function<bool(int64_t seconds)>;

/// Seconds until it is worth asking again. New samples are due one interval after the newest known
/// one; a second later they are surely written. Where that has passed in vain (the agent collects
/// nothing, or its clock is another), four times an interval.
inline int64_t GetSecondsToNext(int64_t newestSec, int64_t nowSec, int64_t intervalSec)
{
   const int64_t dueSec = newestSec + intervalSec + 1;
   if (dueSec > nowSec && dueSec - nowSec <= intervalSec + 1) {
      return dueSec - nowSec;
   }
   return std::max<int64_t>(1, intervalSec / 4);
}

} // namespace Agentctl
