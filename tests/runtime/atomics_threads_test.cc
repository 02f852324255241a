#include <gtest/gtest.h>

#include <type_traits>

#include "tests/support/threads.h"
#include "zelrt/atomics.h"

namespace {

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
  constexpr uint32_t kThreads = 4, kRounds = 100'000;
  uint32_t counted = 0, added = 0, exchanged = 0;
  uint64_t exchanged64 = 0;
  zeltest::OnEachThread(kThreads, [&](int) {
    for (uint32_t round = 0; round < kRounds; ++round) {
      __ZelInterlockedIncrement(&counted);
      __ZelInterlockedIncrement(&counted);
      __ZelInterlockedDecrement(&counted);
      __ZelInterlockedExchangeAdd(&added, 3);
      AddByExchange(&exchanged, 1, __ZelInterlockedCompareExchange);
      AddByExchange(&exchanged64, uint64_t{1} << 32, __ZelInterlockedCompareExchange64);
    }
  });
  EXPECT_EQ(kThreads * kRounds, counted);
  EXPECT_EQ(3 * kThreads * kRounds, added);
  EXPECT_EQ(kThreads * kRounds, exchanged);
  EXPECT_EQ(uint64_t{kThreads * kRounds} << 32, exchanged64);
}

}  // namespace
