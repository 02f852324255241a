// The types of options, a row each.

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iterator>

#include "options/internal.h"
#include "zelrt/files.h"

namespace zelrt {
namespace {

// Decimal, 0x10 or 010; nothing behind it, nothing below 0.
bool ReadInteger(const char* argument, int32_t* integer) {
  char* end;
  errno = 0;
  const long value = std::strtol(argument, &end, 0);
  if (errno != 0 || end == argument || *end != '\0') return false;
  if (value < 0 || value > INT32_MAX) return false;
  *integer = static_cast<int32_t>(value);
  return true;
}

const char* ShowBoolean(const ZelOptionValue& value, IntegerText&) {
  return value.integer != 0 ? "true" : "false";
}

const char* ShowInteger(const ZelOptionValue& value, IntegerText& buffer) {
  std::snprintf(buffer, sizeof buffer, "%i", value.integer);
  return buffer;
}

const char* ShowText(const ZelOptionValue& value, IntegerText&) {
  return value.text != nullptr ? value.text : "none";
}

constexpr OptionType kTypes[] = {
    // id, isSwitch, holdsText, canBeLimited, readInteger, normalise, show
    {ZEL_OPTION_BOOLEAN, true, false, false, nullptr, nullptr, ShowBoolean},
    {ZEL_OPTION_INTEGER, false, false, true, ReadInteger, nullptr, ShowInteger},
    {ZEL_OPTION_STRING, false, true, true, nullptr, nullptr, ShowText},
    {ZEL_OPTION_STRING_ENUM, false, true, true, nullptr, nullptr, ShowText},
    {ZEL_OPTION_PATH, false, true, false, nullptr, __ZelSanitizePath, ShowText},
};

// The id is the index; what is read from the command line is a text, an integer or nothing.
constexpr bool RowsAreRight() {
  for (uint32_t id = 0; id < std::size(kTypes); ++id) {
    const OptionType& type = kTypes[id];
    if (type.id != id || type.isSwitch + type.holdsText + (type.readInteger != nullptr) != 1)
      return false;
  }
  return true;
}
static_assert(RowsAreRight());

}  // namespace

const OptionType* FindOptionType(uint32_t id) {
  return id < std::size(kTypes) ? &kTypes[id] : nullptr;
}

}  // namespace zelrt
