// C strings, and the process's logical clock.

#include <cctype>
#include <cstdio>
#include <cstring>

#include "runtime/atomics.h"
#include "zelrt/files.h"
#include "zelrt/memory.h"

namespace {

constinit uint64_t g_timestamp = 0;

bool IsWhiteSpace(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

// Where the last '/' leaves off; the character at index 0 does not count.
const char* BaseNameIn(const char* path) {
  const char* const slash = std::strrchr(path + 1, '/');
  return slash != nullptr ? slash + 1 : path;
}

}  // namespace

using namespace zelrt;

int __ZelVsnprintf(char* buffer, size_t size, const char* format, va_list arguments) {
  return std::vsnprintf(buffer, size, format, arguments);
}

int __ZelSnprintf(char* buffer, size_t size, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int result = __ZelVsnprintf(buffer, size, format, arguments);
  va_end(arguments);
  return result;
}

int __ZelSCnprintf(char* buffer, size_t size, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int result = __ZelVsnprintf(buffer, size, format, arguments);
  va_end(arguments);
  return result;
}

char* __ZelStrdup(const char* text) {
  if (text == nullptr) return nullptr;
  const size_t size = std::strlen(text) + 1;
  auto* const copy = static_cast<char*>(__ZelMalloc(0, size, 0));
  return copy != nullptr ? static_cast<char*>(std::memcpy(copy, text, size)) : nullptr;
}

char* __ZelStrncpy(char* destination, const char* source, uint64_t size) {
  if (destination == nullptr || size == 0) return destination;
  std::strncpy(destination, source != nullptr ? source : "", size);
  destination[size - 1] = '\0';
  return destination;
}

char* __ZelStrSCncpy(char* destination, const char* source, uint64_t size) {
  return __ZelStrncpy(destination, source, size);
}

char* __ZelGetBaseName(const char* path) {
  if (path == nullptr || path[0] == '\0') return nullptr;
  return __ZelStrdup(BaseNameIn(path));
}

char* __ZelGetSCBaseName(const char* path) { return __ZelGetBaseName(path); }

void __ZelSanitizePath(char* path) {
  if (path == nullptr) return;
  char* end = path;
  for (const char* from = path; *from != '\0'; ++from) {
    const bool repeatsSlash = *from == '/' && end != path && end[-1] == '/';
    if (!repeatsSlash) *end++ = *from;
  }
  *end = '\0';
}

char* __ZelStripWhiteSpaces(char* text) {
  if (text == nullptr) return nullptr;
  for (char* end = text + std::strlen(text); end > text && IsWhiteSpace(end[-1]);) *--end = '\0';
  while (IsWhiteSpace(*text)) ++text;
  return text;
}

void __ZelConvertUtf8ToLowerCase(char* text) {
  if (text == nullptr) return;
  for (; *text != '\0'; ++text) {
    // Bytes above 127 go in as negative values: the C library's table begins at -128.
    *text = static_cast<char>(std::tolower(static_cast<signed char>(*text)));
  }
}

int64_t __ZelUpdateTimestamp(int32_t increment) {
  const auto step = static_cast<uint64_t>(int64_t{increment != 0 ? increment : 1});
  uint64_t seen = LoadRelaxed(g_timestamp);
  for (;;) {
    const uint64_t found = AtomicCompareExchange(g_timestamp, seen + step, seen);
    if (found == seen) return static_cast<int64_t>(seen + step);
    seen = found;
  }
}
