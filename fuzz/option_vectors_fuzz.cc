// A command line, compared with a reader on standard strings. Its texts end with a NUL each, as in
// "/proc/PID/cmdline".

#include <algorithm>
#include <cctype>
#include <charconv>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/fuzz.h"
#include "options/internal.h"
#include "zelrt/memory.h"

namespace {

using Texts = std::vector<std::string>;

struct Option {
  const char* name;
  uint32_t type;
  bool isAppend;
  Texts valid;  // empty allows everything
  uint32_t id = 0;
  Texts values = {};  // as the model has it; integers in decimal
};

Option g_options[] = {{"-b", ZEL_OPTION_BOOLEAN, false, {}},
                      {"-bb", ZEL_OPTION_BOOLEAN, false, {}},
                      {"-i", ZEL_OPTION_INTEGER, false, {}},
                      {"-limited", ZEL_OPTION_INTEGER, false, {"16", "8"}},
                      {"-s", ZEL_OPTION_STRING, false, {}},
                      {"-texts", ZEL_OPTION_STRING, true, {}},
                      {"-enum", ZEL_OPTION_STRING_ENUM, false, {"summary", "sum-all", "trace"}},
                      {"-p", ZEL_OPTION_PATH, false, {}},
                      {"-paths", ZEL_OPTION_PATH, true, {}},
                      {"-", ZEL_OPTION_STRING, false, {}}};

void Register(uint32_t parser, Option& option) {
  const auto n = option.name;
  switch (option.type) {
    case ZEL_OPTION_BOOLEAN:
      option.id = __ZelRegisterBooleanOption(parser, n, "", 0, 0, 1);
      break;
    case ZEL_OPTION_INTEGER:
      option.id = __ZelRegisterIntegerOption(parser, n, "", 0, 0, 1);
      for (const std::string& valid : option.valid)
        __ZelSetValidIntegerOptionArgument(parser, option.id, std::stoi(valid));
      break;
    case ZEL_OPTION_STRING:
      option.id = __ZelRegisterStringOption(parser, n, "", nullptr, 0, option.isAppend, 1);
      break;
    case ZEL_OPTION_STRING_ENUM:
      option.id = __ZelRegisterStringEnumOption(parser, n, "", nullptr, 0, 1);
      for (size_t i = 0; i < option.valid.size(); ++i)
        __ZelSetValidStringOptionArgumentWithEnum(parser, option.id, option.valid[i].c_str(),
                                                  static_cast<int32_t>(i));
      break;
    default:
      option.id = __ZelRegisterPathOption(parser, n, "", nullptr, 0, option.isAppend, 1);
  }
}

uint32_t MakeParser() {
  const uint32_t parser = __ZelGetOptionParser("fuzz");
  for (Option& option : g_options) Register(parser, option);
  return parser;
}

// What the library has no call for: neither parsers nor options can be had again and again.
void ForgetValues(zelrt::ZelOption& option) {
  __ZelFree(option.setValue.text);
  for (zelrt::ZelOptionValue* value = option.setValue.next; value != nullptr;) {
    zelrt::ZelOptionValue* const next = value->next;
    __ZelFree(value->text);
    __ZelFree(value);
    value = next;
  }
  option.setValue = {};
  option.valueCount = 0;
  option.lastValue = nullptr;
  option.currentValue = &option.defaultValue;
}

bool IsSpace(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

std::optional<int32_t> IntegerIn(std::string_view text) {
  while (!text.empty() && IsSpace(text[0])) text.remove_prefix(1);
  const bool isNegative = text.starts_with('-');
  if (isNegative || text.starts_with('+')) text.remove_prefix(1);
  const bool isHex = text.starts_with("0x") || text.starts_with("0X");
  if (isHex) text.remove_prefix(2);
  uint64_t value;
  const int base = isHex ? 16 : text.starts_with('0') ? 8 : 10;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value, base);
  if (error != std::errc() || stop != end || value > (isNegative ? 0 : INT32_MAX)) return {};
  return static_cast<int32_t>(value);
}

bool IsValid(const Option& option, const std::string& value) {
  const auto allows = [&](const std::string& valid) {
    return option.type == ZEL_OPTION_INTEGER ? valid == value : valid.starts_with(value);
  };
  return option.valid.empty() || std::ranges::any_of(option.valid, allows);
}

// Fills in the values and returns the result. In front of a value that would end the process, the
// command line is cut off.
uint32_t Model(Texts& line) {
  for (size_t i = 0; i < line.size(); ++i) {
    const bool isNegated = line[i].starts_with("-no-");
    const std::string name = line[i].substr(isNegated ? 3 : 0);
    Option* const option = std::ranges::find(g_options, name, &Option::name);
    if (option == std::end(g_options)) return 0;
    if (option->type == ZEL_OPTION_BOOLEAN) {
      option->values = {isNegated ? "0" : "1"};
      continue;
    }
    if (isNegated || i + 1 == line.size() || line[i + 1].starts_with('-')) return 0;
    std::string value = line[++i];
    if (option->type == ZEL_OPTION_INTEGER) {
      const std::optional<int32_t> integer = IntegerIn(value);
      if (!integer) return 0;
      value = std::to_string(*integer);
    }
    if (!IsValid(*option, value)) {
      line.resize(i - 1);
      return 1;
    }
    const auto areSlashes = [](char a, char b) { return a == '/' && b == '/'; };
    if (option->type == ZEL_OPTION_PATH)
      value.erase(std::unique(value.begin(), value.end(), areSlashes), value.end());
    if (!option->isAppend) option->values.clear();
    option->values.push_back(value);
  }
  return 1;
}

void CompareValues(uint32_t parser, const Option& option) {
  const Texts& values = option.values;
  REQUIRE(__ZelGetOptionNumberOfArguments(parser, option.id) == values.size());
  REQUIRE(__ZelIsOptionSet(parser, option.id) == (values.empty() ? 0 : 1));
  const int32_t integer =
      option.type <= ZEL_OPTION_INTEGER && !values.empty() ? std::stoi(values[0]) : 0;
  if (option.type == ZEL_OPTION_BOOLEAN) {
    REQUIRE(__ZelGetBooleanOptionValue(parser, option.id) == integer);
  } else if (option.type == ZEL_OPTION_INTEGER) {
    REQUIRE(__ZelGetIntegerOptionValue(parser, option.id) == integer);
  } else {
    const zelrt::ZelOptionValue* value = zelrt::g_options[option.id].currentValue;
    for (const std::string& text : values) {
      REQUIRE(value->text == text && value->integer == -1);
      value = value->next;
    }
    REQUIRE(values.empty() || value == nullptr);
  }
  if (option.type == ZEL_OPTION_STRING_ENUM && !values.empty()) {
    const auto begins = [&](const std::string& valid) { return valid.starts_with(values[0]); };
    const auto first = std::ranges::find_if(option.valid, begins) - option.valid.begin();
    REQUIRE(__ZelGetStringOptionEnumValue(parser, option.id) == static_cast<uint32_t>(first));
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const uint32_t parser = MakeParser();
  for (Option& option : g_options) {
    ForgetValues(zelrt::g_options[option.id]);
    option.values.clear();
  }
  Texts line;
  for (const uint8_t* const end = data + size; data != end;) {
    const uint8_t* const nul = std::find(data, end, 0);
    line.emplace_back(data, nul);
    data = nul + (nul != end ? 1 : 0);
  }
  const uint32_t expected = Model(line);

  // Blocks of their own, so that a sanitizer sees their ends.
  std::vector<std::vector<char>> blocks;
  std::vector<const char*> arguments;
  for (const std::string& text : line) {
    blocks.emplace_back(text.c_str(), text.c_str() + text.size() + 1);
    arguments.push_back(blocks.back().data());
  }
  const auto count = static_cast<int32_t>(arguments.size());
  REQUIRE(__ZelParseOptions2(parser, count, arguments.data()) == expected);
  for (size_t i = 0; i < line.size(); ++i) REQUIRE(arguments[i] == line[i]);  // left as they were
  for (const Option& option : g_options) CompareValues(parser, option);
  __ZelLogToolOptionValues(parser);  // joins texts
  return 0;
}
