#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "tests/support/blocks_in_use.h"
#include "tests/support/child_process.h"
#include "tests/support/random.h"
#include "tests/support/recorded_log.h"
#include "zelrt/memory.h"

namespace {

using zelrt::ZelAllocatorPage;
namespace backing = zeltest::backing;

uint64_t HeaderOf(const void* block) { return static_cast<const uint64_t*>(block)[-1]; }
bool IsLarge(const void* block) { return HeaderOf(block) == 0xBEEF; }
ZelAllocatorPage* PageOf(const void* smallBlock) {
  return reinterpret_cast<ZelAllocatorPage*>(HeaderOf(smallBlock));
}
const ZelAllocatorPage* FirstListedWith(const ZelAllocatorPage* page) {
  return zelrt::FindBucket(page->category, page->units)->pages;
}

void ExpectConsistent(const ZelAllocatorPage* page) {
  const ZelAllocatorPage* listed = FirstListedWith(page);
  while (listed != nullptr && listed != page) listed = listed->next;
  EXPECT_EQ(page->freeCount > 0, listed == page);
  EXPECT_TRUE(zelrt::PageIsConsistent(page));
  EXPECT_TRUE(zelrt::BucketIsConsistent(zelrt::FindBucket(page->category, page->units)));
}

class AllocatorTest : public testing::Test {
 protected:
  void SetUp() override { backing::Install(); }
};

TEST_F(AllocatorTest, SizeAndShiftSelectTheSlotAndThePage) {
  const struct {
    size_t size;
    uint32_t shift, units;
  } rows[] = {{0, 0, 1},         {1, 0, 1},         {8, 0, 1},         {9, 0, 2},
              {24, 0, 2},        {25, 0, 3},        {32'712, 0, 2045}, {32'728, 0, 2046},
              {32'728, 1, 2046}, {32'728, 4, 2046}, {32'728, 15, 2046}};
  uint32_t category = 0;  // each has pages of its own
  for (const auto& row : rows) {
    auto* const block = static_cast<char*>(__ZelMalloc(++category, row.size, row.shift));
    const ZelAllocatorPage* const page = PageOf(block);
    const uint64_t request = (uint64_t{65'536} << row.shift) - 16;
    EXPECT_EQ(request, backing::Requests().back());
    EXPECT_EQ((request / 16 - 3) / row.units, page->capacity);
    EXPECT_EQ(row.units, page->units);
    EXPECT_TRUE(page->category == category && page->sizeShift == row.shift);
    EXPECT_EQ(reinterpret_cast<const char*>(page) + 48 + 8, block);
    EXPECT_EQ(block + 16 * row.units, __ZelMalloc(category, row.size, row.shift));
    std::memset(block, 0xA5, row.size);
    ExpectConsistent(page);
    __ZelFree(block);
    ExpectConsistent(page);
    EXPECT_EQ(block, __ZelMalloc(category, row.size, row.shift))
        << "the last one freed comes first";
  }
}

TEST_F(AllocatorTest, WhatNoSlotHoldsIsABlockOfItsOwn) {
  for (const size_t size : {size_t{32'729}, (size_t{1} << 36) + 1}) {  // units need over 32 bits
    void* const block = __ZelMalloc(3, size, 99);  // the size shift has no bearing
    EXPECT_TRUE(IsLarge(block));
    EXPECT_EQ(size + 8, backing::Requests().back());
    std::memset(block, 0xA5, 32'729);
    __ZelFree(block);
    EXPECT_EQ(1u, backing::LiveBlocks());
  }
  __ZelFree(nullptr);
}

TEST_F(AllocatorTest, AnEmptiedPageIsReturnedUnlessItIsTheLast) {
  __ZelEnableMemoryStatisticsCollection();
  constexpr size_t kSize = 32'000;  // two slots a page
  void* const a = __ZelMalloc(0, kSize, 0);
  void* const b = __ZelMalloc(0, kSize, 0);
  void* const c = __ZelMalloc(0, kSize, 0);
  const ZelAllocatorPage *const full = PageOf(a), *const retained = PageOf(c);
  EXPECT_EQ(2 * 65'536u, __zelTotalMemoryAllocated);
  __ZelFree(c);
  EXPECT_EQ(3u, backing::LiveBlocks()) << "the only listed one";
  // The full page is unlisted; its first free slot puts it in front of the other one.
  __ZelFree(a);
  EXPECT_EQ(full, FirstListedWith(retained));
  EXPECT_EQ(retained, full->next);
  __ZelFree(b);
  EXPECT_EQ(2u, backing::LiveBlocks());
  EXPECT_EQ(65'536u, __zelTotalMemoryAllocated);
  EXPECT_EQ(retained, FirstListedWith(retained));
  ExpectConsistent(retained);
  for (int round = 0; round < 3; ++round) __ZelFree(__ZelMalloc(0, kSize, 0));
  EXPECT_EQ(3u, backing::RequestCount()) << "the bucket table and two pages";
}

TEST_F(AllocatorTest, NumbersThatWouldLeaveTheBucketTableAreDefects) {
  const struct {
    uint32_t category;
    size_t size;
    uint32_t shift;
    const char* named;
  } rows[] = {
      {64, 100, 0, "Invalid memory category 64 "},
      {0xFFFFFFFF, 100'000, 0, "Invalid memory category 4294967295 "},
      {0, 100, 16, "Invalid size shift 16 "},
  };
  for (const auto& row : rows) {
    zeltest::ExpectFatalInChild([&row] { __ZelMalloc(row.category, row.size, row.shift); },
                                row.named);
  }
}

TEST_F(AllocatorTest, SizesNearTheEndOfTheAddressSpaceAreRefusedNotWrapped) {
  for (const size_t size : {SIZE_MAX, SIZE_MAX - 7, SIZE_MAX - 8, SIZE_MAX - 15, SIZE_MAX - 22,
                            SIZE_MAX - 23, SIZE_MAX / 2 + 1, size_t{1} << 40}) {
    SCOPED_TRACE(size);
    const auto ask = [size] {
      zeltest::EchoLog(true);
      backing::RefuseIf([](size_t asked, size_t) { return asked > size_t{1} << 32; });
      __ZelMalloc(0, size, 0);
    };
    zeltest::ExpectFatalInChild(ask, "ERROR OUT_OF_MEMORY\nERROR ABNORMAL_TERMINATE\n");
  }
}

// Random allocation and release against a plain list of what must be intact.
TEST_F(AllocatorTest, BlocksAreDisjointAndKeepTheirContents) {
  zeltest::Random random;
  struct Live {
    unsigned char* block;
    size_t size;
    unsigned char pattern;
  };
  std::vector<Live> live;
  const auto release = [&](size_t index) {
    const Live& it = live[index];
    for (size_t i = 0; i < it.size; ++i) ASSERT_EQ(it.pattern, it.block[i]);
    const ZelAllocatorPage* const page = IsLarge(it.block) ? nullptr : PageOf(it.block);
    const bool isLastOfPage = page == nullptr || page->freeCount + 1 == page->capacity;
    __ZelFree(it.block);
    if (!isLastOfPage) ExpectConsistent(page);
    live[index] = live.back();
    live.pop_back();
  };
  for (int step = 0; step < 20'000; ++step) {
    const bool allocate = live.empty() || random.Below(100) < (live.size() < 600 ? 60u : 40u);
    if (!allocate) {
      release(random.Below(live.size()));
      continue;
    }
    // Few sizes, most of them with few slots a page, so that pages fill up and fall empty.
    static constexpr size_t kSizes[] = {0, 8, 100, 5'000, 9'000, 16'000, 32'728, 32'729, 70'000};
    const size_t size = kSizes[random.Below(std::size(kSizes))];
    const uint32_t category = random.Below(3);
    const auto pattern = static_cast<unsigned char>(random());
    auto* const block = static_cast<unsigned char*>(__ZelMalloc(category, size, random.Below(2)));
    std::memset(block, pattern, size);
    live.push_back({block, size, pattern});
    if (IsLarge(block)) continue;
    EXPECT_EQ(category, PageOf(block)->category);
    ExpectConsistent(PageOf(block));
  }
  while (!live.empty()) release(live.size() - 1);
  EXPECT_TRUE(zeltest::NoBlockIsInUse());
}

}  // namespace
