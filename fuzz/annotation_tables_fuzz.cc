// A section of annotation tables.

#include <cstring>

#include "fuzz/fuzz.h"
#include "fuzz/guarded_bytes.h"
#include "zelrt/annotations.h"

namespace {

constexpr size_t kSmallestItem = 16;

struct Section {
  const zelfuzz::GuardedBytes* bytes;
  size_t records;
};

void LookAt(const ZelZCARecord* record, void* context) {
  auto* const section = static_cast<Section*>(context);
  ++section->records;
  REQUIRE(section->bytes->Holds(record->name));
  REQUIRE(section->bytes->Holds(record->name + std::strlen(record->name)));
  REQUIRE(section->bytes->Holds(record->expression));
  REQUIRE(record->argumentCount == 1);
  const ZelZCAArgument& argument = record->arguments[0];
  REQUIRE(argument.value < 32 || (argument.value == 0xFFFFFFFF && argument.isRegister == 1));
  REQUIRE(argument.isRegister == 1 || (argument.isRegister == 0 && argument.offset == 0));
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const zelfuzz::GuardedBytes bytes(data, size);
  Section section = {&bytes, 0};
  __ZelZCAParseAndProcessRecords(0x400000, bytes.Data(), size, LookAt, &section);
  REQUIRE(section.records <= size / kSmallestItem);
  return 0;
}
