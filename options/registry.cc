// The registry: parsers, and the registration and release of options.
//
// What is released leaves its slot for ever: an empty tool name, an option of no parser.

#include "options/internal.h"
#include "zelrt/files.h"
#include "zelrt/memory.h"

namespace zelrt {

constinit SlotTable<ZelOption, kMaxOptions> g_options;

namespace {

struct OptionParser {
  char* toolName;  // owned; null when released
};

constinit SlotTable<OptionParser, kMaxParsers> g_parsers;

// What the forms of registration have in common; a type leaves out what it has no use for.
struct Registration {
  uint32_t parser;
  const char* name;
  const char* description;
  uint32_t flags;
  uint32_t showInHelp;
  uint32_t type;
  int32_t defaultInteger = kNoInteger;
  const char* defaultText = nullptr;
  uint32_t append = 0;
};

// False when there is no memory, and the process is ending.
bool CopyInto(ZelOption& option, const Registration& from) {
  option.name = __ZelStrdup(from.name);
  option.description = __ZelStrdup(from.description);
  option.type = from.type;
  option.append = from.append != 0 ? 1 : 0;
  option.defaultValue = {from.defaultInteger, __ZelStrdup(from.defaultText), nullptr};
  option.currentValue = &option.defaultValue;
  option.flags = from.flags;
  option.parser = from.parser;
  option.showInHelp = from.showInHelp;
  const auto normalise = FindOptionType(from.type)->normalise;
  if (normalise != nullptr && option.defaultValue.text != nullptr)
    normalise(option.defaultValue.text);
  return option.name != nullptr && option.description != nullptr;
}

uint32_t Register(const Registration& from) {
  if (from.name == nullptr || from.description == nullptr || from.parser >= ParserCount()) {
    __ZelLogFatalToolDefect(
        "A valid option name, description and parser handle must be specified to register an "
        "option with ZELRT");
  }
  const uint32_t id = g_options.Claim();
  if (id == kNoSlot) return ZEL_INVALID_OPTION;
  if (from.name[0] != '-') {
    __ZelLogFatalToolDefect(
        "A valid option name starting with '-' must be specified to register the option with "
        "ZELRT");
  }
  ZelOption& option = g_options[id];
  if (!CopyInto(option, from)) return ZEL_INVALID_OPTION;
  ZEL_ASSERT(OptionIsConsistent(option));
  g_options.Publish(id);
  return id;
}

// Frees the nodes of a chain and their texts.
template <typename Node>
void FreeChain(Node* node) {
  while (node != nullptr) {
    Node* const next = node->next;
    __ZelFree(node->text);
    __ZelFree(node);
    node = next;
  }
}

void Release(ZelOption& option) {
  __ZelFree(option.name);
  __ZelFree(option.description);
  __ZelFree(option.defaultValue.text);
  __ZelFree(option.setValue.text);
  FreeChain(option.setValue.next);
  FreeChain(option.validArguments);
  option.name = option.description = nullptr;
  option.type = ZEL_OPTION_INTEGER;
  option.append = 0;
  option.defaultValue = option.setValue = {};
  option.valueCount = 0;
  option.lastValue = option.currentValue = nullptr;
  option.flags = 0;
  option.validArguments = nullptr;
  StoreRelaxed(option.parser, kNoParser);
}

}  // namespace

uint32_t ParserCount() { return g_parsers.Count(); }

const char* ToolName(uint32_t parser) {
  const OptionParser* const found = g_parsers.Find(parser);
  return found != nullptr ? found->toolName : nullptr;
}

}  // namespace zelrt

using namespace zelrt;

uint32_t __ZelGetOptionParser(const char* toolName) {
  if (toolName == nullptr) return ZEL_INVALID_OPTION_PARSER;
  const uint32_t id = g_parsers.Claim();
  if (id == kNoSlot) return ZEL_INVALID_OPTION_PARSER;
  g_parsers[id].toolName = __ZelStrdup(toolName);
  g_parsers.Publish(id);
  return id;
}

uint32_t __ZelReleaseOptionParserHandle(uint32_t parser, const char* toolName) {
  const char* const stored = ToolName(parser);
  if (stored == nullptr || toolName == nullptr || !BeginsWith(toolName, stored)) return 0;
  __ZelFree(g_parsers[parser].toolName);
  g_parsers[parser].toolName = nullptr;
  ForEachOption(parser, Release);
  return 1;
}

uint32_t __ZelRegisterBooleanOption(uint32_t parser, const char* name, const char* description,
                                    int32_t defaultValue, uint32_t flags, uint32_t showInHelp) {
  return Register({parser, name, description, flags, showInHelp, ZEL_OPTION_BOOLEAN,
                   defaultValue != 0 ? 1 : 0});
}

uint32_t __ZelRegisterIntegerOption(uint32_t parser, const char* name, const char* description,
                                    int32_t defaultValue, uint32_t flags, uint32_t showInHelp) {
  return Register({parser, name, description, flags, showInHelp, ZEL_OPTION_INTEGER, defaultValue});
}

uint32_t __ZelRegisterStringOption(uint32_t parser, const char* name, const char* description,
                                   const char* defaultText, uint32_t flags, uint32_t append,
                                   uint32_t showInHelp) {
  return Register({parser, name, description, flags, showInHelp, ZEL_OPTION_STRING, kNoInteger,
                   defaultText, append});
}

uint32_t __ZelRegisterStringEnumOption(uint32_t parser, const char* name, const char* description,
                                       const char* defaultText, uint32_t flags,
                                       uint32_t showInHelp) {
  return Register({parser, name, description, flags, showInHelp, ZEL_OPTION_STRING_ENUM, kNoInteger,
                   defaultText});
}

uint32_t __ZelRegisterPathOption(uint32_t parser, const char* name, const char* description,
                                 const char* defaultText, uint32_t flags, uint32_t append,
                                 uint32_t showInHelp) {
  return Register({parser, name, description, flags, showInHelp, ZEL_OPTION_PATH, kNoInteger,
                   defaultText, append});
}
