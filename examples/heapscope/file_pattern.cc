// Names of output files.

#include "examples/heapscope/file_pattern.h"

#include <cstdio>
#include <cstring>

namespace heapscope {

bool ExpandFilePattern(const char* pattern, int32_t processId, char* path, size_t size) {
  char id[16];
  std::snprintf(id, sizeof id, "%d", processId);
  size_t length = 0;
  for (const char* from = pattern; *from != '\0'; ++from) {
    const char plain[2] = {*from, '\0'};
    const char* text = plain;
    if (from[0] == '%' && (from[1] == 'p' || from[1] == '%')) {
      ++from;
      if (*from == 'p') text = id;
    }
    const size_t textLength = std::strlen(text);
    if (length + textLength >= size) return false;
    std::memcpy(path + length, text, textLength);
    length += textLength;
  }
  path[length] = '\0';
  return true;
}

bool HasProcessId(const char* pattern) {
  for (const char* from = pattern; *from != '\0'; ++from) {
    if (from[0] != '%') continue;
    if (from[1] == 'p') return true;
    if (from[1] == '%') ++from;
  }
  return false;
}

}  // namespace heapscope
