// The values of options: valid arguments, setting, reading.

#include <new>

#include "options/internal.h"
#include "zelrt/files.h"
#include "zelrt/memory.h"

namespace zelrt {
namespace {

constexpr uint32_t kNoEnumValue = 0xFFFFFFFF;
constexpr uint32_t kNoFlags = 0xFFFFFFFF;

// Defects of the collector, where a call's own text does not stand at the call. Collectors and
// their tests know these texts as they are.
constexpr char kNoOptionToLimit[] =
    "A valid option id and parser id must be specified to register an option argument for an "
    "option in ZELRT";
constexpr char kNoOptionToAccess[] =
    "A valid option id and parser id must be specified to get the value of the option";
constexpr char kNoOptionToCheck[] =
    "A valid option id and parser id must be specified to check if an option is set";
constexpr char kNoOptionToIterate[] =
    "A valid option id and parser id must be specified to check if an option is sets";

ZelOption& Require(uint32_t parser, uint32_t id, const char* defect) {
  ZelOption* const option = FindOption(parser, id);
  if (option == nullptr) __ZelLogFatalToolDefect("%s", defect);
  return *option;
}

ZelOption& RequireOfType(uint32_t parser, uint32_t id, uint32_t type) {
  ZelOption* const option = FindOption(parser, id);
  if (option == nullptr || option->type != type) __ZelLogFatalToolDefect("%s", kNoOptionToAccess);
  return *option;
}

// For the calls that serve every type of texts.
ZelOption& RequireText(uint32_t parser, uint32_t id) {
  ZelOption* const option = FindOption(parser, id);
  const OptionType* const type = option != nullptr ? FindOptionType(option->type) : nullptr;
  if (type == nullptr || !type->holdsText) __ZelLogFatalToolDefect("%s", kNoOptionToAccess);
  return *option;
}

void AddValidArgument(uint32_t parser, uint32_t id, const char* text, int32_t integer) {
  ZelOption& option = Require(parser, id, kNoOptionToLimit);
  if (option.append != 0) {
    __ZelLogFatalToolDefect(
        "Registering valid arguments for append options is not currenctly supported");
  }
  const OptionType* const type = FindOptionType(option.type);
  if (type == nullptr || !type->canBeLimited)
    __ZelLogFatalToolDefect("Only string and integer option types can register valid arguments");
  void* const block = __ZelMalloc(0, sizeof(ZelOptionValidArgument), 0);
  if (block == nullptr) return;  // the process is ending
  auto** end = &option.validArguments;
  while (*end != nullptr) end = &(*end)->next;
  *end = new (block) ZelOptionValidArgument{integer, __ZelStrdup(text), nullptr};
}

// The first valid argument that begins with the text; entries without text never do.
const ZelOptionValidArgument* FindValidText(const ZelOption& option, const char* text) {
  const ZelOptionValidArgument* valid = option.validArguments;
  while (valid != nullptr && (valid->text == nullptr || !BeginsWith(valid->text, text)))
    valid = valid->next;
  return valid;
}

const ZelOptionValidArgument* FindValidInteger(const ZelOption& option, int32_t integer) {
  const ZelOptionValidArgument* valid = option.validArguments;
  while (valid != nullptr && valid->integer != integer) valid = valid->next;
  return valid;
}

bool IsValid(const ZelOption& option, const OptionType& type, const char* text, int32_t integer) {
  if (option.validArguments == nullptr) return true;
  if (!type.holdsText) return FindValidInteger(option, integer) != nullptr;
  return text != nullptr && FindValidText(option, text) != nullptr;
}

void StoreFirst(ZelOption& option, int32_t integer, char* text) {
  __ZelFree(option.setValue.text);
  option.setValue = {integer, text, nullptr};
  option.lastValue = &option.setValue;
  option.currentValue = &option.setValue;
  option.valueCount = 1;
}

void StoreFurther(ZelOption& option, char* text) {
  void* const block = __ZelMalloc(0, sizeof(ZelOptionValue), 0);
  if (block == nullptr) return;  // the process is ending
  option.lastValue->next = new (block) ZelOptionValue{kNoInteger, text, nullptr};
  option.lastValue = option.lastValue->next;
  ++option.valueCount;
}

void StoreText(ZelOption& option, const OptionType& type, const char* text) {
  // Copied before the old text goes: it may be the same.
  char* const copy = __ZelStrdup(text);
  if (copy == nullptr) return;  // the process is ending
  if (type.normalise != nullptr) type.normalise(copy);
  if (option.append != 0 && option.valueCount != 0) {
    StoreFurther(option, copy);
  } else {
    StoreFirst(option, kNoInteger, copy);
  }
}

uint32_t SetInteger(ZelOption& option, int32_t value) {
  SetOptionValue(option, *FindOptionType(option.type), nullptr, value);
  return 1;
}

uint32_t SetText(ZelOption& option, const char* text) {
  SetOptionValue(option, *FindOptionType(option.type), text, kNoInteger);
  return 1;
}

int32_t ReadInteger(const ZelOption& option) {
  if (option.currentValue == nullptr)
    __ZelLogFatalToolDefect("Option %s is not initialized correctly", option.name);
  return option.currentValue->integer;
}

const char* ReadText(const ZelOption& option, uint32_t index) {
  if (index == 0 || (option.valueCount != 0 && index > option.valueCount)) {
    __ZelLogInternal(ZELLOG_SEVERITY_ERROR, ZELLOG_MSG_INTERNAL, 0,
                     reinterpret_cast<uint64_t>("Option %s does not have an argument #%d"),
                     option.name, index);
    return nullptr;
  }
  const ZelOptionValue* value = option.currentValue;
  for (; value != nullptr && index > 1; --index) value = value->next;
  return value != nullptr ? value->text : nullptr;
}

}  // namespace

void SetOptionValue(ZelOption& option, const OptionType& type, const char* text, int32_t integer) {
  if (option.currentValue == nullptr)
    __ZelLogFatalToolDefect("Option %s is not a valid option", option.name);
  if (!IsValid(option, type, text, integer)) {
    __ZelLogFatalToolDefect("Invalid argument [%s, %d] used to set Option %s",
                            text != nullptr ? text : "\"\"", integer, option.name);
  }
  if (!type.holdsText) {
    StoreFirst(option, integer, nullptr);
  } else if (text != nullptr) {
    StoreText(option, type, text);
  } else {
    __ZelLogFatalToolDefect("Null string used to set string option");
  }
  ZEL_ASSERT(OptionIsConsistent(option));
}

bool OptionIsConsistent(const ZelOption& option) {
  if (option.valueCount == 0) {
    return option.currentValue == &option.defaultValue && option.lastValue == nullptr &&
           option.setValue.text == nullptr && option.setValue.next == nullptr;
  }
  const ZelOptionValue* last = &option.setValue;
  uint32_t count = 1;
  for (; last->next != nullptr; last = last->next) ++count;
  return option.currentValue == &option.setValue && option.lastValue == last &&
         option.valueCount == count && (count == 1 || option.append != 0);
}

}  // namespace zelrt

using namespace zelrt;

uint32_t __ZelSetValidIntegerOptionArgument(uint32_t parser, uint32_t option, int32_t value) {
  AddValidArgument(parser, option, nullptr, value);
  return 1;
}

uint32_t __ZelSetValidStringOptionArgument(uint32_t parser, uint32_t option, const char* text) {
  AddValidArgument(parser, option, text, kNoInteger);
  return 1;
}

uint32_t __ZelSetValidStringOptionArgumentWithEnum(uint32_t parser, uint32_t option,
                                                   const char* text, int32_t enumValue) {
  AddValidArgument(parser, option, text, enumValue);
  return 1;
}

uint32_t __ZelSetBooleanOption(uint32_t parser, uint32_t option, int32_t value) {
  return SetInteger(RequireOfType(parser, option, ZEL_OPTION_BOOLEAN), value);
}

uint32_t __ZelSetIntegerOption(uint32_t parser, uint32_t option, int32_t value) {
  return SetInteger(RequireOfType(parser, option, ZEL_OPTION_INTEGER), value);
}

uint32_t __ZelSetStringOption(uint32_t parser, uint32_t option, const char* text) {
  return SetText(RequireText(parser, option), text);
}

uint32_t __ZelSetPathOption(uint32_t parser, uint32_t option, const char* text) {
  return SetText(RequireOfType(parser, option, ZEL_OPTION_PATH), text);
}

uint32_t __ZelIsOptionSet(uint32_t parser, uint32_t option) {
  const ZelOption& found = Require(parser, option, kNoOptionToCheck);
  return found.currentValue == &found.setValue ? 1 : 0;
}

int32_t __ZelGetBooleanOptionValue(uint32_t parser, uint32_t option) {
  return ReadInteger(RequireOfType(parser, option, ZEL_OPTION_BOOLEAN));
}

int32_t __ZelGetIntegerOptionValue(uint32_t parser, uint32_t option) {
  return ReadInteger(RequireOfType(parser, option, ZEL_OPTION_INTEGER));
}

const char* __ZelGetStringOptionValue(uint32_t parser, uint32_t option) {
  return ReadText(RequireText(parser, option), 1);
}

const char* __ZelGetStringOptionArgumentValue(uint32_t parser, uint32_t option, uint32_t index) {
  return ReadText(RequireText(parser, option), index);
}

const char* __ZelGetPathOptionValue(uint32_t parser, uint32_t option) {
  return ReadText(RequireOfType(parser, option, ZEL_OPTION_PATH), 1);
}

const char* __ZelGetPathOptionArgumentValue(uint32_t parser, uint32_t option, uint32_t index) {
  return ReadText(RequireOfType(parser, option, ZEL_OPTION_PATH), index);
}

uint32_t __ZelGetStringOptionEnumValue(uint32_t parser, uint32_t option) {
  const ZelOption& found = RequireOfType(parser, option, ZEL_OPTION_STRING_ENUM);
  const char* const text = ReadText(found, 1);
  if (text == nullptr) return kNoEnumValue;
  const ZelOptionValidArgument* const valid = FindValidText(found, text);
  return valid != nullptr ? static_cast<uint32_t>(valid->integer) : kNoEnumValue;
}

uint32_t __ZelGetOptionFlags(uint32_t parser, uint32_t option) {
  const ZelOption* const found = FindOption(parser, option);
  if (found != nullptr) return found->flags;
  __ZelLogInternal(
      ZELLOG_SEVERITY_ERROR, ZELLOG_MSG_INTERNAL, 0,
      reinterpret_cast<uint64_t>("Invalid option parser id or option id used to get option flags"));
  return kNoFlags;
}

const char* __ZelGetOptionName(uint32_t parser, uint32_t option) {
  const ZelOption* const found = FindOption(parser, option);
  return found != nullptr ? found->name : nullptr;
}

uint32_t __ZelGetOptionNumberOfArguments(uint32_t, uint32_t option) {
  const ZelOption* const found = g_options.Find(option);
  return found != nullptr ? found->valueCount : 0;
}

uint32_t __ZelProcessAppendOptionValues(uint32_t parser, uint32_t option,
                                        ZelOptionValueCallback callback, void* context) {
  const ZelOption& found = Require(parser, option, kNoOptionToIterate);
  if (found.append == 0)
    __ZelLogFatalToolDefect("A iterator can be applied only to string and path append options.");
  uint32_t result = 0;
  const ZelOptionValue* value = found.valueCount != 0 ? found.currentValue : nullptr;
  for (; value != nullptr; value = value->next) result = callback(value->text, context);
  return result;
}
