// What the files of options/ lend each other.
//
// Parsers and options are claimed and published as in every process-wide table. From then on no
// lock is taken: callers see to it that nothing else happens to a parser's options while they are
// set or released. Only an option's parser is read by others, who look for their own.
#pragma once

#include <cstdint>
#include <cstring>

#include "runtime/internal.h"
#include "runtime/slot_table.h"
#include "zelrt/log.h"
#include "zelrt/options.h"

namespace zelrt {

inline constexpr uint32_t kMaxParsers = 16;
inline constexpr uint32_t kMaxOptions = 256;
inline constexpr uint32_t kNoParser = 0xFFFFFFFF;  // of a released option
inline constexpr int32_t kNoInteger = -1;          // beside a text

struct ZelOptionValue {
  int32_t integer;
  char* text;            // owned
  ZelOptionValue* next;  // of an append option
};

struct ZelOptionValidArgument {
  int32_t integer;
  char* text;  // owned; null where the integer is what counts
  ZelOptionValidArgument* next;
};

// An option, on two cache lines. All zero until it is registered.
struct alignas(64) ZelOption {
  char* name;         // owned, begins with '-'
  char* description;  // owned
  uint32_t type;
  uint32_t append;  // 1 or 0
  ZelOptionValue defaultValue;
  ZelOptionValue setValue;  // the first one of an append option; the others hang on it
  uint32_t valueCount;
  ZelOptionValue* lastValue;     // the end of the chain of set values; null while there are none
  ZelOptionValue* currentValue;  // the default, then the set value; null when released
  uint32_t flags;
  uint32_t parser;
  ZelOptionValidArgument* validArguments;  // in the order of registration; null allows everything
  uint32_t showInHelp;
};
static_assert(sizeof(ZelOption) == 128);

// types.cc ----------------------------------------------------------------------------------------

using IntegerText = char[16];

// What sets one type of options apart from another: a new type is a new row there.
struct OptionType {
  uint32_t id;
  bool isSwitch;      // takes no value on the command line, where "-no-" negates it
  bool holdsText;     // else an integer
  bool canBeLimited;  // to valid arguments
  // Reads an integer's value from the command line; null for the others.
  bool (*readInteger)(const char* argument, int32_t* integer);
  // Brings a new copy of a text into the form that is kept; null keeps it as it is.
  void (*normalise)(char* text);
  // The value as help and listing show it, in `buffer` or elsewhere.
  const char* (*show)(const ZelOptionValue& value, IntegerText& buffer);
};

// Null for a type that does not exist.
const OptionType* FindOptionType(uint32_t id);

// registry.cc -------------------------------------------------------------------------------------

extern SlotTable<ZelOption, kMaxOptions> g_options;

// Null when the option is not registered or belongs to another parser.
inline ZelOption* FindOption(uint32_t parser, uint32_t id) {
  const ZelOption* const option = g_options.Find(id);
  const bool isThere = option != nullptr && LoadRelaxed(option->parser) == parser;
  return isThere && parser != kNoParser ? &g_options[id] : nullptr;
}

// Calls visit(option) for the options of a parser, in the order of their registration.
template <typename Visit>
void ForEachOption(uint32_t parser, Visit visit) {
  for (uint32_t id = 0; id < g_options.Count(); ++id) {
    if (ZelOption* const option = FindOption(parser, id)) visit(*option);
  }
}

// Parsers handed out so far, released or not.
uint32_t ParserCount();

// Null for a parser that was released or never handed out.
const char* ToolName(uint32_t parser);

inline bool BeginsWith(const char* text, const char* beginning) {
  return std::strncmp(text, beginning, std::strlen(beginning)) == 0;
}

// values.cc ---------------------------------------------------------------------------------------

// Sets a value: the text for types that hold one, else the integer. Ends the process for a value
// that is not valid.
void SetOptionValue(ZelOption& option, const OptionType& type, const char* text, int32_t integer);

// Whether what a registered option says of its values fits together. The values are walked.
bool OptionIsConsistent(const ZelOption& option);

}  // namespace zelrt
