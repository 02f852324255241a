// Figures and text for people.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace heapscope::report {

std::string Grouped(uint64_t value);                        // 1234567 as "1,234,567"
std::string GroupedDifference(int64_t value);               // with a sign, unless 0
std::string Counted(uint64_t count, std::string_view one);  // "1 call", "2 calls"
std::string HumanBytes(uint64_t bytes);                     // "1.25 MiB"
std::string HumanDifference(int64_t bytes);
std::string HumanDuration(uint64_t ms);            // "1 h 2 min", "12.3 s", "45 ms"
std::string Share(uint64_t part, uint64_t whole);  // "12.3%", or nothing of nothing

std::string FileName(std::string_view path);  // without its directories

// Text from outside as it may go to a terminal or a page: what is not UTF-8, controls, and marks
// that turn the direction of writing become '?'.
std::string CleanText(std::string_view text);

// In characters; what CleanText returned is taken for one column each.
size_t WidthOf(std::string_view text);
std::string CutTo(std::string_view text, size_t width);  // a cut shows as "…"
std::string PadLeft(std::string_view text, size_t width);
std::string PadRight(std::string_view text, size_t width);

}  // namespace heapscope::report
