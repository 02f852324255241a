#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <utility>

#include "containers/internal.h"
#include "tests/support/blocks_in_use.h"
#include "tests/support/random.h"

namespace {

using zeltest::CategoryOfBlock;

TEST(VectorTest, CategoriesOfRecordsAndPages) {
  zeltest::backing::Install();
  static ZelVector storage;
  __ZelSetVectorElement(__ZelInitializeVector(&storage, 0x103), 1000, 1);
  EXPECT_EQ(3u << 24 | 1001, storage.sizeAndCategory);
  ZelVector* const twin = __ZelDuplicateVector(&storage, 4);
  EXPECT_EQ(3u, CategoryOfBlock(twin->pages[3])) << "copied under the source's";
  __ZelSetVectorElement(twin, 300, 1);
  for (const void* block : {static_cast<void*>(twin), static_cast<void*>(twin->pages[1])})
    EXPECT_EQ(4u, CategoryOfBlock(block));
  for (const auto fill : {__ZelMaxVector, __ZelCopyVector}) {
    ZelVector* const vector = __ZelCreateVector(6);
    fill(vector, twin);
    for (const int page : {1, 3}) EXPECT_EQ(6u, CategoryOfBlock(vector->pages[page]));
    __ZelDestroyVector(vector);
  }
  __ZelDestroyVector(twin);
  __ZelFree(storage.pages[3]);
  EXPECT_TRUE(zeltest::NoBlockIsInUse());
}

constexpr uint32_t kPagesInPlay[] = {0, 1, 2, 77, 510, 511, 512, 0xFF'FFFF};  // two out of range

// A vector, and a map that holds what it shall.
struct VectorAndModel {
  ZelVector* vector;
  uint32_t size = 0;
  std::map<uint32_t, uint64_t> elements = {};

  uint64_t Exchange(uint32_t index, uint64_t value) {
    if (index > 131'071) return 0;
    size = std::max(size, index + 1);
    return std::exchange(elements[index], value);
  }
  void ExpectSame() const {
    ASSERT_TRUE(zelrt::VectorIsConsistent(vector));
    ASSERT_EQ(size, vector->sizeAndCategory & 0xFF'FFFF);
    for (uint32_t i = 0; i < 256 * std::size(kPagesInPlay); ++i) {
      const uint32_t index = kPagesInPlay[i / 256] * 256 + i % 256;
      const auto found = elements.find(index);
      ASSERT_EQ(found != elements.end() ? found->second : 0, __ZelGetVectorElement(vector, index));
    }
  }
};

TEST(VectorTest, RandomOperationsAgreeWithAModel) {
  zeltest::backing::Install();
  zeltest::Random random;
  VectorAndModel all[] = {{__ZelCreateVector(0)}, {__ZelCreateVector(1)}, {__ZelCreateVector(2)}};
  for (int step = 0; step < 2'000 && !testing::Test::HasFatalFailure(); ++step) {
    VectorAndModel& one = all[random.Below(3)];
    const VectorAndModel& other = all[random.Below(3)];
    const uint32_t inPage = random.OneIn(2) ? random.Below(256) : random.Below(2) * 255;
    const uint32_t index = kPagesInPlay[random.Below(std::size(kPagesInPlay))] * 256 + inPage;
    const uint32_t kind = random.Below(100);
    if (kind < 50) {
      const uint64_t value =
          random.OneIn(4) ? ~uint64_t{0} : uint64_t{random()} << random.Below(33);
      ASSERT_EQ(one.Exchange(index, value), __ZelSetVectorElement(one.vector, index, value));
    } else if (kind < 85) {
      const uint64_t before = one.elements.count(index) != 0 ? one.elements[index] : 0;
      ASSERT_EQ(before, __ZelIncrementVectorElement(one.vector, index));
      one.Exchange(index, before + 1);
    } else if (kind < 92) {
      __ZelMaxVector(one.vector, other.vector);
      one.size = std::max(one.size, other.size);
      for (const auto& [i, least] : other.elements)
        one.elements[i] = std::max(one.elements[i], least);
    } else if (kind < 95) {
      __ZelCopyVector(one.vector, other.vector);
      one = {one.vector, other.size, other.elements};
    } else {
      VectorAndModel made = {__ZelCreateVector(0)};
      if (kind < 98) {
        __ZelDestroyVector(made.vector);
        made = {__ZelDuplicateVector(other.vector, 5), other.size, other.elements};
      }
      std::swap(one, made);
      __ZelDestroyVector(made.vector);
    }
    one.ExpectSame();
  }
  for (const VectorAndModel& one : all) __ZelDestroyVector(one.vector);
  EXPECT_TRUE(zeltest::NoBlockIsInUse());
}

}  // namespace
