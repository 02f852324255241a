// A single expression, and what follows it; compared with a decoder that takes its time.

#include <string>

#include "fuzz/fuzz.h"
#include "fuzz/guarded_bytes.h"
#include "modules/expressions.h"

namespace {

using zelrt::Evaluation;

// The bytes of the LEB128 number at the beginning; 0 when it does not end.
size_t NumberSize(const std::string& bytes) {
  for (size_t i = 0; i < bytes.size(); ++i) {
    if ((bytes[i] & 0x80) == 0) return i + 1;
  }
  return 0;
}

// Its value up to a million, which is longer than any input.
uint64_t UnsignedNumber(const std::string& number) {
  uint64_t value = 0;
  for (size_t i = number.size(); i > 0; --i) {
    value = value * 128 + (number[i - 1] & 0x7F);
    if (value > 1'000'000) return 1'000'000;
  }
  return value;
}

int32_t SignedNumber(const std::string& number) {
  int64_t value = 0;
  for (size_t i = 0; i < number.size() && i < 5; ++i) value += (number[i] & 0x7FL) << 7 * i;
  if (number.size() < 5 && (number.back() & 0x40) != 0) value -= 1L << 7 * number.size();
  return static_cast<int32_t>(value);
}

Evaluation Model(const std::string& bytes, ZelZCAArgument& argument) {
  argument = {0, 0, 0};
  const size_t prefix = NumberSize(bytes);
  if (prefix == 0) return Evaluation::kOutside;
  const uint64_t length = UnsignedNumber(bytes.substr(0, prefix));
  if (length > bytes.size() - prefix) return Evaluation::kOutside;
  const std::string expression = bytes.substr(prefix, length);
  if (expression.empty()) return Evaluation::kUnsupported;
  const int operation = static_cast<unsigned char>(expression[0]);
  if (length == 1) {
    argument = {0xFFFFFFFF, 1, 0};
    for (int i = 0; i < 32; ++i) {
      if (operation == 0x30 + i) argument = {static_cast<uint64_t>(i), 0, 0};
      if (operation == 0x50 + i || operation == 0x70 + i)
        argument = {static_cast<uint64_t>(i), 1, 0};
    }
    return Evaluation::kDone;
  }
  const std::string rest = expression.substr(1);
  const size_t operand = NumberSize(rest);
  if (operation < 0x70 || operation > 0x8F || (operand == 0 && rest.size() < 5))
    return Evaluation::kUnsupported;
  argument = {static_cast<uint64_t>(operation - 0x70), 1,
              SignedNumber(operand == 0 ? rest : rest.substr(0, operand))};
  return Evaluation::kDone;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size >= 1'000'000) return 0;
  const zelfuzz::GuardedBytes bytes(data, size);
  uint64_t padding = size;
  ZelZCAArgument argument, expected;
  const Evaluation evaluation = zelrt::EvaluateExpression(bytes.Data(), size, padding, argument);
  REQUIRE(evaluation == Model(std::string(bytes.Text(), size), expected));
  if (evaluation == Evaluation::kOutside) return 0;
  REQUIRE(argument.value == expected.value);
  REQUIRE(argument.isRegister == expected.isRegister);
  REQUIRE(argument.offset == expected.offset);
  return 0;
}
