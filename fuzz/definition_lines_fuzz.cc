// A line of a definition file, compared with a splitter on standard strings.

#include <cctype>
#include <string>
#include <vector>

#include "fuzz/fuzz.h"
#include "fuzz/guarded_bytes.h"
#include "zelrt/annotations.h"
#include "zelrt/memory.h"

namespace {

bool IsSpace(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

std::vector<std::string> FieldsOf(std::string line) {
  while (!line.empty() && IsSpace(line.back())) line.pop_back();
  std::vector<std::string> fields = {""};
  bool isQuoted = false;
  for (const char c : line) {
    if (c == '"') isQuoted = !isQuoted;
    if (isQuoted || !IsSpace(c)) {
      fields.back() += c;
    } else if (!fields.back().empty()) {
      fields.emplace_back();
    }
  }
  if (fields.back().empty()) fields.pop_back();
  return fields;
}

std::string WithoutRunsOfSlashes(const std::string& path) {
  std::string result;
  for (const char c : path) {
    if (c != '/' || result.empty() || result.back() != '/') result += c;
  }
  return result;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string line(reinterpret_cast<const char*>(data), size);
  const zelfuzz::GuardedBytes bytes(line.c_str(), size + 1);
  ZelZCADefinition definition = {};
  const int result = __ZelZCAParseDefinition(bytes.Text(), &definition);

  const std::vector<std::string> fields = FieldsOf(line.c_str());
  REQUIRE(result == (fields.size() == 5 ? 1 : 0));
  REQUIRE((definition.name != nullptr) == !fields.empty());
  if (definition.name != nullptr) REQUIRE(definition.name == fields[0]);
  const bool hasModule = fields.size() > 1 && fields[1].size() > 1;
  REQUIRE((definition.module != nullptr) == hasModule);
  if (hasModule)
    REQUIRE(definition.module == WithoutRunsOfSlashes(fields[1].substr(1, fields[1].size() - 2)));
  REQUIRE(definition.argumentCount == (fields.size() > 3 ? 2u : 0u));
  REQUIRE((definition.arguments != nullptr) == (fields.size() > 3));

  __ZelFree(definition.name);
  __ZelFree(definition.module);
  __ZelFree(definition.arguments);
  return 0;
}
