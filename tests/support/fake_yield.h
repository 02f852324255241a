// Takes the place of sched_yield in a test program, so that the library's pause of millions of
// yields passes in a moment, and a test can act in the middle of one.
#pragma once

namespace zeltest {

// Called at each yield of any thread, until replaced; null for nothing.
void OnYield(void (*action)());

}  // namespace zeltest
