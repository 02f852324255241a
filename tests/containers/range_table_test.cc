#include "zelrt/range_table.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <vector>

#include "containers/hash_table.h"
#include "containers/range_table.h"
#include "tests/support/blocks_in_use.h"
#include "tests/support/random.h"

namespace {

constexpr uint64_t kTop = ~uint64_t{0};
constexpr uint64_t kMiddle = uint64_t{1} << 63;
constexpr uint32_t kShared = 0;

using Released = std::vector<uintptr_t>;
Released g_released;
void NoteReleased(void* data) { g_released.push_back(reinterpret_cast<uintptr_t>(data)); }
Released TakeReleased() {
  std::sort(g_released.begin(), g_released.end());
  return std::exchange(g_released, {});
}

ZelRangeTable* Create(uint64_t maxRangeSize, uint32_t flags) {
  return __ZelCreateRangeTable(maxRangeSize, 9, 2, flags, NoteReleased);
}

struct Range {
  uint64_t start, end;
  uintptr_t data;
  bool operator==(const Range& other) const = default;
};

// Applies each change to a table and to a list of intervals, and compares what they answer. With
// unshared blocks, the bounds of a range count as if they were those of its first and last block.
class TableAndModel {
 public:
  TableAndModel(uint64_t maxRangeSize, uint32_t flags)
      : table_(Create(maxRangeSize, flags)), isUnshared_(flags == ZEL_RANGE_FLAG_UNSHARED_BLOCKS) {}
  ~TableAndModel() {
    Empty();
    __ZelDestroyRangeTable(table_);
  }

  bool IsEmpty() const { return model_.empty(); }
  const Range& Some(uint64_t random) const { return model_[random % model_.size()]; }

  void Insert(uint64_t start, uint64_t end) {
    if (!Touching(start, end - 1).empty()) return;
    model_.push_back({start, end, ++items_});
    __ZelInsertRangeTableEntry(table_, start, end, reinterpret_cast<void*>(items_));
  }
  void Destroy(Range range) {
    __ZelDestroyRangeTableEntry(table_, range.start, range.end);
    ExpectReleased({range});
  }
  void Remove(Range range) {
    __ZelRemoveRangeTableEntry(table_, range.start, range.end);
    std::erase(model_, range);
    ExpectReleased({});
  }
  // Which of several ranges goes is left open as far as it is; none may be left out.
  void RemoveFirst(uint64_t low, uint64_t high) {
    const auto data =
        reinterpret_cast<uintptr_t>(__ZelRemoveFirstRangeTableEntry(table_, low, high));
    ExpectReleased({});
    const auto removed = std::find_if(model_.begin(), model_.end(),
                                      [data](const Range& range) { return range.data == data; });
    ASSERT_EQ(data != 0, removed != model_.end());
    for (const Range& range : model_) {
      const bool liesWithin = low <= range.start && range.end <= high;
      ASSERT_TRUE(!liesWithin || (data != 0 && removed->start / 32 <= range.start / 32));
    }
    if (data == 0) return;
    const std::vector<Range> candidates = Touching(low / 32 * 32, high - 1);
    ASSERT_EQ(1, std::count(candidates.begin(), candidates.end(), *removed)) << removed->start;
    model_.erase(removed);
  }
  void DestroySpan(uint64_t start, uint64_t length) {
    const uint64_t end = length > kTop - start ? kTop : start + length;
    Range expected = {start, end, 0};
    const std::vector<Range> destroyed = Touching(start, end - 1);
    for (const Range& range : destroyed) {
      expected.start = std::min(expected.start, range.start);
      expected.end = std::max(expected.end, range.end);
    }
    Range extent = {};
    __ZelDestroyRangeTableSpan(table_, start, length, &extent.start, &extent.end);
    ASSERT_EQ(expected, extent) << start << " + " << length;
    ExpectReleased(destroyed);
  }
  void Empty() {
    __ZelScanAndEmptyRangeTable(table_);
    ExpectReleased(std::vector(model_));
  }

  void ExpectSame() const {
    ASSERT_TRUE(zelrt::RangeTableIsConsistent(table_));
    for (const Range& range : model_) {
      for (const uint64_t edge : {range.start, range.end, range.start / 32 * 32, range.end | 31}) {
        ExpectSameAt(edge);
        ExpectSameAt(edge - 1);
      }
    }
  }
  void ExpectSameAt(uint64_t address) const {
    const std::vector<Range> found = Touching(address, address);
    const Range expected = found.empty() ? Range{} : found.front();
    Range answer;
    void* const data = __ZelLookupRangeTable(table_, address, &answer.start, &answer.end);
    answer.data = reinterpret_cast<uintptr_t>(data);
    ASSERT_EQ(expected, answer) << address;
  }

 private:
  // They are no longer in the table.
  void ExpectReleased(const std::vector<Range>& ranges) {
    Released expected;
    for (const Range& range : ranges) {
      expected.push_back(range.data);
      std::erase(model_, range);
    }
    std::sort(expected.begin(), expected.end());
    ASSERT_EQ(expected, TakeReleased());
  }
  std::vector<Range> Touching(uint64_t first, uint64_t last) const {
    const uint64_t unit = isUnshared_ ? 32 : 1;
    std::vector<Range> touching = model_;
    std::erase_if(touching, [=](const Range& range) {
      return range.start / unit > last / unit || first / unit > (range.end - 1) / unit;
    });
    return touching;
  }

  ZelRangeTable* const table_;
  const bool isUnshared_;
  std::vector<Range> model_;
  uintptr_t items_ = 0;
};

class RangeTableTest : public testing::Test {
 protected:
  void SetUp() override { zeltest::backing::Install(); }
  void TearDown() override { EXPECT_TRUE(zeltest::NoBlockIsInUse()); }
};

// In a window of a few blocks ranges meet all the time.
void ChangeAtRandom(uint64_t maxRangeSize, uint32_t flags, uint64_t base, uint64_t size) {
  zeltest::Random random;
  SCOPED_TRACE("base " + std::to_string(base));
  TableAndModel both(maxRangeSize, flags);
  for (int step = 0; step < 1'500 && !testing::Test::HasFatalFailure(); ++step) {
    const uint64_t low = base + random.Below(size);
    const uint64_t length = 1 + random.Below(std::min(base + size - low, 1ul + random.Below(300)));
    const uint32_t what = random.Below(32);
    if (what < 20 || both.IsEmpty()) {
      both.Insert(low, low + length);
    } else if (what < 24) {
      both.Destroy(both.Some(random()));
    } else if (what < 26) {
      both.Remove(both.Some(random()));
    } else if (what < 28) {
      both.RemoveFirst(low, low + length);
    } else if (what < 31) {
      both.DestroySpan(low, random.OneIn(8) ? kTop - random() : length);
    } else if (random.OneIn(16)) {
      both.Empty();
    }
    both.ExpectSame();
    both.ExpectSameAt(low);
  }
}

TEST_F(RangeTableTest, RandomChangesMatchTheModel) {
  for (const uint64_t maxRangeSize : {0, 64, 300, 1 << 20}) {
    for (const uint32_t flags : {kShared, ZEL_RANGE_FLAG_UNSHARED_BLOCKS}) {
      for (const uint64_t base : {uint64_t{32}, kMiddle - 0x223, kTop - 0x477})
        ChangeAtRandom(maxRangeSize, flags, base, 0x477);
    }
  }
}

TEST_F(RangeTableTest, RangesAreCutIntoAlignedBlocksUpToTheMaximum) {
  __ZelInsertRangeTableEntry(nullptr, 1, 2, nullptr);
  __ZelDestroyRangeTable(nullptr);
  const struct {
    uint64_t maxRangeSize;
    int maxLevelIndex;
    uint64_t start, end;
    std::vector<int> blocks;  // from 32 bytes on
  } rows[] = {{1 << 20, 19, 0x1010, 0x1074, {4}},
              {1 << 27, 26, 0x1FE0, 0x3001, {2, 0, 0, 0, 0, 0, 0, 1}},
              {kTop, 26, 0, 0xA0, {1, 0, 1}},
              {0x7F, 5, 0x40, 0x120, {1, 3}},
              {0, 4, 0x40, 0xC0, {4}},
              {63, 4, kTop - 0x40, kTop, {3}}};
  for (const auto& row : rows) {
    ZelRangeTable* const table = Create(row.maxRangeSize, 0xF0);
    EXPECT_EQ(0x209F0u, table->flags);
    EXPECT_EQ(row.maxLevelIndex, table->maxLevelIndex) << row.maxRangeSize;
    __ZelInsertRangeTableEntry(table, row.start, row.end, table);
    for (size_t level = 0; level < row.blocks.size(); ++level) {
      const ZelHashTable* const stored = table->levels[level];
      EXPECT_EQ(row.blocks[level], stored != nullptr ? stored->count : 0) << row.start;
      EXPECT_EQ(0x20906u, stored != nullptr ? stored->flags : 0x20906u);
    }
    __ZelScanAndEmptyRangeTable(table);
    __ZelDestroyRangeTable(table);
  }
}

// So many that their blocks are far from the processor, which is another way to look for them.
TEST_F(RangeTableTest, ManyRangesAreFoundAndDestroyed) {
  constexpr uint64_t kRanges = 6'000;
  constexpr uint64_t kBase = kTop - kRanges * 96 - 8;
  TableAndModel both(1 << 20, kShared);
  for (uint64_t at = kBase; at < kTop - 8; at += 96) both.Insert(at + 8, at + 24 + at / 96 % 73);
  for (uint64_t at = kBase; at < kTop - 331; at += 331) both.ExpectSameAt(at);
  for (uint32_t n = 0; n < kRanges / 3; n += 2) both.Destroy(both.Some(n));
  both.DestroySpan(kBase + 3, (kRanges - 200) * 96);
  both.ExpectSame();
}

// In steps of 32 bytes these would take years.
TEST_F(RangeTableTest, WalksPassOverEmptyStretches) {
  TableAndModel both(1 << 20, kShared);
  for (const uint64_t start : {uint64_t{0x1000}, uint64_t{0x1FF0}, uint64_t{1} << 40, kTop - 100})
    both.Insert(start, start + 100);
  both.RemoveFirst(0x2000, kTop);
  both.DestroySpan(0x2000, kTop);
  both.ExpectSame();
  both.DestroySpan(0, kTop >> 1);
  EXPECT_TRUE(both.IsEmpty());
}

TEST_F(RangeTableTest, SpansMeetEmptinessAndAddressZero) {
  ZelRangeTable* const table = Create(1 << 20, kShared);
  const auto destroySpan = [table](uint64_t start, uint64_t length) {
    uint64_t extentStart, extentEnd;
    __ZelDestroyRangeTableSpan(table, start, length, &extentStart, &extentEnd);
    return std::tuple(extentStart, extentEnd, TakeReleased().size());
  };
  __ZelInsertRangeTableEntry(table, 0x1010, 0x1020, table);
  __ZelRemoveRangeTableEntry(table, 0x1010, 0x1010);  // has no blocks, and so takes none away
  EXPECT_EQ(std::tuple(0x1010, 0x1020, 1), destroySpan(0x1018, 0));
  // The walk goes on in the very block where the first range ends, or it would pass over the
  // second.
  __ZelInsertRangeTableEntry(table, 0x1000, 0x1050, table);
  __ZelInsertRangeTableEntry(table, 0x1064, 0x1068, table);
  EXPECT_EQ(std::tuple(0xFFF, 0x106C, 2), destroySpan(0xFFF, 0x6D));
  // A start of 0 is what a lookup reports that finds nothing.
  __ZelInsertRangeTableEntry(table, 0, 16, table);
  EXPECT_EQ(std::tuple(8, 16, 0), destroySpan(8, 8));
  EXPECT_EQ(std::tuple(0, 16, 1), destroySpan(0, 16));
  __ZelDestroyRangeTable(table);
}

}  // namespace
