// The calls that were under way when the program allocated.

#include "examples/heapscope/call_path.h"

#include <algorithm>

#include "examples/heapscope/unwinding.h"
#include "zelrt/call_stacks.h"
#include "zelrt/modules.h"

namespace heapscope {
namespace {

constinit StackMode g_mode = StackMode::kCaller;
constinit uint32_t g_depth = 1;

// Frame pointers ----------------------------------------------------------------------------------

// The mapping that a thread was last seen to have its stack in.
struct StackBounds {
  uintptr_t low;
  uintptr_t high;
  uint32_t changes;
};
constinit thread_local StackBounds t_bounds = {0, 0, 0};

// A thread that changes between stacks of its own must not read the mappings again and again. That
// a stack has grown counts for nothing.
constexpr uint32_t kMaxChanges = 16;

bool FindStack(uintptr_t frame) {
  StackBounds& bounds = t_bounds;
  if (frame >= bounds.low && frame < bounds.high) [[likely]]
    return true;
  if (bounds.changes == kMaxChanges) return false;
  uint64_t high;
  const uint64_t size = __ZelGetThreadStackBaseAndSize(frame, &high);
  if (size == 0) return false;
  if (high != bounds.high) ++bounds.changes;
  bounds.low = high - size;
  bounds.high = high;
  return true;
}

void FollowFramePointers(const Caller& caller, CallPath* path) {
  const auto frame = reinterpret_cast<uintptr_t>(caller.frame);
  if (!FindStack(frame)) return;
  static_assert(ZEL_MAX_STACK_FRAMES <= kMaxDepth);
  const uint16_t count =
      __ZelCaptureStackBackTrace(t_bounds.high, t_bounds.low, frame, 0, frame, path->frames);
  path->count = std::min<uint32_t>(count, g_depth);
}

}  // namespace

void SetUpCallPaths(StackMode mode, uint32_t depth) {
  g_mode = mode;
  g_depth = std::clamp<uint32_t>(depth, 1, kMaxDepth);
  // The unwinder's first steps set things up, and may allocate.
  CallPath path = {};
  if (mode == StackMode::kUnwind)
    UnwindByRuntime({__builtin_return_address(0), nullptr}, g_depth, &path);
}

void CaptureCallPath(const Caller& caller, CallPath* path) {
  path->count = 0;
  if (g_mode == StackMode::kUnwind) {
    if (!UnwindByRules(caller, g_depth, path)) UnwindByRuntime(caller, g_depth, path);
  } else if (g_mode == StackMode::kFramePointer) {
    FollowFramePointers(caller, path);
  }
  if (path->count == 0) {
    path->count = 1;
    path->frames[0] = reinterpret_cast<uintptr_t>(caller.returnAddress);
  }
}

}  // namespace heapscope
