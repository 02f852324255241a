#include "runtime/slot_table.h"

#include <gtest/gtest.h>

TEST(SlotTableTest, ClaimedSlotsAreAbsentUntilPublishedAndRefusedClaimsLeaveNoTrace) {
  zelrt::SlotTable<int, 3> table(7);
  ASSERT_NE(nullptr, table.Find(0));
  EXPECT_EQ(7, *table.Find(0));
  for (uint32_t slot = 1; slot < 3; ++slot) {
    EXPECT_EQ(slot, table.Count());
    ASSERT_EQ(slot, table.Claim());
    EXPECT_EQ(nullptr, table.Find(slot));
    table[slot] = 8;
    table.Publish(slot);
    ASSERT_NE(nullptr, table.Find(slot));
    EXPECT_EQ(8, *table.Find(slot));
  }
  for (int i = 0; i < 3; ++i) EXPECT_EQ(zelrt::kNoSlot, table.Claim());
  EXPECT_EQ(3u, table.Count());
  for (const uint32_t slot : {3u, zelrt::kNoSlot}) EXPECT_EQ(nullptr, table.Find(slot));
}
