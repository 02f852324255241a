// The process-wide tables of the library: a fixed number of slots, handed out in order, never taken
// back, filled without a lock by the thread that claimed them.
//
// A slot goes from unclaimed over claimed to published. Only its claimant touches a claimed slot;
// others see it as absent until it is published, whatever the count says by then.
#pragma once

#include <algorithm>
#include <cstdint>

#include "runtime/atomics.h"

namespace zelrt {

inline constexpr uint32_t kNoSlot = 0xFFFFFFFF;

template <typename Entry, uint32_t kCapacity>
class SlotTable {
 public:
  // The first slots may exist from load time on.
  template <typename... Initial>
  explicit constexpr SlotTable(Initial... initial)
      : count_(sizeof...(initial)), entries_{initial...} {
    for (uint32_t slot = 0; slot < sizeof...(initial); ++slot) published_[slot] = 1;
  }

  // A slot nobody else has, to be filled and then published; kNoSlot when the table is full. The
  // count stands too high until a failed claim has taken its step back, so readers bound it.
  uint32_t Claim() {
    const uint32_t slot = AtomicIncrement(count_) - 1;
    if (slot < kCapacity) return slot;
    AtomicDecrement(count_);
    return kNoSlot;
  }

  void Publish(uint32_t slot) { StoreRelease(published_[slot], 1); }

  // Slots claimed so far; some of them may not be published yet.
  uint32_t Count() const { return std::min(LoadRelaxed(count_), kCapacity); }

  // Null when the slot is not there, or not yet.
  const Entry* Find(uint32_t slot) const {
    return slot < kCapacity && LoadAcquire(published_[slot]) != 0 ? &entries_[slot] : nullptr;
  }

  // For the claimant, and for fields with a rule of their own. Not checked.
  Entry& operator[](uint32_t slot) { return entries_[slot]; }

 private:
  uint32_t count_;
  uint32_t published_[kCapacity] = {};
  Entry entries_[kCapacity];
};

}  // namespace zelrt
