// Counted strings.
//
// length + 1 <= capacity, or there is no buffer and both are 0.

#include "zelrt/strings.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <limits>

#include "zelrt/memory.h"

namespace zelrt {
namespace {

static_assert(offsetof(ZelString, length) == 0 && offsetof(ZelString, capacity) == 4 &&
              offsetof(ZelString, memoryCategory) == 8 && offsetof(ZelString, text) == 16 &&
              sizeof(ZelString) == 24);

constexpr uint64_t kMaxCapacity = std::numeric_limits<uint32_t>::max();

// The capacity that a rule of growth asks for, as far as there is one. Any text that fits into some
// capacity fits into this.
uint32_t GrownCapacity(uint64_t wanted) {
  return static_cast<uint32_t>(std::clamp(wanted, uint64_t{1}, kMaxCapacity));
}

char* NewBuffer(const ZelString& string, uint32_t capacity) {
  return static_cast<char*>(__ZelMalloc(string.memoryCategory, capacity, 0));
}

// Replaces the buffer, whose text is lost. False, and no buffer, for lack of memory.
bool Regrow(ZelString& string, uint32_t capacity) {
  __ZelFree(string.text);
  string.text = NewBuffer(string, capacity);
  const bool isThere = string.text != nullptr;
  string.capacity = isThere ? capacity : 0;
  if (!isThere) string.length = 0;
  return isThere;
}

// False when the text has not been taken.
bool Set(ZelString& string, const char* text) {
  const uint64_t length = std::strlen(text);
  if (length + 1 > kMaxCapacity) return false;
  // The string's own text, or a part of it, needs no other buffer.
  if (length + 1 > string.capacity && !Regrow(string, GrownCapacity(2 * length))) return false;
  std::memmove(string.text, text, length + 1);
  string.length = static_cast<uint32_t>(length);
  return true;
}

void Append(ZelString& string, const char* text) {
  const uint64_t added = std::strlen(text);
  const uint64_t needed = string.length + added + 1;
  if (needed > kMaxCapacity) return;
  char* const old = string.text;
  if (needed > string.capacity) {
    const uint32_t capacity = GrownCapacity(2 * (string.capacity + added));
    char* const buffer = NewBuffer(string, capacity);
    if (buffer == nullptr) return;
    std::copy_n(old, string.length, buffer);
    string.text = buffer;
    string.capacity = capacity;
  }
  std::memmove(string.text + string.length, text, added + 1);
  string.length += static_cast<uint32_t>(added);
  if (string.text != old) __ZelFree(old);  // not before: the appended text may be in there
}

}  // namespace
}  // namespace zelrt

using namespace zelrt;

ZelString* __ZelStrAlloc(uint32_t memoryCategory, uint32_t capacity, const char* text) {
  auto* const string = static_cast<ZelString*>(__ZelMalloc(memoryCategory, sizeof(ZelString), 0));
  if (string == nullptr) return nullptr;
  *string = {.length = 0, .capacity = 0, .memoryCategory = memoryCategory, .text = nullptr};
  if (Regrow(*string, capacity) && Set(*string, text)) return string;
  __ZelStrDestroy(string);
  return nullptr;
}

ZelString* __ZelStrSet(ZelString* string, const char* text) {
  Set(*string, text);
  return string;
}

void __ZelStrAppend(ZelString* string, const char* text) {
  if (string != nullptr && text != nullptr) Append(*string, text);
}

void __ZelStrDestroy(ZelString* string) {
  if (string == nullptr) return;
  __ZelFree(string->text);
  __ZelFree(string);
}
