// Conversions between multi-byte and wide texts, by the C library's rules for the process's locale.

#include <cstdlib>

#include "zelrt/files.h"
#include "zelrt/memory.h"

namespace {

constexpr size_t kCannotConvert = static_cast<size_t>(-1);

// One direction: what a converted text is made of, and what counts and converts. The end mark is
// not counted.
struct ToWide {
  using Unit = wchar_t;
  using Source = char;
  static size_t Convert(wchar_t* destination, const char* source, size_t count) {
    return std::mbstowcs(destination, source, count);
  }
};
struct ToMultiByte {
  using Unit = char;
  using Source = wchar_t;
  static size_t Convert(char* destination, const wchar_t* source, size_t count) {
    return std::wcstombs(destination, source, count);
  }
};

template <typename Direction>
size_t CountUnits(const typename Direction::Source* source) {
  return source != nullptr ? Direction::Convert(nullptr, source, 0) : kCannotConvert;
}

template <typename Direction>
void ConvertAndEnd(typename Direction::Unit* destination, const typename Direction::Source* source,
                   size_t count) {
  Direction::Convert(destination, source, count);
  destination[count] = 0;
}

template <typename Direction>
uint64_t ConvertInto(typename Direction::Unit* destination, uint64_t size,
                     const typename Direction::Source* source) {
  const size_t count = CountUnits<Direction>(source);
  const bool fits = size / sizeof(typename Direction::Unit) > count;
  if (count == 0 || count == kCannotConvert || destination == nullptr || !fits) return 0;
  ConvertAndEnd<Direction>(destination, source, count);
  return count;
}

template <typename Direction>
typename Direction::Unit* ConvertToNew(const typename Direction::Source* source) {
  using Unit = typename Direction::Unit;
  const size_t count = CountUnits<Direction>(source);
  if (count == kCannotConvert) return nullptr;
  auto* const text = static_cast<Unit*>(__ZelMalloc(0, (count + 1) * sizeof(Unit), 0));
  if (text != nullptr) ConvertAndEnd<Direction>(text, source, count);
  return text;
}

}  // namespace

uint64_t __ZelUtf8ToWstring(wchar_t* destination, uint64_t size, const char* source) {
  return ConvertInto<ToWide>(destination, size, source);
}
uint64_t __ZelWstringToUtf8(char* destination, uint64_t size, const wchar_t* source) {
  return ConvertInto<ToMultiByte>(destination, size, source);
}

wchar_t* __ZelAllocateAndConvertUtf8ToWstring(const char* source) {
  return ConvertToNew<ToWide>(source);
}
void __ZelFreeWstring(wchar_t* text) { __ZelFree(text); }

char* __ZelAllocateAndConvertWstringToUtf8(const wchar_t* source) {
  return ConvertToNew<ToMultiByte>(source);
}
void __ZelFreeMbString(char* text) { __ZelFree(text); }
