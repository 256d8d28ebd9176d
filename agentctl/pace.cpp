#include "agentctl/pace.h"

#include <algorithm>

namespace Agentctl {

namespace {

int64_t ToSeconds(Corvax::DateTime time)
{
   return time.GetUtcMicroseconds() / Corvax::kMicrosecondsPerSecond;
}

} // namespace

int64_t GetSecondsToNext(std::optional<Corvax::DateTime> newest, int64_t intervalSec)
{
   const int64_t dueSec = ToSeconds(newest.value_or(Corvax::DateTime())) + intervalSec + 1;
   const int64_t leftSec = dueSec - ToSeconds(Corvax::DateTime::Now());
   if (leftSec > 0 && leftSec <= intervalSec + 1) {
      return leftSec;
   }
   return std::max<int64_t>(1, intervalSec / 4);
}

} // namespace Agentctl
