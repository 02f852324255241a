// Debug channels: a mask of what is on, and the map of names.
//
// Map and mask are set up before other threads dump; they are read and written as atomics so that a
// late change is seen late, and nothing worse.

#include <strings.h>

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "log/internal.h"
#include "runtime/internal.h"
#include "zelrt/log.h"

namespace zelrt {
namespace {

constexpr uint32_t kMaxMapEntries = 32;
constexpr size_t kMessageBufferSize = 1024;
constexpr size_t kNegationLength = 3;  // of "no-"

constexpr ZelDbgMapEntry kDefaultMap[] = {
    {0x0, "NONE"},
    {0x1, "API"},
    {0x2, "CAL"},
    {0x4, "MEM"},
    {0x8, "BUF"},
    {0x10, "MOD"},
    {0x20, "CFG"},
    {0x40, "CHK"},
    {0x80, "ZCA"},
    {0x100, "SCR"},
    {0x1ff, "ZELCORE"},
    {0x200, "TRC"},
    {0x400, "IMG"},
    {0x800, "RTN"},
    {0x1000, "BBL"},
    {0x2000, "INS"},
    {0x4000, "THR"},
    {0x8000, "RTL"},
    {0x10000, "TRA"},
    {0x20000, "ANT"},
    {0x3fe00, "ZELET"},
    {0x40000, "DOTNET_GC"},
    {0x80000, "DOTNET_API"},
    {0x100000, "DOTNET_MEM"},
    {0x200000, "DOTNET_JIT"},
    {0x400000, "DOTNET_GEN"},
    {0x7c0000, "DOTNET"},
    {0x7fffff, "ALL"},
    {0, nullptr},
};

constinit const ZelDbgMapEntry* g_map = kDefaultMap;
constinit uint32_t g_mapEntries = std::size(kDefaultMap) - 1;
constinit uint32_t g_enabledMask = 0;

uint32_t MaskOf(const ZelDbgMapEntry& entry) { return static_cast<uint32_t>(entry.mask); }

void Enable(uint32_t mask) {
  StoreRelaxed(g_enabledMask, mask == 0 ? 0 : LoadRelaxed(g_enabledMask) | mask);
}
void Disable(uint32_t mask) { StoreRelaxed(g_enabledMask, LoadRelaxed(g_enabledMask) & ~mask); }

bool Begins(const char* name, const char* beginning, size_t length) {
  return strncasecmp(name, beginning, length) == 0;
}

// "mem", "M", "no-mem": the first entry decides that the name begins, negated or not.
bool ApplyName(const char* name, size_t length) {
  const ZelDbgMapEntry* const map = LoadRelaxed(g_map);
  const bool isNegated = length > kNegationLength && Begins(name, "no-", kNegationLength);
  for (uint32_t i = 0; i < LoadRelaxed(g_mapEntries); ++i) {
    if (Begins(map[i].name, name, length)) {
      Enable(MaskOf(map[i]));
      return true;
    }
    if (isNegated && Begins(map[i].name, name + kNegationLength, length - kNegationLength)) {
      Disable(MaskOf(map[i]));
      return true;
    }
  }
  return false;
}

// "api,mem,no-cal"
bool ApplyList(const char* text) {
  while (*text != '\0') {
    const size_t length = std::strcspn(text, ",");
    if (!ApplyName(text, length)) return false;
    text += length;
    if (*text == ',') ++text;
  }
  return true;
}

// "0x80"
bool ApplyNumber(const char* text) {
  const bool isHexadecimal = text[1] == 'x' || text[1] == 'X';
  if (!isHexadecimal || std::isxdigit(static_cast<unsigned char>(text[2])) == 0) return false;
  unsigned mask;
  if (std::sscanf(text, "%x", &mask) != 1) return false;
  Enable(mask);
  return true;
}

// Null when the channel is off, or not there.
const ZelDbgMapEntry* EnabledChannel(uint32_t channel) {
  if (channel >= LoadRelaxed(g_mapEntries)) return nullptr;
  const ZelDbgMapEntry* const entry = LoadRelaxed(g_map) + channel;
  return (MaskOf(*entry) & LoadRelaxed(g_enabledMask)) != 0 ? entry : nullptr;
}

}  // namespace
}  // namespace zelrt

using namespace zelrt;

uint32_t __ZelParseDbgDumpOption(const char* text) {
  if (text == nullptr) return 0;
  return (text[0] == '0' ? ApplyNumber(text) : ApplyList(text)) ? 1 : 0;
}

uint32_t __ZelDbgRegisterDbgMap(const ZelDbgMapEntry* map) {
  if (map == nullptr) return 0;
  uint32_t entries = 0;
  while (entries < kMaxMapEntries && map[entries].name != nullptr) ++entries;
  // No more entries than either map has, whichever of the two is seen.
  StoreRelease(g_mapEntries, std::min(entries, LoadRelaxed(g_mapEntries)));
  StoreRelease(g_map, map);
  StoreRelease(g_mapEntries, entries);
  return 1;
}

uint32_t __ZelIsDbgDumpEnabled(uint32_t channel) {
  return EnabledChannel(channel) != nullptr ? 1 : 0;
}

void __ZelDbgMessageDumpInternal(uint32_t channel, const char* format, ...) {
  const ZelDbgMapEntry* const entry = EnabledChannel(channel);
  if (entry == nullptr || format == nullptr) return;
  char text[kMessageBufferSize];
  va_list arguments;
  va_start(arguments, format);
  if (std::vsnprintf(text, sizeof text - 1, format, arguments) < 0) text[0] = '\0';
  va_end(arguments);
  __ZelLogCommentInternal("[%-4s] [%-5d] %s", entry->name, static_cast<int>(NativeThreadId()),
                          text);
}
