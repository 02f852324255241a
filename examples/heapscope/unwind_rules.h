// What the unwind tables say about a call that is under way: where its frame ends, and where the
// caller's frame pointer is.
#pragma once

#include <cstddef>
#include <cstdint>

namespace heapscope {

// How to come from a frame to that of its caller. The return address lies right below the canonical
// frame address (CFA), which is the caller's stack pointer.
struct UnwindRule {
  enum class Kind : uint32_t {
    kUnusual,     // said in a way that is not followed here
    kEndOfStack,  // there is no caller
    kFromRsp,     // CFA = rsp + distance
    kFromRbp,     // CFA = rbp + distance
    kThroughRbp,  // CFA is stored at rbp - distance, the caller's rbp at rbp: a realigned frame
  };
  Kind kind;
  uint32_t distance;  // in bytes, as the next
  uint32_t rbpBelow;  // the caller's rbp is stored that far below the CFA; 0: it is in rbp

  bool operator==(const UnwindRule&) const = default;
};

// What a rule can say, in bytes; frames that are larger are unusual.
inline constexpr uint32_t kMaxCfaDistance = 1u << 20;
inline constexpr uint32_t kMaxRbpBelow = 1u << 16;

// Bytes that may be read.
struct Bytes {
  const uint8_t* start;
  const uint8_t* end;
};

// The rule for the call that returns to the address, by the frame description entry (FDE) of the
// function that it returns into, and the common information entry (CIE) that it refers to. Both lie
// in the table, or the rule is an unusual one; so it is for data that is malformed.
UnwindRule ReadUnwindRule(Bytes table, const uint8_t* entry, uintptr_t function, uintptr_t address);

}  // namespace heapscope
