#include "metrix/columnRing.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace {

using namespace Metrix;

using Stamps = std::vector<TimeStamp>;

Stamps InOrder(const ColumnRing& ring, TimeStamp begin = kUnset, TimeStamp end = kUnset)
{
   Stamps stamps{1, 2, 3}; // replaced
   const int32_t first = begin == kUnset ? ring.GetEarliest() : ring.FindClosestColumn(begin);
   ring.GetTimeStamps(ring.GetRange(first, end), stamps);
   return stamps;
}

TEST(ColumnRingTest, ColumnsBetweenOthersGetTheirStampsBack)
{
   EXPECT_EQ(FillGaps({140, kUnset, 60, kUnset, kUnset, 120}, 20),
             (std::vector<TimeStamp>{140, kUnset, 60, 80, 100, 120}));
   EXPECT_EQ(FillGaps({kUnset, kUnset}, 20), (std::vector<TimeStamp>{kUnset, kUnset}));
}

TEST(ColumnRingTest, FindsTheFewestStampsThatCannotBe)
{
   constexpr TimeStamp kNone = kUnset;
   const struct {
      const char* name;
      std::vector<TimeStamp> stamps;
      std::vector<size_t> impossible;
   } cases[] = {
      {"none in use", {kNone, kNone}, {}},
      {"in order", {100, 120, 140, kNone}, {}},
      {"wrapped, with a gap", {500, 520, 100, 120}, {}},
      {"a hole behind the latest", {500, kNone, 100, 120}, {}},
      {"no multiple of the period", {100, 121, 140}, {1}},
      {"too new", {100, 120, 1000020}, {2}},
      {"one far too high", {100, 900000, 140, 160}, {1}},
      {"one too low", {100, 120, 20, 160}, {2}},
      {"one twice", {100, 120, 120, 160}, {1}},
   };
   for (const auto& each : cases) {
      EXPECT_EQ(FindImpossibleColumns(each.stamps, 20, 1000000), each.impossible) << each.name;
   }
}

TEST(ColumnRingTest, FindsTheEarliestAndTheLatestColumnOfAFile)
{
   struct Case {
      std::string name;
      Stamps file;
      int32_t earliest;
      int32_t latest;
      Stamps inOrder;
   };
   const Case cases[] = {
      {"no columns", {}, -1, -1, {}},
      {"none in use", {kUnset, kUnset}, -1, -1, {}},
      {"one column", {10}, 0, 0, {10}},
      {"one of three in use", {10, kUnset, kUnset}, 0, 0, {10}},
      {"full", {10, 20, 30}, 0, 2, {10, 20, 30}},
      {"wrapped", {40, 20, 30}, 1, 0, {20, 30, 40}},
      {"greatest valid stamp", {kUnset - 1, 20}, 1, 0, {20, kUnset - 1}},
      {"equal stamps", {10, 20, 20}, 0, 1, {10, 20}},
      {"all stamps equal", {20, 20}, 0, 0, {20}},
   };
   for (const Case& c : cases) {
      const ColumnRing ring(c.file);
      EXPECT_EQ(ring.GetEarliest(), c.earliest) << c.name;
      EXPECT_EQ(ring.GetLatest(), c.latest) << c.name;
      EXPECT_EQ(ring.GetEarliestTimeStamp(), c.inOrder.empty() ? kUnset : c.inOrder.front());
      EXPECT_EQ(ring.GetLatestTimeStamp(), c.inOrder.empty() ? kUnset : c.inOrder.back());
      EXPECT_EQ(InOrder(ring), c.inOrder) << c.name;
   }
}

TEST(ColumnRingTest, StampsThatDoNotAscendAreSearchedOneByOne)
{
   const ColumnRing ring(Stamps{10, 40, 20, 30, 50});
   EXPECT_EQ(ring.FindColumn(20), 2);
   EXPECT_EQ(ring.FindColumn(30), 3);
   EXPECT_EQ(ring.FindColumn(35), -1);
   EXPECT_EQ(ring.FindClosestColumn(15), 1);
   EXPECT_EQ(ring.FindClosestColumn(40), 1);
   EXPECT_EQ(ring.FindClosestColumn(45), 4);
   EXPECT_EQ(InOrder(ring, 20, 60), (Stamps{40, 20, 30, 50}));
   EXPECT_EQ(InOrder(ring, kUnset, 30), (Stamps{10}));
}

} // namespace
