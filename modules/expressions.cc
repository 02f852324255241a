// Expressions that are not a single operation behind a plain length.

#include "modules/expressions.h"

namespace zelrt {
namespace {

constexpr uint32_t kDigitBits = 7;  // of a LEB128 number's byte; the eighth tells of another byte
constexpr uint8_t kDigitMask = 0x7F;
constexpr uint8_t kMoreFollow = 0x80;
constexpr uint8_t kSign = 0x40;  // in the last byte
constexpr uint32_t kLengthBits = 63;
constexpr uint32_t kOffsetBits = 32;

struct Bytes {
  const uint8_t* next;
  uint64_t left;

  uint8_t Take() {
    --left;
    return *next++;
  }
};

// Reads an unsigned number, however many bytes it is spread over. False when it does not end inside
// the bytes, has more bits than a length can have, or takes up more padding than is left.
bool ReadLength(Bytes& bytes, uint64_t& padding, uint64_t& length) {
  length = 0;
  for (uint64_t shift = 0; bytes.left > 0; shift += kDigitBits) {
    const uint8_t byte = bytes.Take();
    const uint64_t digit = byte & kDigitMask;
    if (shift < kLengthBits) {
      length |= digit << shift;
    } else if (digit != 0 || padding == 0) {
      return false;
    } else {
      --padding;
    }
    if ((byte & kMoreFollow) == 0) return true;
  }
  return false;
}

// Reads a signed number of 32 bits. Bits beyond them make no difference, nor whether they are all
// there. False when the bytes end before the number does.
bool ReadOffset(Bytes& bytes, int32_t& offset) {
  uint32_t value = 0;
  for (uint32_t shift = 0; shift < kOffsetBits; shift += kDigitBits) {
    if (bytes.left == 0) return false;
    const uint8_t byte = bytes.Take();
    value |= static_cast<uint32_t>(byte & kDigitMask) << shift;
    if ((byte & kMoreFollow) != 0) continue;
    const uint32_t bits = shift + kDigitBits;
    if (bits < kOffsetBits && (byte & kSign) != 0) value |= ~uint32_t{0} << bits;
    break;
  }
  offset = static_cast<int32_t>(value);
  return true;
}

}  // namespace

Evaluation EvaluateLongExpression(const uint8_t* bytes, uint64_t available, uint64_t& padding,
                                  ZelZCAArgument& argument) {
  argument = {0, 0, 0};
  Bytes expression = {bytes, available};
  uint64_t length;
  if (!ReadLength(expression, padding, length) || length > expression.left)
    return Evaluation::kOutside;
  expression.left = length;
  if (length == 0) return Evaluation::kUnsupported;

  const uint8_t operation = expression.Take();
  if (length == 1) {
    EvaluateOperation(operation, argument);
    return Evaluation::kDone;
  }
  int32_t offset;
  const bool isBaseRegister = operation >= kFirstBaseRegister && operation < kEndOfKinds;
  if (!isBaseRegister || !ReadOffset(expression, offset)) return Evaluation::kUnsupported;
  argument = {static_cast<uint64_t>(operation - kFirstBaseRegister), 1, offset};
  return Evaluation::kDone;
}

}  // namespace zelrt
