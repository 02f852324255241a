// Call stacks: the walk along frame pointers, and its lines in the log.

#include "zelrt/call_stacks.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

#include "log/internal.h"
#include "runtime/internal.h"
#include "zelrt/memory.h"
#include "zelrt/modules.h"

namespace zelrt {
namespace {

constexpr size_t kLineSize = 1024;
constexpr const char* kOwnLabel = "tavtool";

// What a frame pointer points to. It may point anywhere in the stack, so nothing is assumed of its
// alignment, nor of what the compiler knows to lie there.
struct [[gnu::packed, gnu::may_alias]] FrameRecord {
  uint64_t callersFramePointer;
  uint64_t returnAddress;
};

// Where frame records may begin.
class FrameBounds {
 public:
  FrameBounds(uint64_t stackBase, uint64_t stackLimit)
      : first_(std::max<uint64_t>(stackLimit, 1)),
        count_(stackBase >= sizeof(FrameRecord) && stackBase - sizeof(FrameRecord) >= first_
                   ? stackBase - sizeof(FrameRecord) - first_ + 1
                   : 0) {}
  bool Hold(uint64_t framePointer) const { return framePointer - first_ < count_; }

 private:
  const uint64_t first_;  // never 0, which ends a chain
  const uint64_t count_;
};

// A text that is formatted again and again, of any length.
class Line {
 public:
  ~Line() { __ZelFreeInternal(text_); }

  // The text, which lasts until the next one; null for want of memory.
  [[gnu::format(printf, 2, 3)]] const char* Format(const char* format, ...) {
    while (text_ != nullptr) {
      va_list arguments;
      va_start(arguments, format);
      const int length = std::vsnprintf(text_, size_, format, arguments);
      va_end(arguments);
      if (length < 0) return nullptr;
      const size_t needed = static_cast<size_t>(length) + 1;
      if (needed <= size_) break;
      __ZelFreeInternal(text_);
      size_ = 2 * needed;
      text_ = Allocate(size_);
    }
    return text_;
  }

 private:
  static char* Allocate(size_t size) { return static_cast<char*>(__ZelMallocInternal(size)); }

  size_t size_ = kLineSize;
  char* text_ = Allocate(kLineSize);
};

const char* FormatFrame(Line& line, uint64_t address, const char* symbol) {
  auto* const pointer = reinterpret_cast<void*>(address);
  if (symbol != nullptr) return line.Format("=> %p: %s", pointer, symbol);
  const ZelModuleRecord* const module = __ZelFindModuleByAddress(address);
  if (module == nullptr) return line.Format("=> %p", pointer);
  const char* const name = module->name != nullptr ? module->name : "(null)";
  return line.Format("=> %s!%p (%p)", name, reinterpret_cast<void*>(address - module->start),
                     pointer);
}

}  // namespace
}  // namespace zelrt

using namespace zelrt;

// Frame records belong to no variable: a sanitizer knows nothing of them. In its gnu:: spelling,
// clang ignores the attribute.
__attribute__((no_sanitize("address", "thread"))) uint16_t __ZelCaptureStackBackTrace(
    uint64_t stackBase, uint64_t stackLimit, uint64_t framePointer, uint64_t firstAddress,
    uint64_t /*stackPointer*/, uint64_t* frames) {
  uint16_t count = 0;
  if (firstAddress != 0) frames[count++] = firstAddress;
  const FrameBounds bounds(stackBase, stackLimit);
  while (count < ZEL_MAX_STACK_FRAMES && bounds.Hold(framePointer)) {
    const auto* const record = reinterpret_cast<const FrameRecord*>(framePointer);
    frames[count++] = record->returnAddress;
    framePointer = record->callersFramePointer;
  }
  return count;
}

// Never inline: the first frame is the caller's, whoever that is.
[[gnu::noinline]] uint16_t __ZelCaptureCurrentStackBackTrace(uint64_t* frames) {
  const auto* const record = static_cast<const FrameRecord*>(__builtin_frame_address(0));
  const auto stackPointer = reinterpret_cast<uint64_t>(record);
  uint64_t stackBase;
  const uint64_t size = __ZelGetThreadStackBaseAndSize(stackPointer, &stackBase);
  return __ZelCaptureStackBackTrace(stackBase, stackBase - size, record->callersFramePointer,
                                    record->returnAddress, stackPointer, frames);
}

char** __ZelGetStackBackTraceSymbols(const uint64_t* /*frames*/, uint16_t /*count*/) {
  return nullptr;
}

uint64_t __ZelGetImageOffsetFromPreferredAddress() { return 0; }

void __ZelLogCallstack(const char* label, const uint64_t* frames, uint16_t count) {
  int32_t (*const log)(const char*, ...) =
      HasStarted() ? __ZelLogCommentInternal : __ZelLogToConsole;
  if (label == nullptr) label = "(null)";
  Line line;
  if (count == 0 || frames == nullptr) {
    log("Unable to unwind %s call stack.", label);
    return;
  }
  char** const symbols = __ZelGetStackBackTraceSymbols(frames, count);
  log("Frames of %s call stack:", label);
  for (uint16_t i = 0; i < count; ++i) {
    const char* const text =
        FormatFrame(line, frames[i], symbols != nullptr ? symbols[i] : nullptr);
    if (text != nullptr) {
      log("%s", text);
    } else {
      log("=> %p", reinterpret_cast<void*>(frames[i]));
    }
  }
}

void __ZelLogCurrentCallstack() {
  uint64_t frames[ZEL_MAX_STACK_FRAMES];
  __ZelLogCallstack(kOwnLabel, frames, __ZelCaptureCurrentStackBackTrace(frames));
}
