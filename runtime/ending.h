// Who ends the process.
#pragma once

#include <cstdint>

namespace zelrt {

enum class EndClaim {
  kFirst,  // the caller reports and ends the process
  kAgain,  // the caller is doing so already: this is a fault on the way
  kOther,  // another thread is, and has had half a minute to do it
};

// Asked where a fatal condition is met. At most one thread of a process gets kFirst.
EndClaim ClaimEndOfProcess(uint64_t self);

// Whether this thread got it.
bool IsEndingProcess(uint64_t self);

}  // namespace zelrt
