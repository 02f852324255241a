#include "zelrt/crc32.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "modules/internal.h"

namespace {

// One bit at a time.
uint32_t Model(const uint8_t* data, size_t length) {
  uint32_t crc = 0xFFFFFFFF;
  for (size_t bit = 0; bit < 8 * length; ++bit) {
    const uint32_t differs = (crc ^ data[bit / 8] >> bit % 8) & 1;
    crc = crc >> 1 ^ (differs != 0 ? 0xEDB88320 : 0);
  }
  return ~crc;
}

using zelrt::Folding;

// The ways in turn, and at last the exported call, which chooses one.
constexpr const char* kWays[] = {"ByBytes", "Narrow", "Wide", "Exported"};
constexpr uint32_t kExported = 3;

class Crc32Test : public testing::TestWithParam<uint32_t> {
 protected:
  void SetUp() override {
    if (GetParam() != kExported && static_cast<Folding>(GetParam()) > zelrt::AvailableFolding())
      GTEST_SKIP() << "this processor cannot do that";
  }
  static uint32_t Sum(const void* data, uint64_t length) {
    if (GetParam() == kExported) return __ZelCRC32(data, length);
    return zelrt::Crc32(data, length, static_cast<Folding>(GetParam()));
  }
};
INSTANTIATE_TEST_SUITE_P(Ways, Crc32Test, testing::Range(0u, kExported + 1),
                         [](const auto& way) { return std::string(kWays[way.param]); });

TEST_P(Crc32Test, KnownSums) {
  EXPECT_EQ(0u, Sum(nullptr, 0)) << "nothing is read";
  EXPECT_EQ(0xCBF43926u, Sum("123456789", 9));
  EXPECT_EQ(0xD202EF8Du, Sum("", 1));
}

// Each block ends with the allocation, so that a sanitizer sees a byte too many.
TEST_P(Crc32Test, EveryLengthAtEveryAlignment) {
  constexpr size_t kLengths = 1200;
  constexpr size_t kAlignments = 64;
  const uint32_t seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  for (size_t length = 0; length <= kLengths; ++length) {
    std::vector<uint8_t> content(length);
    for (uint8_t& byte : content) byte = static_cast<uint8_t>(random());
    const uint32_t expected = Model(content.data(), length);
    for (size_t alignment = 0; alignment < kAlignments; ++alignment) {
      auto* const space =
          static_cast<uint8_t*>(operator new (alignment + length, std::align_val_t{kAlignments}));
      if (length > 0) std::memcpy(space + alignment, content.data(), length);
      const uint32_t sum = Sum(space + alignment, length);
      operator delete (space, std::align_val_t{kAlignments});
      ASSERT_EQ(expected, sum) << length << " bytes at " << alignment;
    }
  }
}

TEST_P(Crc32Test, LongBlocks) {
  for (const size_t length : {size_t{1} << 20, (size_t{1} << 20) + 145}) {
    const std::vector<uint8_t> ones(length, 0xFF);
    EXPECT_EQ(Model(ones.data(), length), Sum(ones.data(), length));
  }
}

unsigned g_lastLeaf, g_ecx1, g_ebx7, g_ecx7;
uint64_t g_enabled;
void FakeCpuid(unsigned leaf, unsigned subleaf, unsigned registers[4]) {
  const unsigned eax = leaf == 0 ? g_lastLeaf : 0;
  const unsigned ebx = leaf == 7 && subleaf == 0 ? g_ebx7 : 0;
  const unsigned ecx = leaf == 1 ? g_ecx1 : leaf == 7 && subleaf == 0 ? g_ecx7 : 0;
  const unsigned answers[] = {eax, ebx, ecx, ~0u};
  std::memcpy(registers, answers, sizeof answers);
}

TEST(FoldingTest, WideRegistersNeedProcessorAndSystem) {
  constexpr unsigned kMultiplication = 1 << 1, kOsxsave = 1 << 27, kAvx2 = 1 << 5, kWide = 1 << 10;
  const struct {
    unsigned lastLeaf, ecx1, ebx7, ecx7;
    uint64_t enabled;
    Folding expected;
  } rows[] = {
      {7, kMultiplication | kOsxsave, kAvx2, kWide, 7, Folding::kWide},
      {7, ~kMultiplication, ~0u, ~0u, ~0ull, Folding::kNone},
      {6, ~0u, ~0u, ~0u, ~0ull, Folding::kNarrow},
      {7, ~kOsxsave, ~0u, ~0u, ~0ull, Folding::kNarrow},
      {7, ~0u, ~kAvx2, ~0u, ~0ull, Folding::kNarrow},
      {7, ~0u, ~0u, ~kWide, ~0ull, Folding::kNarrow},
      {7, ~0u, ~0u, ~0u, 3, Folding::kNarrow},
  };
  for (const auto& row : rows) {
    std::tie(g_lastLeaf, g_ecx1, g_ebx7, g_ecx7, g_enabled) =
        std::tie(row.lastLeaf, row.ecx1, row.ebx7, row.ecx7, row.enabled);
    const auto enabledState = [] {
      EXPECT_NE(0u, g_ecx1 & kOsxsave) << "XGETBV is no instruction there";
      return g_enabled;
    };
    EXPECT_EQ(row.expected, zelrt::FoldingOf(FakeCpuid, enabledState)) << &row - rows;
  }
}

}  // namespace
