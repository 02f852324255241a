#include "zelrt/crc32.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "modules/internal.h"
#include "tests/support/random.h"

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

// By all ways that this processor can go; the exported call chooses one.
void ExpectSum(uint32_t expected, const void* data, uint64_t length) {
  EXPECT_EQ(expected, __ZelCRC32(data, length)) << length;
  for (const Folding folding : {Folding::kNone, Folding::kNarrow, Folding::kWide}) {
    if (folding > zelrt::AvailableFolding()) break;
    EXPECT_EQ(expected, zelrt::Crc32(data, length, folding)) << length << " bytes at " << data;
  }
}

// Each block ends with the allocation, so that a sanitizer sees a byte too many.
TEST(Crc32Test, EveryLengthAtEveryAlignment) {
  ExpectSum(0, nullptr, 0);
  ExpectSum(0xCBF43926, "123456789", 9);
  constexpr std::align_val_t kLine{64};
  zeltest::Random random;
  for (size_t length = 0; length <= 1200 && !HasFailure(); ++length) {
    std::vector<uint8_t> content(length);
    for (uint8_t& byte : content) byte = static_cast<uint8_t>(random());
    const uint32_t expected = Model(content.data(), length);
    for (size_t alignment = 0; alignment < 64; ++alignment) {
      auto* const space = static_cast<uint8_t*>(operator new(alignment + length, kLine));
      std::copy(content.begin(), content.end(), space + alignment);
      ExpectSum(expected, space + alignment, length);
      operator delete(space, kLine);
    }
  }
}

unsigned g_leaves[8][4];  // EAX, EBX, ECX, EDX of each
uint64_t g_enabled;

TEST(FoldingTest, WideRegistersNeedProcessorAndSystem) {
  const auto cpuid = [](unsigned leaf, unsigned, unsigned registers[4]) {
    std::copy_n(g_leaves[leaf], 4, registers);
  };
  EXPECT_EQ(Folding::kNone, zelrt::FoldingOf(cpuid, nullptr));
  // One thing missing: the last leaf, OSXSAVE, AVX2, VPCLMULQDQ, a bit of XCR0; or nothing.
  for (int missing = 0; missing <= 6; ++missing) {
    g_leaves[0][0] = missing == 0 ? 6 : 7;
    g_leaves[1][2] = 1u << 1 | (missing == 1 ? 0 : 1u << 27);
    g_leaves[7][1] = missing == 2 ? ~(1u << 5) : 1u << 5;
    g_leaves[7][2] = missing == 3 ? ~(1u << 10) : 1u << 10;
    g_enabled = missing == 4 ? 5 : missing == 5 ? 3 : 7;
    const auto enabledState = missing == 1 ? nullptr : +[] { return g_enabled; };
    EXPECT_EQ(missing == 6 ? Folding::kWide : Folding::kNarrow,
              zelrt::FoldingOf(cpuid, enabledState));
  }
}

}  // namespace
