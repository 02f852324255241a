// What each thread allocated and freed.
//
// A thread takes a place in the table with its first call, and keeps it: the table shows threads
// that have ended too. When all places are taken, further threads share one.

#include "examples/heapscope/threads.h"

#include "host/host.h"

namespace heapscope {
namespace {

constexpr uint32_t kMaxThreads = 1023;  // beside the shared place, the last one

constinit ThreadCounters g_threads[kMaxThreads + 1] = {};
constinit std::atomic<uint32_t> g_placesAsked{0};

constinit thread_local ThreadCounters* t_counters = nullptr;

[[gnu::noinline]] ThreadCounters& TakePlace() {
  const uint32_t place = g_placesAsked.fetch_add(1, std::memory_order_relaxed);
  t_counters = &g_threads[std::min(place, kMaxThreads)];
  if (place < kMaxThreads) t_counters->TakeFor(static_cast<uint32_t>(zelhost::NativeThreadId()));
  return *t_counters;
}

}  // namespace

ThreadCounters& CallingThread() {
  if (t_counters == nullptr) [[unlikely]]
    return TakePlace();
  return *t_counters;
}

uint32_t ThreadsSeen() { return g_placesAsked.load(std::memory_order_relaxed); }
uint32_t ThreadPlaces() { return std::min(ThreadsSeen(), kMaxThreads + 1); }
ThreadFigures ReadThread(uint32_t place) { return g_threads[place].Read(); }

void ResetThreads() {
  for (uint32_t place = 0; place < ThreadPlaces(); ++place) g_threads[place].Reset();
}

void GiveUpThreadPlaces() {
  for (uint32_t place = 0; place < ThreadPlaces(); ++place) g_threads[place].TakeFor(0);
  g_placesAsked.store(0);
  t_counters = nullptr;
}

}  // namespace heapscope
