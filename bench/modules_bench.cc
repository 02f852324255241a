// The module map and call stacks: which module holds an address, and a walk along frame pointers.

#include <execinfo.h>

#include <algorithm>
#include <array>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "bench/suite.h"
#include "zelrt/call_stacks.h"
#include "zelrt/modules.h"

namespace bench {
namespace {

constexpr uint64_t kSpacing = 0x200000;
constexpr uint64_t kModuleSize = 0x100000;
constexpr char kMap[] = "std::map";

uint64_t StartOf(uint32_t module) { return (module + 1) * kSpacing; }

// The modules in the order of their loading.
std::vector<uint32_t> LoadOrder(uint32_t modules) {
  std::vector<uint32_t> order(modules);
  for (uint32_t i = 0; i < modules; ++i) order[i] = i;
  std::shuffle(order.begin(), order.end(), std::mt19937(1));
  return order;
}

// Addresses all over the modules, each of them in one.
class Addresses {
 public:
  explicit Addresses(uint32_t modules) {
    std::mt19937 random(2);
    for (uint64_t& address : addresses_) {
      const auto module = static_cast<uint32_t>(random() % modules);
      address = StartOf(module) + 1 + random() % (kModuleSize - 1);
    }
  }
  uint64_t Next() { return addresses_[next_++ % addresses_.size()]; }

 private:
  std::array<uint64_t, 1024> addresses_;
  size_t next_ = 0;
};

Run FindInOurs(uint32_t modules) {
  return [modules](benchmark::State& state) {
    for (const uint32_t module : LoadOrder(modules))
      __ZelLoadModule("/usr/lib/libmodule.so", StartOf(module), StartOf(module) + kModuleSize);
    Addresses addresses(modules);
    for (auto _ : state) {
      const ZelModuleRecord* const found = __ZelFindModuleByAddress(addresses.Next());
      benchmark::DoNotOptimize(found->start);
    }
    for (uint32_t module = 0; module < modules; ++module) __ZelUnloadModule(StartOf(module));
  };
}

Run FindInMap(uint32_t modules) {
  return [modules](benchmark::State& state) {
    struct Module {
      std::string name;
      uint64_t end;
    };
    std::map<uint64_t, Module> map;
    for (const uint32_t module : LoadOrder(modules))
      map[StartOf(module)] = {"/usr/lib/libmodule.so", StartOf(module) + kModuleSize};
    Addresses addresses(modules);
    for (auto _ : state) {
      const uint64_t address = addresses.Next();
      const auto above = map.lower_bound(address);
      const bool isHeld = above != map.begin() && address < std::prev(above)->second.end;
      const uint64_t start = isHeld ? std::prev(above)->first : 0;
      benchmark::DoNotOptimize(&start);
    }
  };
}

// Frame records as calls with a few words of variables leave them.
class Stack {
 public:
  Stack() {
    for (size_t i = 0; i < kFrames; ++i) {
      const bool isLast = i + 1 == kFrames;
      words_[i * kWords] = isLast ? 0 : reinterpret_cast<uint64_t>(&words_[(i + 1) * kWords]);
      words_[i * kWords + 1] = 0x401000 + i;
    }
  }
  const uint64_t* Limit() const { return words_.data(); }
  const uint64_t* Base() const { return words_.data() + words_.size(); }

 private:
  static constexpr size_t kFrames = ZEL_MAX_STACK_FRAMES;
  static constexpr size_t kWords = 12;
  std::array<uint64_t, kFrames* kWords> words_ = {};
};

void WalkWithOurs(benchmark::State& state) {
  const Stack stack;
  uint64_t frames[ZEL_MAX_STACK_FRAMES];
  const auto base = reinterpret_cast<uint64_t>(stack.Base());
  const auto limit = reinterpret_cast<uint64_t>(stack.Limit());
  for (auto _ : state) {
    const uint16_t count = __ZelCaptureStackBackTrace(base, limit, limit, 0, limit, frames);
    if (count != ZEL_MAX_STACK_FRAMES) std::abort();
    benchmark::ClobberMemory();
  }
}

// Looks at nothing but the end of the chain.
void WalkBare(benchmark::State& state) {
  const Stack stack;
  uint64_t frames[ZEL_MAX_STACK_FRAMES];
  benchmark::DoNotOptimize(&frames);
  for (auto _ : state) {
    uint64_t* next = frames;
    for (const uint64_t* record = stack.Limit(); record != nullptr;
         record = reinterpret_cast<const uint64_t*>(record[0]))
      *next++ = record[1];
    if (next != std::end(frames)) std::abort();
    benchmark::ClobberMemory();
  }
}

// The calling thread's stack at some depth, where frame records are real ones.
template <typename Capture>
[[gnu::noinline]] uint64_t Descend(int depth, Capture& capture) {
  if (depth == 0) return capture();
  const uint64_t count = Descend(depth - 1, capture);
  benchmark::DoNotOptimize(&count);
  return count;
}

template <typename Capture>
void CaptureDeepDown(benchmark::State& state, Capture capture) {
  constexpr int kDepth = ZEL_MAX_STACK_FRAMES;
  auto loop = [&] {
    uint64_t count = 0;
    for (auto _ : state) count = capture();
    return count;
  };
  if (Descend(kDepth, loop) != ZEL_MAX_STACK_FRAMES) state.SkipWithError("frames are missing");
}

void CaptureWithOurs(benchmark::State& state) {
  CaptureDeepDown(state, [] {
    uint64_t frames[ZEL_MAX_STACK_FRAMES];
    return uint64_t{__ZelCaptureCurrentStackBackTrace(frames)};
  });
}

void CaptureWithGlibc(benchmark::State& state) {
  CaptureDeepDown(state, [] {
    void* frames[ZEL_MAX_STACK_FRAMES];
    return static_cast<uint64_t>(backtrace(frames, ZEL_MAX_STACK_FRAMES));
  });
}

Work Find(uint32_t modules) {
  return {.name = "module of an address, among " + std::to_string(modules),
          .contenders = {{kOurs, Role::kOurs, FindInOurs(modules)},
                         {kMap, Role::kPeer, FindInMap(modules)}},
          .goals = {}};
}

Work Walk() {
  return {.name = "walk of 25 frames",
          .contenders = {{kOurs, Role::kOurs, WalkWithOurs}, {kFloor, Role::kBound, WalkBare}},
          .goals = {AtMost(1.5, kFloor)}};
}

Work Capture() {
  return {.name = "current stack of 25 frames",
          .contenders = {{kOurs, Role::kOurs, CaptureWithOurs},
                         {kGlibc, Role::kPeer, CaptureWithGlibc}},
          .goals = {}};
}

}  // namespace

Family Modules() { return {"modules", "ns", {Find(10), Find(100), Find(1000), Walk(), Capture()}}; }

}  // namespace bench
