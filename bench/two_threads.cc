#include "bench/two_threads.h"

#include <sched.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace bench {
namespace {

// Rounds are counted; each of these says how far somebody has come.
std::atomic<uint32_t> g_called{0};   // the second thread is called to a round
std::atomic<uint32_t> g_arrived{0};  // it is awake
std::atomic<uint32_t> g_started{0};  // both are to begin
std::atomic<uint32_t> g_ended{0};    // the second thread is done
const std::function<void(int)>* g_work = nullptr;

// Gives each of the two threads a processor of its own, as far as there are two: it is contention
// that is to be measured, not whether the scheduler came to move a thread before the round was
// over.
class Pinned {
 public:
  explicit Pinned(int thread) {
    sched_getaffinity(0, sizeof before_, &before_);
    int left = thread % CPU_COUNT(&before_);
    int processor = 0;
    while (!CPU_ISSET(processor, &before_) || left-- > 0) ++processor;
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(processor, &one);
    sched_setaffinity(0, sizeof one, &one);
  }
  ~Pinned() { sched_setaffinity(0, sizeof before_, &before_); }
  Pinned(const Pinned&) = delete;
  Pinned& operator=(const Pinned&) = delete;

 private:
  cpu_set_t before_;
};

void SpinUntil(const std::atomic<uint32_t>& word, uint32_t round) {
  while (word.load(std::memory_order_acquire) != round) sched_yield();
}

void ServeRounds() {
  for (uint32_t round = 1;; ++round) {
    g_called.wait(round - 1);
    const Pinned pinned(1);
    g_arrived.store(round, std::memory_order_release);
    SpinUntil(g_started, round);
    (*g_work)(1);
    g_ended.store(round, std::memory_order_release);
  }
}

}  // namespace

void StartSecondThread() { std::thread(ServeRounds).detach(); }

double RunOnBothThreads(const std::function<void(int)>& work) {
  using Clock = std::chrono::steady_clock;
  const Pinned pinned(0);
  const uint32_t round = g_called.load() + 1;
  g_work = &work;
  g_called.store(round);
  g_called.notify_one();
  SpinUntil(g_arrived, round);
  const Clock::time_point start = Clock::now();
  g_started.store(round, std::memory_order_release);
  work(0);
  SpinUntil(g_ended, round);
  return std::chrono::duration<double>(Clock::now() - start).count();
}

}  // namespace bench
