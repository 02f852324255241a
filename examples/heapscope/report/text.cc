#include "examples/heapscope/report/text.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace heapscope::report {
namespace {

std::string Printed(const char* format, double value) {
  char text[64];
  std::snprintf(text, sizeof text, format, value);
  return text;
}

uint64_t Magnitude(int64_t value) {
  return value < 0 ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
}

const char* SignOf(int64_t value) { return value < 0 ? "-" : value > 0 ? "+" : ""; }

struct Character {
  char32_t value;
  size_t size;  // in bytes; 0 when it is not UTF-8
};

Character Decode(std::string_view text) {
  const auto byte = [&](size_t at) { return static_cast<unsigned char>(text[at]); };
  if (byte(0) < 0x80) return {byte(0), 1};
  const size_t size = byte(0) >= 0xF0 ? 4 : byte(0) >= 0xE0 ? 3 : 2;
  if (byte(0) < 0xC2 || byte(0) > 0xF4 || size > text.size()) return {0, 0};
  char32_t value = byte(0) & (0xFFu >> (size + 1));
  for (size_t i = 1; i < size; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return {0, 0};
    value = value << 6 | (byte(i) & 0x3Fu);
  }
  constexpr std::array<char32_t, 5> kSmallest = {0, 0, 0x80, 0x800, 0x10000};
  const bool isSurrogate = value >= 0xD800 && value < 0xE000;
  if (value < kSmallest[size] || value > 0x10FFFF || isSurrogate) return {0, 0};
  return {value, size};
}

bool IsHarmless(char32_t c) {
  const bool isControl = c < 0x20 || (c >= 0x7F && c < 0xA0) || c == 0x2028 || c == 0x2029;
  const bool turnsDirection =
      c == 0x200E || c == 0x200F || (c >= 0x202A && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069);
  return !isControl && !turnsDirection;
}

bool StartsCharacter(char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }

}  // namespace

std::string Grouped(uint64_t value) {
  std::string text = std::to_string(value);
  for (size_t at = text.size(); at > 3;) text.insert(at -= 3, 1, ',');
  return text;
}

std::string GroupedDifference(int64_t value) { return SignOf(value) + Grouped(Magnitude(value)); }

std::string Counted(uint64_t count, std::string_view one) {
  return Grouped(count) + " " + std::string(one) + (count == 1 ? "" : "s");
}

std::string HumanBytes(uint64_t bytes) {
  constexpr const char* kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  if (bytes < 1024) return std::to_string(bytes) + " B";
  size_t unit = 0;
  auto value = static_cast<double>(bytes);
  // 1023.995 would read 1024.00.
  for (; value >= 1023.995 && unit + 1 < std::size(kUnits); ++unit) value /= 1024;
  return Printed("%.2f ", value) + kUnits[unit];
}

std::string HumanDifference(int64_t bytes) { return SignOf(bytes) + HumanBytes(Magnitude(bytes)); }

std::string HumanDuration(uint64_t ms) {
  if (ms < 1000) return std::to_string(ms) + " ms";
  if (ms < 60'000) return Printed("%.1f s", static_cast<double>(ms) / 1000);
  const uint64_t minutes = ms / 60'000;
  if (minutes < 60)
    return std::to_string(minutes) + " min " + std::to_string(ms / 1000 % 60) + " s";
  return std::to_string(minutes / 60) + " h " + std::to_string(minutes % 60) + " min";
}

std::string Share(uint64_t part, uint64_t whole) {
  if (whole == 0) return "";
  return Printed("%.1f%%", 100 * static_cast<double>(part) / static_cast<double>(whole));
}

std::string FileName(std::string_view path) {
  return std::string(path.substr(path.rfind('/') + 1));  // npos + 1 is 0
}

std::string CleanText(std::string_view text) {
  std::string clean;
  clean.reserve(text.size());
  while (!text.empty()) {
    const Character c = Decode(text);
    if (c.size == 0 || !IsHarmless(c.value)) {
      clean += '?';
    } else {
      clean += text.substr(0, c.size);
    }
    text.remove_prefix(std::max<size_t>(c.size, 1));
  }
  return clean;
}

size_t WidthOf(std::string_view text) {
  return static_cast<size_t>(std::count_if(text.begin(), text.end(), StartsCharacter));
}

std::string CutTo(std::string_view text, size_t width) {
  if (WidthOf(text) <= width) return std::string(text);
  if (width == 0) return "";
  size_t end = 0;
  for (size_t seen = 0; end < text.size(); ++end) {
    if (StartsCharacter(text[end]) && seen++ == width - 1) break;
  }
  return std::string(text.substr(0, end)) + "…";
}

std::string PadLeft(std::string_view text, size_t width) {
  return std::string(width - std::min(width, WidthOf(text)), ' ').append(text);
}

std::string PadRight(std::string_view text, size_t width) {
  return std::string(text) + std::string(width - std::min(width, WidthOf(text)), ' ');
}

}  // namespace heapscope::report
