// The calls that were under way when the program allocated.
#pragma once

#include <cstddef>
#include <cstdint>

namespace heapscope {

// Where the program called: the address to return to, and the frame of the function that was
// called.
struct Caller {
  const void* returnAddress;
  const void* frame;
};

enum class StackMode : uint8_t {
  kUnwind,        // by the unwind tables, which all code of a distribution has
  kFramePointer,  // by the chain of frame pointers
  kCaller,        // the immediate caller alone
};

inline constexpr uint32_t kMaxDepth = 64;

// Return addresses, innermost first.
struct CallPath {
  uint32_t count;
  uintptr_t frames[kMaxDepth];
};

// Set once, at the start.
void SetUpCallPaths(StackMode mode, uint32_t depth);

// Allocates nothing, takes no lock; but a thread's first capture by frame pointers reads the
// process's mappings. There is always the immediate caller.
void CaptureCallPath(const Caller& caller, CallPath* path);

}  // namespace heapscope
