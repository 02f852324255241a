// The allocator: pairs, batches, large live sets, and two threads.
//
// Every contender goes through the same sequence of sizes, categories and slots, and each block's
// first word is written once.

#include <sched.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <numeric>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "bench/allocators.h"
#include "bench/floor.h"
#include "bench/suite.h"
#include "bench/two_threads.h"

namespace bench {
namespace {

void* Touch(void* block) {
  *static_cast<volatile uint64_t*>(block) = 1;
  return block;
}

// What stands in the way of a floor: the exchanges of two lock pairs.
void FourExchanges(benchmark::State& state) {
  alignas(64) uint32_t word = 0;
  benchmark::DoNotOptimize(&word);
  for (auto _ : state) {
    CompareExchange(&word, 0u, 1u);
    CompareExchange(&word, 1u, 0u);
    CompareExchange(&word, 0u, 1u);
    CompareExchange(&word, 1u, 0u);
  }
}

// The sequence.

struct Step {
  uint32_t slot;  // of the live set; to be taken modulo its size
  uint16_t size;
  uint16_t category;
};

constexpr uint32_t kSteps = 1 << 20;
constexpr uint32_t kMaxMixedSize = 1024;

// Small sizes are the common ones: each doubling from 16 to kMaxMixedSize is equally likely.
const std::vector<Step>& MixedSteps() {
  static const std::vector<Step> steps = [] {
    std::mt19937 random(20'240'229);
    std::uniform_real_distribution<double> exponent(4, 10);
    static_assert(kMaxMixedSize == 1 << 10);
    std::vector<Step> made(kSteps);
    for (Step& step : made) {
      step = {.slot = static_cast<uint32_t>(random()),
              .size = static_cast<uint16_t>(std::exp2(exponent(random))),
              .category = static_cast<uint16_t>(random() % kCategories)};
    }
    return made;
  }();
  return steps;
}

enum class Sizes { kEqual, kMixed };

std::vector<uint16_t> SizesInTurn(Sizes sizes) {
  constexpr uint16_t kEqualSize = 64;
  std::vector<uint16_t> made(kSteps, kEqualSize);
  if (sizes == Sizes::kMixed)
    std::transform(MixedSteps().begin(), MixedSteps().end(), made.begin(),
                   [](const Step& step) { return step.size; });
  return made;
}

constexpr uint32_t kBatch = 1000;

// Orders in which the blocks of a batch are freed; several, lest they be learnt.
const std::vector<uint16_t>& FreeingOrders() {
  static const std::vector<uint16_t> orders = [] {
    std::mt19937 random(4711);
    std::vector<uint16_t> made(64 * kBatch);
    for (auto order = made.begin(); order != made.end(); order += kBatch) {
      std::iota(order, order + kBatch, uint16_t{0});
      std::shuffle(order, order + kBatch, random);
    }
    return made;
  }();
  return orders;
}

// The works, as templates over the contender.

template <typename Allocator>
void Pair(benchmark::State& state, size_t pairSize) {
  Allocator allocator;
  const volatile size_t size = pairSize;  // read anew each time, as sizes are in other works
  for (auto _ : state) {
    void* const block = Touch(allocator.Allocate(0, size));
    benchmark::DoNotOptimize(block);
    allocator.Free(block);
  }
}

template <typename Allocator>
void Batch(benchmark::State& state, Sizes sizes) {
  Allocator allocator;
  const std::vector<uint16_t> sequence = SizesInTurn(sizes);
  const std::vector<uint16_t>& orders = FreeingOrders();
  std::vector<void*> blocks(kBatch);
  auto order = orders.begin();
  while (state.KeepRunningBatch(kBatch)) {
    for (uint32_t i = 0; i < kBatch; ++i) blocks[i] = Touch(allocator.Allocate(0, sequence[i]));
    for (uint32_t i = 0; i < kBatch; ++i) allocator.Free(blocks[order[i]]);
    order += kBatch;
    if (order == orders.end()) order = orders.begin();
  }
}

// Moves the process's heap on by some cache lines, differently each time. Pages that come from it
// lie whole multiples of 64 KiB apart, so their headers share one set of the first-level cache, and
// it is by chance which hot data of a contender shares it with them. Repetitions shall not all have
// the same luck.
class HeapShift {
 public:
  HeapShift() : padding_(std::malloc((turn_++ * 37 % 1024 + 1) * 64)) {
    benchmark::DoNotOptimize(Touch(padding_));
  }
  ~HeapShift() { std::free(padding_); }
  HeapShift(const HeapShift&) = delete;
  HeapShift& operator=(const HeapShift&) = delete;

 private:
  static inline std::atomic<size_t> turn_ = 0;
  void* const padding_;
};

enum class Categories { kOne, kAll };

// A live set, one of whose blocks is replaced at each step.
template <typename Allocator>
class LiveSet {
 public:
  LiveSet(uint32_t count, uint32_t firstStep, Categories categories)
      : step_(firstStep), categoryMask_(categories == Categories::kAll ? ~0u : 0u) {
    for (uint32_t i = 0; i < count; ++i) blocks_.push_back(Allocate(NextStep()));
  }
  ~LiveSet() {
    for (void* block : blocks_) allocator_.Free(block);
  }
  LiveSet(const LiveSet&) = delete;
  LiveSet& operator=(const LiveSet&) = delete;

  void Replace() {
    const Step& step = NextStep();
    void*& block = blocks_[SlotOf(step)];
    allocator_.Free(block);
    block = Allocate(step);
  }

 private:
  const Step& NextStep() { return steps_[step_++ % kSteps]; }
  // The slot's share of 32 bits, scaled to the set; a division would take longer than a malloc.
  size_t SlotOf(const Step& step) const { return uint64_t{step.slot} * blocks_.size() >> 32; }
  void* Allocate(const Step& step) {
    return Touch(allocator_.Allocate(step.category & categoryMask_, step.size));
  }

  const HeapShift heapShift_;
  Allocator allocator_;
  const Step* const steps_ = MixedSteps().data();
  uint32_t step_;
  const uint32_t categoryMask_;
  std::vector<void*> blocks_;
};

template <typename Allocator>
void ReplaceAmongMany(benchmark::State& state, Categories categories) {
  LiveSet<Allocator> live(100'000, 0, categories);
  for (auto _ : state) live.Replace();
}

constexpr uint32_t kStepsPerRound = 40'000;

template <typename Allocator>
void Churn(benchmark::State& state) {
  std::optional<LiveSet<Allocator>> live[2];
  RunOnBothThreads([&](int thread) {
    live[thread].emplace(10'000, static_cast<uint32_t>(thread) * (kSteps / 2), Categories::kOne);
  });
  while (state.KeepRunningBatch(kStepsPerRound)) {
    state.SetIterationTime(RunOnBothThreads([&](int thread) {
      for (uint32_t left = kStepsPerRound / 2; left > 0; --left) live[thread]->Replace();
    }));
  }
  RunOnBothThreads([&](int thread) { live[thread].reset(); });
}

// A ring of blocks from one thread to the other. Each side looks at the other's index only when it
// has used up what it last saw there.
class Ring {
 public:
  void Put(void* block) {
    while (written_ - readSeen_ == kSlots) {
      readSeen_ = read_.load(std::memory_order_acquire);
      if (written_ - readSeen_ == kSlots) sched_yield();
    }
    slots_[written_ % kSlots] = block;
    writtenShown_.store(++written_, std::memory_order_release);
  }

  void* Get() {
    while (taken_ == writtenSeen_) {
      writtenSeen_ = writtenShown_.load(std::memory_order_acquire);
      if (taken_ == writtenSeen_) sched_yield();
    }
    void* const block = slots_[taken_ % kSlots];
    read_.store(++taken_, std::memory_order_release);
    return block;
  }

 private:
  static constexpr uint32_t kSlots = 1024;

  void* slots_[kSlots];
  alignas(64) uint32_t written_ = 0;  // the writer's own
  uint32_t readSeen_ = 0;
  alignas(64) uint32_t taken_ = 0;  // the reader's own
  uint32_t writtenSeen_ = 0;
  alignas(64) std::atomic<uint32_t> writtenShown_ = 0;
  alignas(64) std::atomic<uint32_t> read_ = 0;
};

template <typename Allocator>
void HandOver(benchmark::State& state, Sizes sizes) {
  std::optional<Allocator> allocators[2];
  RunOnBothThreads([&](int thread) { allocators[thread].emplace(); });
  const std::vector<uint16_t> sequence = SizesInTurn(sizes);
  uint32_t step = 0;
  Ring ring;
  while (state.KeepRunningBatch(kStepsPerRound)) {
    state.SetIterationTime(RunOnBothThreads([&](int thread) {
      if (thread == 0) {
        for (uint32_t left = kStepsPerRound; left > 0; --left)
          ring.Put(Touch(allocators[0]->Allocate(0, sequence[step++ % kSteps])));
      } else {
        for (uint32_t left = kStepsPerRound; left > 0; --left) allocators[1]->Free(ring.Get());
      }
    }));
  }
  RunOnBothThreads([&](int thread) { allocators[thread].reset(); });
}

// The works, as data.

constexpr char kMimallocHeaps[] = "mi heaps";

// `run` is a lambda that takes the contender as its template argument.
template <typename Allocator, typename Lambda>
Run For(Lambda run) {
  if constexpr (requires { Allocator::IsThere(); }) {
    if (!Allocator::IsThere()) return nullptr;
  }
  return [run](benchmark::State& state) { run.template operator()<Allocator>(state); };
}

template <typename Lambda>
std::vector<Contender> Contenders(Lambda run) {
  return {{kOurs, Role::kOurs, For<OurAllocator>(run)},
          {kModel, Role::kBound, For<AllocatorModel>(run)},
          {kGlibc, Role::kPeer, For<Glibc>(run)},
          {kJemalloc.name, Role::kPeer, For<Jemalloc>(run)},
          {kMimalloc.name, Role::kPeer, For<Mimalloc>(run)},
          {kMimallocHeaps, Role::kPeer, For<MimallocHeaps>(run)},
          {kTcmalloc.name, Role::kPeer, For<Tcmalloc>(run)}};
}

Work PairOf(size_t size) {
  Work work = {
      .name = "malloc and free of " + std::to_string(size) + " bytes",
      .contenders = Contenders([size]<typename A>(benchmark::State& s) { Pair<A>(s, size); }),
      .goals = {AtMost(1.5, kFloor)}};
  work.contenders.push_back({kFloor, Role::kBound, FourExchanges});
  return work;
}

Work BatchOf(const char* name, Sizes sizes) {
  return {
      .name = name,
      .contenders = Contenders([sizes]<typename A>(benchmark::State& s) { Batch<A>(s, sizes); }),
      .goals = {AtMost(1.1, kModel), AheadOf(kGlibc)}};
}

Work ManyLive(const char* name, Categories categories) {
  return {.name = name,
          .contenders = Contenders([categories]<typename A>(benchmark::State& s) {
            ReplaceAmongMany<A>(s, categories);
          }),
          .goals = {AtMost(1.0, kModel)}};
}

Work ChurnOfTwo() {
  return {.name = "mixed, 2 threads with 10,000 live each",
          .measure = Measure::kManualTime,
          .contenders = Contenders([]<typename A>(benchmark::State& s) { Churn<A>(s); }),
          .goals = {AtMost(1.0, kModel)}};
}

Work FromThreadToThread(const char* name, Sizes sizes) {
  return {
      .name = name,
      .measure = Measure::kManualTime,
      .contenders = Contenders([sizes]<typename A>(benchmark::State& s) { HandOver<A>(s, sizes); }),
      .goals = {AtMost(1.5, kBestPeer), AheadOf(kGlibc)}};
}

}  // namespace

Family Allocator() {
  return {"allocator",
          "ns",
          {PairOf(16), PairOf(64), PairOf(512),
           BatchOf("1,000 of 64 bytes, freed at random", Sizes::kEqual),
           BatchOf("1,000 mixed, freed at random", Sizes::kMixed),
           ManyLive("mixed, 100,000 live", Categories::kOne),
           ManyLive("mixed, 100,000 live in 8 categories", Categories::kAll), ChurnOfTwo(),
           FromThreadToThread("64 bytes, one thread allocates, one frees", Sizes::kEqual),
           FromThreadToThread("mixed, one thread allocates, one frees", Sizes::kMixed)}};
}

}  // namespace bench
