#include <gtest/gtest.h>

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

TEST(CategoriesTest, TheTableHolds64AndCutsNames) {
  EXPECT_STREQ("ZEL_MISC", InfoOf(0).name);
  EXPECT_EQ(0xFFFFFFFFu, __ZelRegisterMemoryCategory(nullptr));
  EXPECT_EQ(
      std::vector<std::string>{"ERROR A name must be specified when registering memory categories"},
      zeltest::LoggedLines());
  ZelMemoryCategoryInfo untouched = InfoOf(0);
  for (const uint32_t id : {1u, 63u, 64u, 0xFFFFFFFFu})
    EXPECT_EQ(0u, __ZelGetMemoryInfoByCategory(id, &untouched));
  EXPECT_STREQ("ZEL_MISC", untouched.name);
  EXPECT_EQ(0u, __ZelGetMemoryInfoByCategory(0, nullptr));
  for (uint32_t id = 1; id < 64; ++id) {
    EXPECT_EQ(id, __ZelGetNumMemoryCategories());
    const std::string name = std::to_string(id) + " 3456789012345678901234567890123456789";
    EXPECT_EQ(id, __ZelRegisterMemoryCategory(name.c_str()));
    EXPECT_EQ(name.substr(0, 31), InfoOf(id).name);
  }
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(0xFFFFFFFFu, __ZelRegisterMemoryCategory("one too many"));
    EXPECT_EQ(64u, __ZelGetNumMemoryCategories());
  }
  EXPECT_EQ(1u, zeltest::LoggedLines().size());
}

TEST(StatisticsTest, ThePeakKeepsTheFiguresOfItsMoment) {
  backing::Install();
  const uint32_t other = __ZelRegisterMemoryCategory("other");
  __ZelFree(__ZelMalloc(0, 5, 0));  // not counted: they are off
  EXPECT_EQ(0u, __zelTotalMemoryAllocated + __ZelGetPeakTotalMemoryAllocated());
  for (int i = 0; i < 2; ++i) __ZelEnableMemoryStatisticsCollection();
  void* blocks[6];
  for (void*& block : blocks) block = __ZelMalloc(0, kTwoSlotsAPage, 0);
  void* const lone = __ZelMalloc(other, 10, 2);
  static_cast<void>(__ZelMalloc(0, 1 << 20, 0));  // large blocks do not count
  EXPECT_EQ(3 * 65'536, InfoOf(0).allocated);
  EXPECT_EQ(4 * 65'536, InfoOf(other).allocated) << "the nominal size of a page with shift 2";
  EXPECT_EQ(7 * 65'536u, __zelTotalMemoryAllocated);

  for (int i = 0; i < 4; ++i) __ZelFree(blocks[i]);
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
  for (int page = 1; page <= 250; ++page) {
    for (int slot = 0; slot < 2; ++slot) static_cast<void>(__ZelMalloc(0, kTwoSlotsAPage, 0));
    if (page % 100 == 0) {
      const std::string bytes = page == 100 ? " 6553600" : "13107200";
      expected.insert(expected.end(),
                      {"Periodic allocation status dump",
                       "Allocation status for ZEL_MISC                 :       " + bytes,
                       "Allocation status for second                   :              0"});
    }
    ASSERT_EQ(expected, zeltest::LoggedLines()) << page;
  }
}

}  // namespace
