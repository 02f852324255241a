// For tests of memory that is left behind on purpose.
#pragma once

extern "C" [[gnu::weak]] void __lsan_disable();

namespace zeltest {

// What is allocated from here on is no leak to a leak detector, if there is one.
inline void IgnoreLeaks() {
  if (__lsan_disable != nullptr) __lsan_disable();
}

}  // namespace zeltest
