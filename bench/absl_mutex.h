// absl::Mutex with the names that the standard library's mutexes have.
#pragma once

#ifdef ZELRT_BENCH_HAS_ABSL
#include <absl/synchronization/mutex.h>

namespace bench {

struct AbslMutex {
  void lock() { mutex.Lock(); }
  void unlock() { mutex.Unlock(); }
  void lock_shared() { mutex.ReaderLock(); }
  void unlock_shared() { mutex.ReaderUnlock(); }
  absl::Mutex mutex;
};

}  // namespace bench
#endif
