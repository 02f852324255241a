#include "runtime/slot_table.h"

#include <gtest/gtest.h>

namespace {

TEST(SlotTableTest, AClaimedSlotIsAbsentUntilItIsPublished) {
  zelrt::SlotTable<int, 3> table(7);
  EXPECT_EQ(1u, table.Count());
  ASSERT_NE(nullptr, table.Find(0));
  EXPECT_EQ(7, *table.Find(0));

  ASSERT_EQ(1u, table.Claim());
  EXPECT_EQ(2u, table.Count());
  EXPECT_EQ(nullptr, table.Find(1));
  table[1] = 8;
  table.Publish(1);
  ASSERT_NE(nullptr, table.Find(1));
  EXPECT_EQ(8, *table.Find(1));
}

TEST(SlotTableTest, RefusedClaimsLeaveTheCountAlone) {
  zelrt::SlotTable<int, 2> table;
  EXPECT_EQ(0u, table.Claim());
  EXPECT_EQ(1u, table.Claim());
  for (int i = 0; i < 3; ++i) EXPECT_EQ(zelrt::kNoSlot, table.Claim());
  EXPECT_EQ(2u, table.Count());
  EXPECT_EQ(nullptr, table.Find(2));
  EXPECT_EQ(nullptr, table.Find(zelrt::kNoSlot));
}

}  // namespace
