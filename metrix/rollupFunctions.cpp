#include "metrix/rollupFunctions.h"

#include <algorithm>

namespace Metrix {

namespace {

bool IsValid(StatVal value)
{
   return value != kUnset;
}

} // namespace

StatVal CalculateNop(const std::vector<StatVal>& /*samples*/)
{
   return kUnset;
}

StatVal CalculateAverage(const std::vector<StatVal>& samples)
{
   const auto valid = static_cast<uint64_t>(std::ranges::count_if(samples, IsValid));
   return valid > 0 ? CalculateSum(samples) / valid : kUnset;
}

StatVal CalculateMax(const std::vector<StatVal>& samples)
{
   StatVal result = kUnset;
   for (const StatVal value : samples) {
      if (IsValid(value) && (!IsValid(result) || value > result)) {
         result = value;
      }
   }
   return result;
}

StatVal CalculateMin(const std::vector<StatVal>& samples)
{
   // Unset is the largest number, so it is the minimum only of samples that are all unset.
   return samples.empty() ? kUnset : std::ranges::min(samples);
}

StatVal CalculateLast(const std::vector<StatVal>& samples)
{
   const auto found = std::find_if(samples.rbegin(), samples.rend(), IsValid);
   return found == samples.rend() ? kUnset : *found;
}

StatVal CalculateSum(const std::vector<StatVal>& samples)
{
   StatVal sum = 0;
   bool anyValid = false;
   for (const StatVal value : samples) {
      if (IsValid(value)) {
         sum += value;
         anyValid = true;
      }
   }
   return anyValid ? sum : kUnset;
}

} // namespace Metrix
