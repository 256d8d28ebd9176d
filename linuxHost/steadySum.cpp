#include "linuxHost/steadySum.h"

#include "linuxHost/kernel/saturate.h"

#include <utility>

namespace LinuxHost {

int64_t SteadySum::GetCorrection(Counters readings)
{
   uint64_t sum = 0;
   for (const auto& [name, reading] : readings) {
      sum += reading;
      if (const auto last = _last.find(name); last != _last.end()) {
         _sum += SaturatingSubtract(reading, last->second);
      }
   }
   if (!std::exchange(_hasBegun, true)) {
      _sum = sum;
   }
   _last = std::move(readings);
   return static_cast<int64_t>(_sum - sum);
}

} // namespace LinuxHost
