// Queues: a value in and one out on one thread, and from thread to thread.
//
// The model is the queue that ours has to be, inline and with nothing around it: the two-lock list
// with a node for each value, which comes from the model of the allocator. The peers keep no order
// of locks and no categories; boost's and moodycamel's keep their memory, and the latter keeps the
// order of one producer's values only.

#include <sched.h>

#include <cstdint>
#include <deque>
#include <mutex>

#if __has_include(<boost/lockfree/queue.hpp>)
#include <boost/lockfree/queue.hpp>
#define ZELRT_BENCH_HAS_LOCKFREE
#endif
#if __has_include(<concurrentqueue/concurrentqueue.h>)
#include <concurrentqueue/concurrentqueue.h>
#define ZELRT_BENCH_HAS_CONCURRENTQUEUE
#endif

#include "bench/allocator_model.h"
#include "bench/floor.h"
#include "bench/suite.h"
#include "bench/two_threads.h"
#include "zelrt/memory.h"
#include "zelrt/queue.h"

namespace bench {
namespace {

// The contenders. Take returns 0 when there is nothing.

template <uint32_t kFlags>
class OurQueue {
 public:
  OurQueue() = default;
  ~OurQueue() {
    __ZelDestroyQueue(queue_);
    __ZelFree(queue_);
  }
  OurQueue(const OurQueue&) = delete;
  OurQueue& operator=(const OurQueue&) = delete;

  void Put(uintptr_t value) { __ZelEnqueue(queue_, value); }
  uintptr_t Take() { return __ZelDequeue(queue_); }

 private:
  ZelQueue* const queue_ = __ZelCreateQueue(kFlags, 0);
};

template <bool kLocking>
class QueueModel {
 public:
  QueueModel() = default;
  ~QueueModel() {
    while (Take() != 0) {
    }
  }
  QueueModel(const QueueModel&) = delete;
  QueueModel& operator=(const QueueModel&) = delete;

  void Put(uintptr_t value) {
    auto* const node = static_cast<Node*>(allocator_.Allocate(0, sizeof(Node)));
    *node = {value, nullptr};
    Lock(tailLock_);
    const bool meetsHead = kLocking && tail_ == &dummy_;
    if (meetsHead && CompareExchange(&headLock_.state, 0u, 1u) != 0) {
      Unlock(tailLock_);
      Lock(headLock_);
      Lock(tailLock_);
    }
    __atomic_store_n(&tail_->next, node, __ATOMIC_RELEASE);
    tail_ = node;
    if (meetsHead) Unlock(headLock_);
    Unlock(tailLock_);
  }

  uintptr_t Take() {
    Lock(headLock_);
    Node* const first = dummy_.next;
    const uintptr_t value = first != nullptr ? Remove(first) : 0;
    Unlock(headLock_);
    return value;
  }

 private:
  struct Node {
    uintptr_t value;
    Node* next;
  };
  struct SpinLock {
    uint64_t owner;
    uint32_t state;
    uint32_t recursionCount;
    uint32_t spinCount;
  };

  uintptr_t Remove(Node* first) {
    Node* next = __atomic_load_n(&first->next, __ATOMIC_ACQUIRE);
    if (next == nullptr) {
      Lock(tailLock_);
      next = first->next;
      if (next == nullptr) tail_ = &dummy_;
      dummy_.next = next;
      Unlock(tailLock_);
    } else {
      dummy_.next = next;
    }
    const uintptr_t value = first->value;
    allocator_.Free(first);
    return value;
  }

  static void Lock(SpinLock& lock) {
    if constexpr (!kLocking) return;
    while (CompareExchange(&lock.state, 0u, 1u) != 0) sched_yield();
    __atomic_store_n(&lock.owner, 1, __ATOMIC_RELAXED);
    lock.recursionCount = 1;
  }
  static void Unlock(SpinLock& lock) {
    if constexpr (!kLocking) return;
    lock.recursionCount = 0;
    __atomic_store_n(&lock.owner, 0, __ATOMIC_RELAXED);
    CompareExchange(&lock.state, 1u, 0u);
  }

  AllocatorModel allocator_;
  Node* tail_ = &dummy_;
  Node dummy_ = {};
  SpinLock headLock_ = {};
  SpinLock tailLock_ = {};
};

struct NoMutex {
  void lock() {}
  void unlock() {}
};

template <typename Mutex>
class Deque {
 public:
  void Put(uintptr_t value) {
    const std::lock_guard guard(mutex_);
    values_.push_back(value);
  }
  uintptr_t Take() {
    const std::lock_guard guard(mutex_);
    if (values_.empty()) return 0;
    const uintptr_t value = values_.front();
    values_.pop_front();
    return value;
  }

 private:
  [[no_unique_address]] Mutex mutex_;
  std::deque<uintptr_t> values_;
};

#ifdef ZELRT_BENCH_HAS_LOCKFREE
class LockfreeQueue {
 public:
  void Put(uintptr_t value) { values_.push(value); }
  uintptr_t Take() {
    uintptr_t value = 0;
    values_.pop(value);
    return value;
  }

 private:
  boost::lockfree::queue<uintptr_t> values_{1024};
};
#endif

#ifdef ZELRT_BENCH_HAS_CONCURRENTQUEUE
class ConcurrentQueue {
 public:
  void Put(uintptr_t value) { values_.enqueue(value); }
  uintptr_t Take() {
    uintptr_t value = 0;
    values_.try_dequeue(value);
    return value;
  }

 private:
  moodycamel::ConcurrentQueue<uintptr_t> values_;
};
#endif

// The works.

template <typename Queue>
void Pair(benchmark::State& state, uint32_t queued) {
  Queue queue;
  for (uint32_t i = 1; i <= queued; ++i) queue.Put(i);
  for (auto _ : state) {
    queue.Put(1);
    const uintptr_t value = queue.Take();
    benchmark::DoNotOptimize(value);
  }
}

constexpr uint32_t kValuesPerRound = 40'000;

// With values queued before the round, the consumer need not wait for the producer.
template <typename Queue>
void HandOver(benchmark::State& state, uint32_t queued) {
  Queue queue;
  for (uint32_t i = 1; i <= queued; ++i) queue.Put(i);
  while (state.KeepRunningBatch(kValuesPerRound)) {
    state.SetIterationTime(RunOnBothThreads([&](int thread) {
      for (uint32_t left = kValuesPerRound; left > 0; --left) {
        if (thread == 0) {
          queue.Put(left);
        } else {
          while (queue.Take() == 0) sched_yield();
        }
      }
    }));
  }
}

constexpr char kDeque[] = "std::deque";
constexpr char kMutexDeque[] = "deque+mutex";
constexpr char kLockfree[] = "boost::lockfree";
constexpr char kConcurrentQueue[] = "moodycamel";

template <typename Lambda>
std::vector<Contender> LockingContenders(Lambda run) {
  const auto of = [run]<typename Queue>() {
    return [run](benchmark::State& state) { run.template operator()<Queue>(state); };
  };
  std::vector<Contender> contenders = {
      {kOurs, Role::kOurs, of.template operator()<OurQueue<ZEL_QUEUE_FLAG_LOCKING>>()},
      {kModel, Role::kBound, of.template operator()<QueueModel<true>>()},
      {kMutexDeque, Role::kPeer, of.template operator()<Deque<std::mutex>>()}};
#ifdef ZELRT_BENCH_HAS_LOCKFREE
  contenders.push_back({kLockfree, Role::kPeer, of.template operator()<LockfreeQueue>()});
#endif
#ifdef ZELRT_BENCH_HAS_CONCURRENTQUEUE
  contenders.push_back({kConcurrentQueue, Role::kPeer, of.template operator()<ConcurrentQueue>()});
#endif
  return contenders;
}

Work PairWithoutLocks() {
  constexpr uint32_t kQueued = 100;
  return {
      .name = "value in and out, no locks, 100 queued",
      .contenders =
          {{kOurs, Role::kOurs, [](benchmark::State& s) { Pair<OurQueue<0>>(s, kQueued); }},
           {kModel, Role::kBound, [](benchmark::State& s) { Pair<QueueModel<false>>(s, kQueued); }},
           {kDeque, Role::kPeer, [](benchmark::State& s) { Pair<Deque<NoMutex>>(s, kQueued); }}},
      .goals = {AtMost(1.25, kModel)}};
}

Work LockingPair(const char* name, uint32_t queued) {
  return {.name = name,
          .contenders =
              LockingContenders([queued]<typename Q>(benchmark::State& s) { Pair<Q>(s, queued); }),
          .goals = {AtMost(1.25, kModel)}};
}

Work FromThreadToThread(const char* name, uint32_t queued) {
  return {.name = name,
          .measure = Measure::kManualTime,
          .contenders = LockingContenders(
              [queued]<typename Q>(benchmark::State& s) { HandOver<Q>(s, queued); }),
          .goals = {AtMost(1.25, kModel)}};
}

}  // namespace

Family Queue() {
  return {"queue",
          "ns",
          {PairWithoutLocks(), LockingPair("value in and out, 100 queued", 100),
           LockingPair("value in and out, empty", 0),
           FromThreadToThread("2 threads, 40,000 queued", kValuesPerRound),
           FromThreadToThread("2 threads, empty at first", 0)}};
}

}  // namespace bench
