// The instruction that floors and models are made of.
#pragma once

namespace bench {

// Returns what was found. Inline whatever the compiler thinks of it: a floor has no calls.
template <typename Word>
[[gnu::always_inline]] inline Word CompareExchange(Word* word, Word expected, Word desired) {
  __atomic_compare_exchange_n(word, &expected, desired, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
  return expected;
}

}  // namespace bench
