#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "tests/support/fake_backing.h"
#include "tests/support/recorded_log.h"
#include "zelrt/memory.h"

namespace {

namespace backing = zeltest::backing;

constexpr size_t kTwoSlotsAPage = 32'000;

ZelMemoryCategoryInfo InfoOf(uint32_t category) {
  ZelMemoryCategoryInfo info = {};
  EXPECT_EQ(1u, __ZelGetMemoryInfoByCategory(category, &info));
  return info;
}

TEST(CategoriesTest, AFreshProcessHasOne) {
  EXPECT_EQ(1u, __ZelGetNumMemoryCategories());
  EXPECT_STREQ("ZEL_MISC", InfoOf(0).name);
  EXPECT_EQ(0, InfoOf(0).allocated);
  EXPECT_EQ(0, InfoOf(0).allocatedAtPeak);
}

TEST(CategoriesTest, TheTableHolds64) {
  for (uint32_t id = 1; id < 64; ++id) {
    ASSERT_EQ(id, __ZelRegisterMemoryCategory(("category " + std::to_string(id)).c_str()));
  }
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(0xFFFFFFFFu, __ZelRegisterMemoryCategory("one too many"));
    EXPECT_EQ(64u, __ZelGetNumMemoryCategories());
  }
  EXPECT_STREQ("category 63", InfoOf(63).name);
  EXPECT_TRUE(zeltest::LoggedLines().empty());
}

TEST(CategoriesTest, NamesAreCutAndNullIsAnError) {
  const uint32_t id = __ZelRegisterMemoryCategory("0123456789012345678901234567890123456789");
  EXPECT_STREQ("0123456789012345678901234567890", InfoOf(id).name);
  EXPECT_EQ(0xFFFFFFFFu, __ZelRegisterMemoryCategory(nullptr));
  EXPECT_EQ(
      std::vector<std::string>{"ERROR A name must be specified when registering memory categories"},
      zeltest::LoggedLines());
  EXPECT_EQ(2u, __ZelGetNumMemoryCategories());
}

TEST(CategoriesTest, QueriesForWhatIsNotThereTouchNothing) {
  ZelMemoryCategoryInfo info;
  std::memset(&info, 0x5A, sizeof info);
  const ZelMemoryCategoryInfo before = info;
  for (const uint32_t id : {1u, 63u, 64u, 0xFFFFFFFFu}) {
    EXPECT_EQ(0u, __ZelGetMemoryInfoByCategory(id, &info));
  }
  EXPECT_EQ(0, std::memcmp(&before, &info, sizeof info));
  EXPECT_EQ(0u, __ZelGetMemoryInfoByCategory(0, nullptr));
}

TEST(StatisticsTest, NothingIsCountedUntilTheyAreOn) {
  backing::Install();
  void* const block = __ZelMalloc(0, 10, 0);
  EXPECT_EQ(0u, __zelTotalMemoryAllocated);
  EXPECT_EQ(0u, __ZelGetPeakTotalMemoryAllocated());
  __ZelFree(block);
}

TEST(StatisticsTest, ThePeakKeepsTheFiguresOfItsMoment) {
  backing::Install();
  __ZelEnableMemoryStatisticsCollection();
  __ZelEnableMemoryStatisticsCollection();
  const uint32_t other = __ZelRegisterMemoryCategory("other");
  std::vector<void*> blocks;
  for (int i = 0; i < 6; ++i) blocks.push_back(__ZelMalloc(0, kTwoSlotsAPage, 0));
  void* const lone = __ZelMalloc(other, 10, 2);
  static_cast<void>(__ZelMalloc(0, 1 << 20, 0));  // large blocks do not count
  EXPECT_EQ(3 * 65'536, InfoOf(0).allocated);
  EXPECT_EQ(4 * 65'536, InfoOf(other).allocated) << "the nominal size of a page with shift 2";
  EXPECT_EQ(7 * 65'536u, __zelTotalMemoryAllocated);

  for (int i = 0; i < 4; ++i) __ZelFree(blocks[static_cast<size_t>(i)]);
  EXPECT_EQ(65'536 + 65'536, InfoOf(0).allocated) << "two pages went, one of them retained";
  EXPECT_EQ(3 * 65'536, InfoOf(0).allocatedAtPeak);
  EXPECT_EQ(4 * 65'536, InfoOf(other).allocatedAtPeak);
  EXPECT_EQ(7 * 65'536u, __ZelGetPeakTotalMemoryAllocated());

  // Back to where the peak was, but not above: its figures stay.
  static_cast<void>(__ZelMalloc(other, 5'000, 0));
  EXPECT_EQ(7 * 65'536u, __zelTotalMemoryAllocated);
  EXPECT_EQ(4 * 65'536, InfoOf(other).allocatedAtPeak);
  static_cast<void>(__ZelMalloc(other, 9'000, 0));
  EXPECT_EQ(6 * 65'536, InfoOf(other).allocatedAtPeak);
  EXPECT_EQ(2 * 65'536, InfoOf(0).allocatedAtPeak);
  __ZelFree(lone);
}

TEST(StatisticsTest, EveryHundredthPageDumps) {
  backing::Install();
  __ZelRegisterMemoryCategory("second");
  __ZelEnableMemoryStatisticsCollection();
  std::vector<std::string> expected;
  for (int64_t page = 1; page <= 250; ++page) {
    static_cast<void>(__ZelMalloc(0, kTwoSlotsAPage, 0));
    static_cast<void>(__ZelMalloc(0, kTwoSlotsAPage, 0));
    if (page == 100) {
      expected = {"Periodic allocation status dump",
                  "Allocation status for ZEL_MISC                 :        6553600",
                  "Allocation status for second                   :              0"};
    } else if (page == 200) {
      expected.insert(expected.end(),
                      {"Periodic allocation status dump",
                       "Allocation status for ZEL_MISC                 :       13107200",
                       "Allocation status for second                   :              0"});
    }
    ASSERT_EQ(expected, zeltest::LoggedLines()) << page;
  }
}

}  // namespace
