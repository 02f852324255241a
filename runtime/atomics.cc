// The exported atomic operations: the internal ones under their public names.

#include "runtime/atomics.h"

#include "zelrt/atomics.h"

namespace {

// Callers may declare their words volatile; std::atomic_ref takes none, and adds what it promises.
template <typename T>
T& Word(volatile T* word) {
  return *const_cast<T*>(word);
}

}  // namespace

using namespace zelrt;

uint32_t __ZelInterlockedCompareExchangeInternal(volatile uint32_t* word, uint32_t exchange,
                                                 uint32_t comparand) {
  return AtomicCompareExchange(Word(word), exchange, comparand);
}
uint32_t __ZelInterlockedCompareExchange(volatile uint32_t* word, uint32_t exchange,
                                         uint32_t comparand) {
  return __ZelInterlockedCompareExchangeInternal(word, exchange, comparand);
}

uint64_t __ZelInterlockedCompareExchange64Internal(volatile uint64_t* word, uint64_t exchange,
                                                   uint64_t comparand) {
  return AtomicCompareExchange(Word(word), exchange, comparand);
}
uint64_t __ZelInterlockedCompareExchange64(volatile uint64_t* word, uint64_t exchange,
                                           uint64_t comparand) {
  return __ZelInterlockedCompareExchange64Internal(word, exchange, comparand);
}

uint32_t __ZelInterlockedIncrementInternal(volatile uint32_t* word) {
  return AtomicIncrement(Word(word));
}
uint32_t __ZelInterlockedIncrement(volatile uint32_t* word) {
  return __ZelInterlockedIncrementInternal(word);
}

uint32_t __ZelInterlockedDecrementInternal(volatile uint32_t* word) {
  return AtomicDecrement(Word(word));
}
uint32_t __ZelInterlockedDecrement(volatile uint32_t* word) {
  return __ZelInterlockedDecrementInternal(word);
}

uint32_t __ZelInterlockedExchangeAddInternal(volatile uint32_t* word, uint32_t addend) {
  return AtomicExchangeAdd(Word(word), addend);
}
uint32_t __ZelInterlockedExchangeAdd(volatile uint32_t* word, uint32_t addend) {
  return __ZelInterlockedExchangeAddInternal(word, addend);
}

uint32_t __ZelGetLeastSignificantOneIndexInternal(uint32_t value) { return LowestOne(value); }
uint32_t __ZelGetLeastSignificantOneIndex(uint32_t value) {
  return __ZelGetLeastSignificantOneIndexInternal(value);
}
uint32_t __ZelGetMostSignificantOneIndexInternal(uint32_t value) { return HighestOne(value); }
uint32_t __ZelGetMostSignificantOneIndexLong(uint64_t value) { return HighestOne(value); }
