#include "metrix/slotUsageMap.h"

#include "corvax/exception.h"

#include <gtest/gtest.h>

namespace {

using Metrix::SlotUsageMap;

TEST(SlotUsageMapTest, FindsTheLowestFreeSlotAndGrowsByOneWhenFull)
{
   SlotUsageMap map(3);
   for (int slot = 0; slot < 5; ++slot) {
      ASSERT_EQ(map.FindFirstFreeSlot(), slot);
      map.MarkSlotUsed(slot);
   }
   EXPECT_EQ(map.GetSize(), 5);
   map.MarkSlotFree(3);
   map.MarkSlotFree(1);
   EXPECT_EQ(map.FindFirstFreeSlot(), 1);
   EXPECT_EQ(map.FindLastUsedSlot(), 4);
}

TEST(SlotUsageMapTest, RefusesIndexesAboveItsSize)
{
   SlotUsageMap map(5);
   EXPECT_FALSE(map.IsSlotUsed(5));
   EXPECT_THROW(map.IsSlotUsed(6), Corvax::AssertionException);
   EXPECT_THROW(map.MarkSlotUsed(6), Corvax::AssertionException);
   EXPECT_THROW(map.MarkSlotFree(6), Corvax::AssertionException);
   EXPECT_EQ(map.GetSize(), 5);
}

TEST(SlotUsageMapTest, ResizingForgetsTheSlotsBeyondTheEnd)
{
   SlotUsageMap map(5);
   for (int slot = 0; slot < 5; ++slot) {
      map.MarkSlotUsed(slot);
   }
   EXPECT_EQ(map.FindLastUsedSlot(), 4);
   map.Resize(1);
   EXPECT_EQ(map.FindLastUsedSlot(), 0);
   map.Resize(4);
   EXPECT_FALSE(map.IsSlotUsed(3));
   EXPECT_EQ(map.FindFirstFreeSlot(), 1);
}

TEST(SlotUsageMapTest, AFailedSearchForTheLastUsedSlotLeavesItsHintAtZero)
{
   SlotUsageMap map(10);
   EXPECT_EQ(map.FindLastUsedSlot(), -1);
   map.MarkSlotUsed(5);
   EXPECT_EQ(map.FindLastUsedSlot(), -1);
   map.MarkSlotUsed(0);
   EXPECT_EQ(map.FindLastUsedSlot(), 0);
}

TEST(SlotUsageMapTest, WithoutSlotsNoneIsFound)
{
   SlotUsageMap map(5);
   map.MarkSlotUsed(0);
   map.MarkSlotUsed(3);
   EXPECT_EQ(map.FindLastUsedSlot(), 3);
   map.Resize(0);
   for (int search = 0; search < 2; ++search) {
      EXPECT_EQ(map.FindLastUsedSlot(), -1);
      EXPECT_EQ(map.FindFirstFreeSlot(), 0);
   }
   map.MarkSlotUsed(0);
   EXPECT_EQ(map.FindLastUsedSlot(), 0);
}

} // namespace
