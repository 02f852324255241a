#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "memory/internal.h"
#include "tests/support/child_process.h"
#include "tests/support/fake_backing.h"
#include "tests/support/recorded_log.h"
#include "zelrt/memory.h"

namespace {

using zelrt::ZelAllocatorPage;
using zelrt::ZelSizeClassBucket;
namespace backing = zeltest::backing;

constexpr size_t kPageRequest = 65'520;
constexpr char kDoubleFreeNote[] = "Tried to free a memory chunk that has already been freed";

uint64_t& HeaderOf(void* block) { return static_cast<uint64_t*>(block)[-1]; }
ZelAllocatorPage* PageOf(void* block) {
  return reinterpret_cast<ZelAllocatorPage*>(HeaderOf(block));
}
ZelSizeClassBucket* BucketOf(const ZelAllocatorPage* page) {
  return zelrt::FindBucket(page->category, page->units);
}

void ExpectConsistent(const ZelAllocatorPage* page) {
  EXPECT_TRUE(zelrt::PageIsConsistent(page));
  EXPECT_TRUE(zelrt::BucketIsConsistent(BucketOf(page)));
}

std::vector<void*> Fill(ZelAllocatorPage* page, size_t size) {
  std::vector<void*> blocks;
  while (page->freeCount > 0) blocks.push_back(__ZelMalloc(page->category, size, 0));
  return blocks;
}

class AllocatorTest : public testing::Test {
 protected:
  void SetUp() override { backing::Install(); }
};

TEST_F(AllocatorTest, SizesFallIntoUnitsAndTheLargestIsSmall) {
  const struct {
    size_t size;
    uint32_t units;
  } rows[] = {{0, 1}, {1, 1}, {8, 1}, {9, 2}, {24, 2}, {25, 3}, {32'712, 2045}, {32'728, 2046}};
  for (const auto& row : rows) {
    void* const block = __ZelMalloc(3, row.size, 0);
    const ZelAllocatorPage* const page = PageOf(block);
    EXPECT_EQ(row.units, page->units) << row.size;
    EXPECT_EQ(zelrt::SlotsPerPage(65'536, row.units), page->capacity);
    EXPECT_EQ(3, page->category);
    EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(block) % 8);
    std::memset(block, 0xA5, row.size);
    ExpectConsistent(page);
    __ZelFree(block);
    ExpectConsistent(page);
  }
  const size_t before = backing::LiveBlocks();
  void* const large = __ZelMalloc(3, 32'729, 99);  // the size shift has no bearing
  EXPECT_EQ(0xBEEFu, HeaderOf(large));
  EXPECT_EQ(32'737u, backing::Requests().back());
  std::memset(large, 0xA5, 32'729);
  __ZelFree(large);
  EXPECT_EQ(before, backing::LiveBlocks());
  __ZelFree(nullptr);
}

TEST_F(AllocatorTest, SlotsComeInAscendingOrderFromAFreshPage) {
  auto* const first = static_cast<char*>(__ZelMalloc(0, 40, 0));
  EXPECT_EQ(reinterpret_cast<char*>(PageOf(first)) + 48 + 8, first);
  EXPECT_EQ(first + 48, __ZelMalloc(0, 40, 0));
  __ZelFree(first);
  EXPECT_EQ(first, __ZelMalloc(0, 40, 0)) << "the last one freed is the first one given";
}

TEST_F(AllocatorTest, AFullPageIsFollowedByASecondOne) {
  void* const block = __ZelMalloc(0, 8, 0);
  ZelAllocatorPage* const page = PageOf(block);
  EXPECT_EQ(kPageRequest, backing::Requests().back());
  const size_t requests = backing::RequestCount();
  EXPECT_EQ(4091u, Fill(page, 8).size());
  EXPECT_EQ(requests, backing::RequestCount());
  EXPECT_EQ(nullptr, BucketOf(page)->pages);
  void* const next = __ZelMalloc(0, 8, 0);
  EXPECT_NE(page, PageOf(next));
  EXPECT_EQ(requests + 1, backing::RequestCount());
  ExpectConsistent(page);
}

TEST_F(AllocatorTest, TheSizeShiftSelectsThePage) {
  for (const uint32_t shift : {1u, 4u, 15u}) {
    // The largest slots, so that little of the page is touched.
    void* const block = __ZelMalloc(shift, 32'728, shift);
    EXPECT_EQ((uint64_t{65'536} << shift) - 16, backing::Requests().back());
    EXPECT_EQ(shift, PageOf(block)->sizeShift);
    EXPECT_EQ((((uint64_t{65'536} << shift) - 16) / 16 - 3) / 2046, PageOf(block)->capacity);
    ExpectConsistent(PageOf(block));
    std::memset(block, 1, 32'728);
    __ZelFree(block);
  }
}

TEST_F(AllocatorTest, CategoriesNeverShareAPage) {
  std::map<ZelAllocatorPage*, uint32_t> owners;
  for (int round = 0; round < 1000; ++round) {
    const uint32_t category = static_cast<uint32_t>(round) % 64;
    ZelAllocatorPage* const page = PageOf(__ZelMalloc(category, 64, 0));
    EXPECT_EQ(category, owners.emplace(page, category).first->second);
  }
  EXPECT_EQ(64u, owners.size());
}

TEST_F(AllocatorTest, TheOnlyPageOfABucketIsRetainedWhenEmptied) {
  __ZelEnableMemoryStatisticsCollection();
  for (int round = 0; round < 3; ++round) __ZelFree(__ZelMalloc(0, 100, 0));
  EXPECT_EQ(2u, backing::RequestCount()) << "the bucket table and one page";
  EXPECT_EQ(2u, backing::LiveBlocks());
  EXPECT_EQ(65'536u, __zelTotalMemoryAllocated);
}

TEST_F(AllocatorTest, EmptiedPageOfTwoIsReturned) {
  __ZelEnableMemoryStatisticsCollection();
  constexpr size_t kSize = 16'000;  // four slots a page
  std::vector<void*> blocks;
  for (int i = 0; i < 5; ++i) blocks.push_back(__ZelMalloc(0, kSize, 0));
  ZelAllocatorPage* const first = PageOf(blocks[0]);
  ZelAllocatorPage* const second = PageOf(blocks[4]);
  ASSERT_NE(first, second);
  EXPECT_EQ(2 * 65'536u, __zelTotalMemoryAllocated);
  const size_t live = backing::LiveBlocks();

  // The full page is unlisted; its first free slot puts it in front of the other one.
  __ZelFree(blocks[0]);
  EXPECT_EQ(first, BucketOf(second)->pages);
  ExpectConsistent(first);
  for (int i = 1; i < 4; ++i) __ZelFree(blocks[static_cast<size_t>(i)]);
  EXPECT_EQ(live - 1, backing::LiveBlocks());
  EXPECT_EQ(65'536u, __zelTotalMemoryAllocated);
  ExpectConsistent(second);

  __ZelFree(blocks[4]);
  EXPECT_EQ(live - 1, backing::LiveBlocks()) << "the last page is retained";
  EXPECT_EQ(second, BucketOf(second)->pages);
}

// An empty page retained at the head, and a full one that is relisted in front of it.
TEST_F(AllocatorTest, ARelistedPageMayStandBesideARetainedOne) {
  constexpr size_t kSize = 32'000;  // two slots a page
  void* const a = __ZelMalloc(0, kSize, 0);
  void* const b = __ZelMalloc(0, kSize, 0);
  void* const c = __ZelMalloc(0, kSize, 0);
  ZelAllocatorPage* const full = PageOf(a);
  ZelAllocatorPage* const retained = PageOf(c);
  const size_t live = backing::LiveBlocks();
  __ZelFree(c);
  EXPECT_EQ(live, backing::LiveBlocks());
  __ZelFree(a);
  EXPECT_EQ(full, BucketOf(retained)->pages);
  EXPECT_EQ(retained, full->next);
  __ZelFree(b);
  EXPECT_EQ(live - 1, backing::LiveBlocks());
  EXPECT_EQ(retained, BucketOf(retained)->pages);
  ExpectConsistent(retained);
}

TEST_F(AllocatorTest, FreeingTwiceIsNotedAndChangesNothing) {
  void* const kept = __ZelMalloc(0, 100, 0);
  void* const block = __ZelMalloc(0, 100, 0);
  __ZelFree(block);
  const uint32_t freeCount = PageOf(kept)->freeCount;
  for (size_t times = 1; times <= 3; ++times) {
    __ZelFree(block);
    EXPECT_EQ(times, zeltest::CountLogged(kDoubleFreeNote));
    EXPECT_EQ(freeCount, PageOf(kept)->freeCount);
    ExpectConsistent(PageOf(kept));
  }
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
    const auto child = zeltest::RunInChild([&] { __ZelMalloc(row.category, row.size, row.shift); });
    EXPECT_EQ(255, child.exitStatus);
    EXPECT_EQ(0u, child.output.find(row.named)) << child.output;
  }
}

TEST_F(AllocatorTest, SizesNearTheEndOfTheAddressSpaceAreRefusedNotWrapped) {
  for (const size_t size : {SIZE_MAX, SIZE_MAX - 7, SIZE_MAX - 8, SIZE_MAX - 15, SIZE_MAX - 22,
                            SIZE_MAX - 23, SIZE_MAX / 2 + 1, size_t{1} << 40}) {
    const auto child = zeltest::RunInChild([size] {
      zeltest::EchoLog(true);
      backing::RefuseIf([](size_t asked, size_t) { return asked > size_t{1} << 32; });
      __ZelMalloc(0, size, 0);
    });
    EXPECT_EQ(255, child.exitStatus) << size;
    EXPECT_EQ("ERROR OUT_OF_MEMORY\nERROR ABNORMAL_TERMINATE\n", child.output) << size;
  }
  void* const block = __ZelMalloc(0, (size_t{1} << 36) + 1, 0);  // its units exceed 32 bits
  EXPECT_EQ(0xBEEFu, HeaderOf(block));
  __ZelFree(block);
}

// Random allocation and release against a plain list of what must be intact.
TEST_F(AllocatorTest, BlocksAreDisjointAndKeepTheirContents) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  const auto below = [&random](uint32_t limit) { return static_cast<uint32_t>(random() % limit); };
  struct Live {
    unsigned char* block;
    size_t size;
    unsigned char pattern;
  };
  std::vector<Live> live;
  const auto release = [&](size_t index) {
    const Live& it = live[index];
    for (size_t i = 0; i < it.size; ++i) ASSERT_EQ(it.pattern, it.block[i]);
    ZelAllocatorPage* const page = HeaderOf(it.block) == 0xBEEF ? nullptr : PageOf(it.block);
    const bool isLastOfPage = page == nullptr || page->freeCount + 1 == page->capacity;
    __ZelFree(it.block);
    if (!isLastOfPage) ExpectConsistent(page);
    live[index] = live.back();
    live.pop_back();
  };
  for (int step = 0; step < 20'000; ++step) {
    const bool allocate = live.empty() || random() % 100 < (live.size() < 600 ? 60u : 40u);
    if (!allocate) {
      release(random() % live.size());
      continue;
    }
    // Few sizes, most of them with few slots a page, so that pages fill up and fall empty.
    static constexpr size_t kSizes[] = {0, 8, 100, 5'000, 9'000, 16'000, 32'728, 32'729, 70'000};
    const size_t size = kSizes[random() % std::size(kSizes)];
    const auto pattern = static_cast<unsigned char>(random());
    auto* const block = static_cast<unsigned char*>(__ZelMalloc(below(3), size, below(2)));
    std::memset(block, pattern, size);
    live.push_back({block, size, pattern});
    if (HeaderOf(block) != 0xBEEF) ExpectConsistent(PageOf(block));
  }
  while (!live.empty()) release(live.size() - 1);

  size_t retained = 0;
  for (uint32_t category = 0; category < 3; ++category) {
    for (uint32_t units = 1; units <= zelrt::kMaxUnits; ++units) {
      const ZelSizeClassBucket* const bucket = zelrt::FindBucket(category, units);
      if (bucket == nullptr || bucket->pages == nullptr) continue;
      EXPECT_EQ(nullptr, bucket->pages->next);
      EXPECT_EQ(bucket->pages->capacity, bucket->pages->freeCount);
      ++retained;
    }
  }
  EXPECT_EQ(1 + retained, backing::LiveBlocks()) << "the bucket table and retained pages";
}

}  // namespace
