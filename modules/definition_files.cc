// Annotations from definition files.
//
//   lock_acquire "/usr/lib/libx.so" 1a0 0x10 400000
//
// The definitions of all files stand in one list, which the client serialises. Each of them is
// complete: it has a name, a module and both arguments.

#include <cctype>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "runtime/internal.h"
#include "zelrt/annotations.h"
#include "zelrt/files.h"
#include "zelrt/log.h"
#include "zelrt/memory.h"

namespace zelrt {
namespace {

static_assert(sizeof(ZelZCADefinition) == 48 && offsetof(ZelZCADefinition, name) == 8 &&
              offsetof(ZelZCADefinition, module) == 16 &&
              offsetof(ZelZCADefinition, argumentCount) == 24 &&
              offsetof(ZelZCADefinition, arguments) == 32 &&
              offsetof(ZelZCADefinition, next) == 40);

constexpr size_t kLineBufferSize = 65'535;
constexpr int kLineSize = 65'534;  // with the NUL
constexpr uint32_t kFields = 5;
constexpr uint32_t kArguments = 2;

struct DefinitionList {
  ZelZCADefinition* first = nullptr;
  ZelZCADefinition* last = nullptr;

  void Append(const DefinitionList& list) {
    if (list.first == nullptr) return;
    (last != nullptr ? last->next : first) = list.first;
    last = list.last;
  }
};

constinit DefinitionList g_definitions;

template <typename T>
T* Allocate(size_t count) {
  return static_cast<T*>(__ZelMalloc(0, count * sizeof(T), 0));
}

// Frees what the definition owns.
void Clear(ZelZCADefinition* definition) {
  if (definition->name != nullptr) __ZelFree(definition->name);
  if (definition->module != nullptr) __ZelFree(definition->module);
  if (definition->arguments != nullptr) __ZelFree(definition->arguments);
  *definition = {};
}

bool IsComplete(const ZelZCADefinition& definition) {
  return definition.name != nullptr && definition.module != nullptr &&
         definition.arguments != nullptr;
}

bool IsWhiteSpace(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

// Cuts the next field off the rest of a line, its quotes included; null when there is none. A quote
// that is not closed reaches to the end of the line.
char* TakeField(char*& rest) {
  while (IsWhiteSpace(*rest)) ++rest;
  if (*rest == '\0') return nullptr;
  char* const field = rest;
  bool isQuoted = false;
  for (; *rest != '\0' && (isQuoted || !IsWhiteSpace(*rest)); ++rest) {
    if (*rest == '"') isQuoted = !isQuoted;
  }
  if (*rest != '\0') *rest++ = '\0';
  return field;
}

// Null for a field that has no room for its quotes.
char* CopyModule(char* field) {
  const size_t length = std::strlen(field);
  if (length < 2) return nullptr;
  field[length - 1] = '\0';
  char* const module = __ZelStrdup(field + 1);
  __ZelSanitizePath(module);
  return module;
}

// A number instead of a register; a base as strtoul takes it.
ZelZCAArgument NumberIn(const char* field, int base) {
  return {std::strtoul(field, nullptr, base), 0, 0};
}

void StoreField(uint32_t position, char* field, ZelZCADefinition* definition) {
  switch (position) {
    case 1:
      definition->name = __ZelStrdup(field);
      break;
    case 2:
      definition->module = CopyModule(field);
      break;
    case 3:
      definition->address = static_cast<uint32_t>(std::strtoul(field, nullptr, 16));
      break;
    case 4:
      definition->arguments = Allocate<ZelZCAArgument>(kArguments);
      if (definition->arguments == nullptr) break;
      definition->argumentCount = kArguments;
      definition->arguments[0] = NumberIn(field, 0);
      definition->arguments[1] = {};
      break;
    case 5:
      if (definition->arguments != nullptr) definition->arguments[1] = NumberIn(field, 16);
      break;
    default:
      break;
  }
}

// Returns the number of fields; kFields + 1 when there are more.
uint32_t ParseLine(char* line, ZelZCADefinition* definition) {
  uint32_t taken = 0;
  char* rest = __ZelStripWhiteSpaces(line);
  while (char* const field = TakeField(rest)) {
    if (taken == kFields) {
      __ZelLogCommentInternal("zca_file_parser: Unexpected number of annotation arguments: %d",
                              taken);
      return kFields + 1;
    }
    StoreField(++taken, field, definition);
  }
  return taken;
}

// A node is used again until a line has made it a definition.
DefinitionList ReadDefinitions(FILE* file, char* line) {
  DefinitionList list;
  ZelZCADefinition* node = nullptr;
  while (__ZelFgets(line, kLineSize, file) != nullptr) {
    if (node == nullptr) {
      node = Allocate<ZelZCADefinition>(1);
      if (node == nullptr) break;
      *node = {};
    }
    if (ParseLine(line, node) < kFields || !IsComplete(*node)) {
      Clear(node);
      continue;
    }
    list.Append({node, node});
    node = nullptr;
  }
  __ZelFree(node);
  return list;
}

bool BelongsTo(const ZelZCADefinition& definition, const char* module) {
  char* const baseName = __ZelGetBaseName(definition.module);
  const bool belongs = std::strcmp(definition.module, module) == 0 ||
                       (baseName != nullptr && std::strcmp(baseName, module) == 0);
  __ZelFree(baseName);
  return belongs;
}

ZelZCARecord RecordOf(const ZelZCADefinition& definition, uint64_t loadBase) {
  const ZelZCAArgument* const arguments = definition.arguments;
  return {.address = definition.address + loadBase - arguments[1].value,
          .name = definition.name,
          .expression = nullptr,
          .probe = 0,
          .argumentCount = definition.argumentCount,
          .arguments = {arguments[0], arguments[1]}};
}

}  // namespace
}  // namespace zelrt

using namespace zelrt;

int __ZelZCALoadExternalDefinitions(const char* path) {
  auto* const line = Allocate<char>(kLineBufferSize);
  FILE* const file = line != nullptr ? __ZelFopen(path, "r", nullptr) : nullptr;
  if (file == nullptr) {
    Log(ZELLOG_SEVERITY_ERROR, ZELLOG_MSG_FAIL_OPEN_FILE, path);
    __ZelFree(line);
    return 0;
  }
  const DefinitionList loaded = ReadDefinitions(file, line);
  __ZelFree(line);
  __ZelFclose(file);
  g_definitions.Append(loaded);
  return 1;
}

int __ZelZCAParseDefinition(char* line, ZelZCADefinition* definition) {
  return ParseLine(line, definition) == kFields ? 1 : 0;
}

void __ZelZCAProcessExternalRecords(const char* moduleName, uint64_t loadBase,
                                    ZelZCARecordProc callback, void* context) {
  char* const module = __ZelStrdup(moduleName);
  if (module == nullptr) {
    constexpr char kText[] = "Cannot allocate memory to copy module name";
    __ZelLogInternal(ZELLOG_SEVERITY_ERROR, ZELLOG_MSG_INTERNAL, 0,
                     reinterpret_cast<uint64_t>(kText));
    return;
  }
  __ZelSanitizePath(module);
  for (const ZelZCADefinition* definition = g_definitions.first; definition != nullptr;
       definition = definition->next) {
    ZEL_ASSERT(IsComplete(*definition));
    if (!BelongsTo(*definition, module)) continue;
    const ZelZCARecord record = RecordOf(*definition, loadBase);
    callback(&record, context);
  }
  __ZelFree(module);
}

void __ZelZCACleanupDefinitions() {
  ZelZCADefinition* definition = g_definitions.first;
  g_definitions = {};
  while (definition != nullptr) {
    ZelZCADefinition* const next = definition->next;
    Clear(definition);
    __ZelFree(definition);
    definition = next;
  }
}
