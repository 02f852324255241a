// A definition file, loaded twice and delivered.

#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "fuzz/fuzz.h"
#include "zelrt/annotations.h"

namespace {

void LookAt(const ZelZCARecord* record, void* context) {
  REQUIRE(record->name != nullptr && record->name[0] != '\0');
  REQUIRE(record->argumentCount == 2 && record->expression == nullptr && record->probe == 0);
  REQUIRE(record->address + record->arguments[1].value <= 0xFFFFFFFF);
  ++*static_cast<size_t*>(context);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const int file = memfd_create("definitions", MFD_CLOEXEC);
  REQUIRE(file >= 0 && write(file, data, size) == static_cast<ssize_t>(size));
  const std::string path = "/proc/self/fd/" + std::to_string(file);
  size_t once = 0, twice = 0;
  REQUIRE(__ZelZCALoadExternalDefinitions(path.c_str()) == 1);
  __ZelZCAProcessExternalRecords("m", 0, LookAt, &once);
  REQUIRE(__ZelZCALoadExternalDefinitions(path.c_str()) == 1);
  __ZelZCAProcessExternalRecords("m", 0, LookAt, &twice);
  REQUIRE(twice == 2 * once);
  constexpr size_t kSmallestDefinition = sizeof "n \"m\" 1 2 3" - 1;
  REQUIRE(once <= size / kSmallestDefinition);
  __ZelZCACleanupDefinitions();
  close(file);
  return 0;
}
