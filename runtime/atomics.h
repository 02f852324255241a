// Every atomic access of the library.
//
// A read-modify-write is a full barrier. Loads and stores are relaxed unless their name says more;
// on x86-64 all of them are plain moves, so they cost nothing and tell the compiler, and a race
// detector, that another thread may look at the word.
#pragma once

#include <atomic>
#include <bit>
#include <cstdint>
#include <type_traits>

namespace zelrt {

template <typename T>
inline T LoadRelaxed(const T& word) {
  return std::atomic_ref<T>(const_cast<T&>(word)).load(std::memory_order_relaxed);
}

template <typename T>
inline T LoadAcquire(const T& word) {
  return std::atomic_ref<T>(const_cast<T&>(word)).load(std::memory_order_acquire);
}

template <typename T>
inline void StoreRelaxed(T& word, std::type_identity_t<T> value) {
  std::atomic_ref<T>(word).store(value, std::memory_order_relaxed);
}

template <typename T>
inline void StoreRelease(T& word, std::type_identity_t<T> value) {
  std::atomic_ref<T>(word).store(value, std::memory_order_release);
}

// Stores `exchange` when the word equals `comparand`; returns what it found. For integers and
// pointers of 32 and 64 bits.
template <typename T>
inline T AtomicCompareExchange(T& word, std::type_identity_t<T> exchange,
                               std::type_identity_t<T> comparand) {
  std::atomic_ref<T>(word).compare_exchange_strong(comparand, exchange);
  return comparand;
}

// The same for two adjacent 32-bit words as one, the first in the low half. It may overlap accesses
// to the words one by one, which is why it goes around the type system.
inline uint64_t AtomicCompareExchangePair(uint32_t* firstWord, uint64_t exchange,
                                          uint64_t comparand) {
  using Pair [[gnu::may_alias]] = uint64_t;
  __atomic_compare_exchange_n(reinterpret_cast<Pair*>(firstWord), &comparand, exchange, false,
                              __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
  return comparand;
}

// The three below return as their exported twins do: the new, the new, and the old value.
inline uint32_t AtomicIncrement(uint32_t& word) { return std::atomic_ref(word).fetch_add(1) + 1; }
inline uint32_t AtomicDecrement(uint32_t& word) { return std::atomic_ref(word).fetch_sub(1) - 1; }
inline uint32_t AtomicExchangeAdd(uint32_t& word, uint32_t addend) {
  return std::atomic_ref(word).fetch_add(addend);
}

// Bit scans; 0 for 0, although nobody here asks that.
inline uint32_t LowestOne(uint32_t value) {
  return value == 0 ? 0 : static_cast<uint32_t>(std::countr_zero(value));
}
inline uint32_t HighestOne(uint64_t value) {
  return static_cast<uint32_t>(std::bit_width(value | 1)) - 1;
}

}  // namespace zelrt
