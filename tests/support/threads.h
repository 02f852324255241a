// Threads that do the same at the same moment.
#pragma once

#include <atomic>
#include <thread>
#include <vector>

namespace zeltest {

// Runs body(0), body(1), ... on a thread each. They watch for each other, so that all of them begin
// within moments: a race for first use is over before a sleeping thread has woken up.
template <typename Body>
void OnEachThread(int count, Body body) {
  std::atomic<int> ready = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < count; ++i) {
    threads.emplace_back([&ready, &body, count, i] {
      ++ready;
      for (int reading = 1; ready < count; ++reading)
        if (reading % 10'000 == 0) std::this_thread::yield();
      body(i);
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace zeltest
