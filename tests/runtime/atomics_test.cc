#include "zelrt/atomics.h"

#include <gtest/gtest.h>

namespace {

TEST(AtomicsTest, CompareExchangeStoresOnlyOnEqualAndReturnsWhatItFound) {
  for (const auto operation :
       {__ZelInterlockedCompareExchange, __ZelInterlockedCompareExchangeInternal}) {
    uint32_t word = 5;
    EXPECT_EQ(5u, operation(&word, 9, 4));
    EXPECT_EQ(5u, operation(&word, 9, 5));
    EXPECT_EQ(9u, word);
  }
  for (const auto operation :
       {__ZelInterlockedCompareExchange64, __ZelInterlockedCompareExchange64Internal}) {
    uint64_t word = 0x1'0000'0005;
    EXPECT_EQ(0x1'0000'0005u, operation(&word, 9, 5)) << "compares all 64 bits";
    EXPECT_EQ(0x1'0000'0005u, operation(&word, 0x2'0000'0000, 0x1'0000'0005));
    EXPECT_EQ(0x2'0000'0000u, word);
  }
}

TEST(AtomicsTest, ArithmeticWrapsAndReturnsNewNewAndOldValue) {
  uint32_t word = 0xFFFFFFFE;
  EXPECT_EQ(0xFFFFFFFFu, __ZelInterlockedIncrement(&word));
  EXPECT_EQ(0u, __ZelInterlockedIncrementInternal(&word));
  EXPECT_EQ(0xFFFFFFFFu, __ZelInterlockedDecrement(&word));
  EXPECT_EQ(0xFFFFFFFEu, __ZelInterlockedDecrementInternal(&word));
  EXPECT_EQ(0xFFFFFFFEu, __ZelInterlockedExchangeAdd(&word, 4));
  EXPECT_EQ(2u, __ZelInterlockedExchangeAddInternal(&word, 0xFFFFFFFF));
  EXPECT_EQ(1u, word);
}

TEST(AtomicsTest, BitScansFindEveryBit) {
  for (uint32_t bit = 0; bit < 32; ++bit) {
    const uint32_t only = 1u << bit;
    EXPECT_EQ(bit, __ZelGetLeastSignificantOneIndex(only | 0x80000000));
    EXPECT_EQ(bit, __ZelGetLeastSignificantOneIndexInternal(only | 0x80000000));
    EXPECT_EQ(bit, __ZelGetMostSignificantOneIndexInternal(only | 1));
  }
  for (uint32_t bit = 0; bit < 64; ++bit)
    EXPECT_EQ(bit, __ZelGetMostSignificantOneIndexLong((uint64_t{1} << bit) | 1));
  EXPECT_EQ(0u, __ZelGetLeastSignificantOneIndex(0) | __ZelGetMostSignificantOneIndexLong(0));
}

}  // namespace
