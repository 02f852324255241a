#include "zelrt/vector.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <utility>
#include <vector>

#include "containers/internal.h"
#include "tests/support/blocks_in_use.h"

namespace {

using zeltest::CategoryOfBlock;

uint32_t SizeOf(const ZelVector* vector) { return vector->sizeAndCategory & 0xFFFFFF; }

class VectorTest : public testing::Test {
 protected:
  void SetUp() override { zeltest::backing::Install(); }
};

TEST_F(VectorTest, EdgesOfPagesAndOfTheVector) {
  const struct {
    uint32_t index;
    uint32_t sizeAfter;
    bool makesPage;
  } rows[] = {{0, 1, false},        {255, 256, false},        {254, 256, false},
              {300, 301, true},     {131'071, 131'072, true}, {131'072, 131'072, false},
              {~0u, 131'072, false}};
  ZelVector* const vector = __ZelCreateVector(5);
  EXPECT_EQ(5u, CategoryOfBlock(vector));
  for (const auto& row : rows) {
    const bool inRange = row.index <= 131'071;
    const size_t page = row.index / 256;
    EXPECT_EQ(0u, __ZelGetVectorElement(vector, row.index));
    EXPECT_FALSE(row.makesPage && vector->pages[page] != nullptr);
    EXPECT_EQ(0u, __ZelSetVectorElement(vector, row.index, 7)) << row.index;
    EXPECT_EQ(inRange ? 7u : 0u, __ZelIncrementVectorElement(vector, row.index)) << row.index;
    EXPECT_EQ(inRange ? 8u : 0u, __ZelGetVectorElement(vector, row.index)) << row.index;
    EXPECT_EQ(row.sizeAfter, SizeOf(vector));
    if (row.makesPage) {
      EXPECT_EQ(5u, CategoryOfBlock(vector->pages[page]));
    }
  }
  EXPECT_EQ(8u, __ZelSetVectorElement(vector, 300, ~uint64_t{0}));
  EXPECT_EQ(~uint64_t{0}, __ZelIncrementVectorElement(vector, 300));
  EXPECT_EQ(0u, __ZelGetVectorElement(vector, 300)) << "wraps";
  __ZelDestroyVector(vector);
  EXPECT_TRUE(zeltest::NoBlockIsInUse());
}

TEST_F(VectorTest, CategoriesOfRecordsAndPages) {
  static ZelVector storage;
  ASSERT_EQ(&storage, __ZelInitializeVector(&storage, 0x103));
  EXPECT_EQ(3u << 24, storage.sizeAndCategory);
  __ZelSetVectorElement(&storage, 1000, 1);
  EXPECT_EQ(3u, CategoryOfBlock(storage.pages[3]));

  ZelVector* const twin = __ZelDuplicateVector(&storage, 4);
  EXPECT_EQ(4u, CategoryOfBlock(twin));
  EXPECT_EQ(3u, CategoryOfBlock(twin->pages[3])) << "copied under the source's";
  for (const uint32_t index : {300u, 131'071u}) __ZelSetVectorElement(twin, index, index);
  EXPECT_EQ(4u, CategoryOfBlock(twin->pages[1])) << "allocated later";

  ZelVector* const raised = __ZelCreateVector(6);
  __ZelMaxVector(raised, twin);
  ZelVector* const copy = __ZelCreateVector(7);
  __ZelCopyVector(copy, twin);
  for (const size_t page : {1, 3, 511}) {
    EXPECT_EQ(6u, CategoryOfBlock(raised->pages[page]));
    EXPECT_EQ(7u, CategoryOfBlock(copy->pages[page]));
  }
  for (ZelVector* vector : {twin, raised, copy}) __ZelDestroyVector(vector);
  __ZelFree(storage.pages[3]);
  EXPECT_TRUE(zeltest::NoBlockIsInUse());
}

constexpr uint32_t kPagesInPlay[] = {0, 1, 2, 77, 510, 511};

// A vector, and a map that holds what it shall.
struct VectorAndModel {
  ZelVector* vector;
  uint32_t size = 0;
  std::map<uint32_t, uint64_t> elements = {};

  uint64_t Exchange(uint32_t index, uint64_t value) {
    size = std::max(size, index + 1);
    return std::exchange(elements[index], value);
  }
  void ExpectSame() const {
    ASSERT_TRUE(zelrt::VectorIsConsistent(vector));
    ASSERT_EQ(size, SizeOf(vector));
    for (const uint32_t page : kPagesInPlay) {
      for (uint32_t index = page * 256; index <= page * 256 + 256; ++index) {
        const auto found = elements.find(index);
        ASSERT_EQ(found != elements.end() ? found->second : 0, __ZelGetVectorElement(vector, index))
            << index;
      }
    }
  }
};

TEST_F(VectorTest, RandomOperationsAgreeWithAModel) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  const auto below = [&random](uint32_t limit) { return static_cast<uint32_t>(random() % limit); };
  std::vector<VectorAndModel> all;
  for (uint32_t i = 0; i < 3; ++i) all.push_back({__ZelCreateVector(i)});
  for (int step = 0; step < 2'000 && !HasFatalFailure(); ++step) {
    VectorAndModel& one = all[below(3)];
    const VectorAndModel& other = all[below(3)];
    const uint32_t inPage = below(2) == 0 ? below(256) : below(2) * 255;
    const uint32_t index = kPagesInPlay[below(std::size(kPagesInPlay))] * 256 + inPage;
    const uint64_t value = uint64_t{random()} << below(33);  // with and without the highest bit
    const uint32_t kind = below(100);
    if (kind < 50) {
      ASSERT_EQ(one.Exchange(index, value), __ZelSetVectorElement(one.vector, index, value));
    } else if (kind < 85) {
      ASSERT_EQ(one.Exchange(index, one.elements[index] + 1),
                __ZelIncrementVectorElement(one.vector, index));
    } else if (kind < 92) {
      __ZelMaxVector(one.vector, other.vector);
      one.size = std::max(one.size, other.size);
      for (const auto& [at, least] : other.elements)
        one.elements[at] = std::max(one.elements[at], least);
    } else if (kind < 95) {
      __ZelCopyVector(one.vector, other.vector);
      one = {one.vector, other.size, other.elements};
    } else {
      ZelVector* const before = one.vector;
      if (kind < 97) {
        one = {__ZelCreateVector(0)};
      } else {
        one = {__ZelDuplicateVector(other.vector, below(64)), other.size, other.elements};
      }
      __ZelDestroyVector(before);
    }
    one.ExpectSame();
  }
  for (const VectorAndModel& one : all) __ZelDestroyVector(one.vector);
  EXPECT_TRUE(zeltest::NoBlockIsInUse());
}

}  // namespace
