// DWARF location expressions, as far as annotations use them: a number, a register, or a register
// and an offset, behind their length.
//
//   01 31            DW_OP_lit1
//   01 55            DW_OP_reg5
//   02 77 78         DW_OP_breg7 -8
//   81 00 55         DW_OP_reg5, the length padded
#pragma once

#include <cstdint>

#include "zelrt/annotations.h"

namespace zelrt {

inline constexpr uint8_t kFirstLiteral = 0x30;  // DW_OP_lit0, followed by 31 more, ...
inline constexpr uint8_t kFirstRegister = 0x50;
inline constexpr uint8_t kFirstBaseRegister = 0x70;
inline constexpr uint8_t kOperandsPerKind = 32;  // ... as each of the kinds is
inline constexpr uint8_t kEndOfKinds = kFirstBaseRegister + kOperandsPerKind;
inline constexpr uint64_t kUnknownRegister = 0xFFFFFFFF;

enum class Evaluation {
  kDone,
  kUnsupported,  // the argument is the number 0
  kOutside,      // does not lie inside the bytes
};

// expressions.cc: expressions of other lengths than 1, and those whose length is padded.
Evaluation EvaluateLongExpression(const uint8_t* bytes, uint64_t available, uint64_t& padding,
                                  ZelZCAArgument& argument);

inline bool IsBaseRegister(uint8_t operation) {
  return operation >= kFirstBaseRegister && operation < kEndOfKinds;
}

// An expression that is a single operation.
inline void EvaluateOperation(uint8_t operation, ZelZCAArgument& argument) {
  static_assert(kFirstRegister - kFirstLiteral == kOperandsPerKind &&
                kFirstBaseRegister - kFirstRegister == kOperandsPerKind);
  if (operation < kFirstLiteral || operation >= kEndOfKinds) [[unlikely]] {
    argument = {kUnknownRegister, 1, 0};
    return;
  }
  const uint32_t operand = (operation - uint32_t{kFirstLiteral}) % kOperandsPerKind;
  argument = {operand, operation >= kFirstRegister ? 1u : 0u, 0};
}

// Evaluates an expression at the beginning of `available` bytes, of which it reads no more than it
// consists of. Several expressions may share bytes; `padding` is what the caller grants for all of
// them together to pad their lengths with, so that the time stays bounded.
inline Evaluation EvaluateExpression(const uint8_t* bytes, uint64_t available, uint64_t& padding,
                                     ZelZCAArgument& argument) {
  if (available > 2) [[likely]] {
    const uint8_t operation = bytes[1];
    if (bytes[0] == 1) [[likely]] {
      EvaluateOperation(operation, argument);
      return Evaluation::kDone;
    }
    // A register and an offset of one byte.
    if (bytes[0] == 2 && IsBaseRegister(operation) && bytes[2] < 0x80) {
      argument = {operation - uint64_t{kFirstBaseRegister}, 1, (bytes[2] ^ 0x40) - 0x40};
      return Evaluation::kDone;
    }
  }
  return EvaluateLongExpression(bytes, available, padding, argument);
}

}  // namespace zelrt
