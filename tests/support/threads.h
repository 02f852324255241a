// Threads that do the same at the same moment.
#pragma once

#include <barrier>
#include <thread>
#include <vector>

namespace zeltest {

// Runs body(0), body(1), ... on a thread each. All threads exist before the first body begins.
template <typename Body>
void OnEachThread(int count, Body body) {
  std::barrier start(count);
  std::vector<std::thread> threads;
  for (int i = 0; i < count; ++i) {
    threads.emplace_back([&start, &body, i] {
      start.arrive_and_wait();
      body(i);
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace zeltest
