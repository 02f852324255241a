#include "tests/support/fake_backing.h"

#include <sys/mman.h>

#include <cstdlib>
#include <mutex>
#include <unordered_map>
#include <utility>

#include "zelrt/memory.h"

namespace zeltest::backing {
namespace {

constexpr size_t kMapFrom = 64 << 20;

struct State {
  std::mutex mutex;
  std::vector<size_t> requests;
  std::unordered_map<void*, size_t> live;
  std::function<bool(size_t, size_t)> refuse;
  size_t askedSinceRefuse = 0;
  std::function<void()> action;
};

State& TheState() {
  static auto& state = *new State;
  return state;
}

bool IsRefused(State& state, size_t size) {
  return state.refuse && state.refuse(size, ++state.askedSinceRefuse);
}

}  // namespace

void Install() { __ZelInitializeSubAllocator(Allocate, Free); }

std::vector<size_t> Requests() {
  const std::lock_guard guard(TheState().mutex);
  return TheState().requests;
}
size_t RequestCount() { return Requests().size(); }

size_t LiveBlocks() {
  const std::lock_guard guard(TheState().mutex);
  return TheState().live.size();
}

void RefuseIf(std::function<bool(size_t, size_t)> refuse) {
  const std::lock_guard guard(TheState().mutex);
  TheState().refuse = std::move(refuse);
  TheState().askedSinceRefuse = 0;
}

void OnRequest(std::function<void()> action) { TheState().action = std::move(action); }

void* Allocate(size_t size) {
  State& state = TheState();
  if (state.action) state.action();
  const std::lock_guard guard(state.mutex);
  state.requests.push_back(size);
  if (IsRefused(state, size)) return nullptr;
  void* block = nullptr;
  if (size < kMapFrom) {
    block = std::malloc(size);
  } else {
    block = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE,
                 -1, 0);
    if (block == MAP_FAILED) block = nullptr;
  }
  if (block != nullptr) state.live.emplace(block, size);
  return block;
}

void Free(void* block) {
  State& state = TheState();
  size_t size;
  {
    const std::lock_guard guard(state.mutex);
    const auto found = state.live.find(block);
    if (found == state.live.end()) std::abort();  // never handed out, or given back twice
    size = found->second;
    state.live.erase(found);
  }
  if (size < kMapFrom) {
    std::free(block);
  } else {
    munmap(block, size);
  }
}

}  // namespace zeltest::backing
