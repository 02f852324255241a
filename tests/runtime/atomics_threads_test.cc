#include <gtest/gtest.h>

#include <thread>
#include <type_traits>
#include <vector>

#include "zelrt/atomics.h"

namespace {

constexpr int kThreads = 4;
constexpr uint32_t kRounds = 100'000;

template <typename Word>
void AddByExchange(Word* word, std::type_identity_t<Word> amount,
                   Word (*compareExchange)(volatile Word*, Word, Word)) {
  Word seen = 0;
  for (;;) {
    const Word found = compareExchange(word, seen + amount, seen);
    if (found == seen) return;
    seen = found;
  }
}

TEST(AtomicsThreadsTest, NoUpdateIsLost) {
  uint32_t incremented = 0;
  uint32_t added = 0;
  uint32_t exchanged = 0;
  uint64_t exchanged64 = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      for (uint32_t round = 0; round < kRounds; ++round) {
        __ZelInterlockedIncrement(&incremented);
        __ZelInterlockedIncrementInternal(&incremented);
        __ZelInterlockedDecrement(&incremented);
        __ZelInterlockedExchangeAdd(&added, 3);
        AddByExchange(&exchanged, 1, __ZelInterlockedCompareExchange);
        AddByExchange(&exchanged64, uint64_t{1} << 32, __ZelInterlockedCompareExchange64);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(kThreads * kRounds, incremented);
  EXPECT_EQ(3 * kThreads * kRounds, added);
  EXPECT_EQ(kThreads * kRounds, exchanged);
  EXPECT_EQ(uint64_t{kThreads * kRounds} << 32, exchanged64);
}

}  // namespace
