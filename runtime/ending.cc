// Who ends the process.

#include "runtime/ending.h"

#include <time.h>

#include "runtime/atomics.h"
#include "runtime/locks.h"
#include "zelrt/runtime.h"

namespace zelrt {
namespace {

constinit uint64_t g_ender = kNoOwner;

// The ending thread may be writing results from the exit hook. It is given time for that, but a
// thread that waited for ever might hold a lock which it needs.
void GiveTimeToEnd() {
  constexpr time_t kPatienceSeconds = 30;
  timespec start;
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &start);
  do {
    __ZelYield();
    clock_gettime(CLOCK_MONOTONIC, &now);
  } while (now.tv_sec - start.tv_sec < kPatienceSeconds);
}

}  // namespace

EndClaim ClaimEndOfProcess(uint64_t self) {
  const uint64_t ender = AtomicCompareExchange(g_ender, self, kNoOwner);
  if (ender == kNoOwner) return EndClaim::kFirst;
  if (ender == self) return EndClaim::kAgain;
  GiveTimeToEnd();
  return EndClaim::kOther;
}

bool IsEndingProcess(uint64_t self) { return LoadRelaxed(g_ender) == self; }

}  // namespace zelrt
