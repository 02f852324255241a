// The instruction that floors and models are made of, and the lock of several of them.
#pragma once

#include <sched.h>

#include <cstdint>

namespace bench {

// Returns what was found. Inline whatever the compiler thinks of it: a floor has no calls.
template <typename Word>
[[gnu::always_inline]] inline Word CompareExchange(Word* word, Word expected, Word desired) {
  __atomic_compare_exchange_n(word, &expected, desired, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
  return expected;
}

// State and number of readers are also exchanged as one word, state in the low half.
struct SharedWords {
  enum : uint32_t { kFree, kShared, kExclusive };

  uint32_t* State() { return reinterpret_cast<uint32_t*>(&both); }
  uint32_t* Readers() { return State() + 1; }

  void LeaveShared() {
    __atomic_fetch_sub(Readers(), 1, __ATOMIC_SEQ_CST);
    CompareExchange<uint64_t>(&both, kShared, kFree);
  }

  using Pair [[gnu::may_alias]] = uint64_t;
  alignas(8) Pair both = 0;
};

// New readers hold back while a writer waits, as ours do.
struct ContendedSharedFloor : SharedWords {
  void lock() {
    while (CompareExchange<uint32_t>(State(), kFree, kExclusive) != kFree) {
      __atomic_store_n(&writerWaits, 1, __ATOMIC_RELAXED);
      sched_yield();
    }
    __atomic_store_n(&writerWaits, 0, __ATOMIC_RELAXED);
  }
  void unlock() { CompareExchange<uint32_t>(State(), kExclusive, kFree); }
  void lock_shared() {
    while (__atomic_load_n(&writerWaits, __ATOMIC_RELAXED) != 0) sched_yield();
    __atomic_fetch_add(Readers(), 1, __ATOMIC_SEQ_CST);
    while (CompareExchange<uint32_t>(State(), kFree, kShared) == kExclusive) sched_yield();
  }
  void unlock_shared() { LeaveShared(); }
  uint32_t writerWaits = 0;
};

}  // namespace bench
