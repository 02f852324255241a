// The text that switches debug channels.

#include <string>

#include "fuzz/fuzz.h"
#include "fuzz/guarded_bytes.h"
#include "zelrt/log.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const zelfuzz::GuardedBytes bytes(text.c_str(), size + 1);
  REQUIRE(__ZelParseDbgDumpOption("0x0") == 1);
  const uint32_t result = __ZelParseDbgDumpOption(bytes.Text());
  REQUIRE(result <= 1);
  REQUIRE(text == bytes.Text() || size > text.find('\0'));  // left as it was
  uint32_t enabled = 0;
  for (uint32_t channel = 0; channel < 64; ++channel) enabled += __ZelIsDbgDumpEnabled(channel);
  REQUIRE(__ZelIsDbgDumpEnabled(0) == 0);
  if (text.empty() || text[0] == '\0') REQUIRE(result == 1 && enabled == 0);
  return 0;
}
