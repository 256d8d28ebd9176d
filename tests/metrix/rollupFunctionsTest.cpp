#include "metrix/rollupFunctions.h"

#include <gtest/gtest.h>

namespace {

using namespace Metrix;

TEST(RollupFunctionsTest, CountValidSamplesOnly)
{
   struct Case {
      std::vector<StatVal> samples;
      StatVal average;
      StatVal max;
      StatVal min;
      StatVal last;
      StatVal sum;
   };
   constexpr StatVal kLargest = kUnset - 1;
   const Case cases[] = {
      {{}, kUnset, kUnset, kUnset, kUnset, kUnset},
      {{kUnset, kUnset}, kUnset, kUnset, kUnset, kUnset, kUnset},
      {{0}, 0, 0, 0, 0, 0},
      {{10, kUnset, 21}, 15, 21, 10, 21, 31},
      {{5, 7, kUnset}, 6, 7, 5, 7, 12},
      {{kUnset, 9, 3, 4}, 5, 9, 3, 4, 16},
      {{kLargest, 3}, 0, kLargest, 3, 3, 1}, // the sum wraps
   };
   for (const Case& c : cases) {
      SCOPED_TRACE(testing::PrintToString(c.samples));
      EXPECT_EQ(CalculateAverage(c.samples), c.average);
      EXPECT_EQ(CalculateMax(c.samples), c.max);
      EXPECT_EQ(CalculateMin(c.samples), c.min);
      EXPECT_EQ(CalculateLast(c.samples), c.last);
      EXPECT_EQ(CalculateSum(c.samples), c.sum);
      EXPECT_EQ(CalculateNop(c.samples), kUnset);
   }
}

} // namespace
