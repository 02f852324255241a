// A second thread for work that takes two. It sleeps in the kernel between its turns, and is there
// from the start: a C library that knows of one thread only may leave out lock prefixes, which
// would flatter the peers.
#pragma once

#include <functional>

namespace bench {

void StartSecondThread();

// Calls work(0) on the calling thread and work(1) on the second one, starting both at the same
// moment. Returns the seconds from there until both have returned.
double RunOnBothThreads(const std::function<void(int thread)>& work);

}  // namespace bench
