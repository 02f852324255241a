// Lists of numbers in texts.

#include "zelrt/numbers.hpp"

#include <cstdlib>
#include <cstring>

namespace zelrt {

void StrToNums(const char* text, char separator, std::vector<unsigned long>& numbers) {
  if (text == nullptr || *text == '\0') return;
  for (;;) {
    numbers.push_back(static_cast<unsigned long>(std::strtol(text, nullptr, 10)));
    const char* const found = std::strchr(text, separator);
    // A NUL as separator is found where the text ends.
    if (found == nullptr || found[0] == '\0' || found[1] == '\0') return;
    text = found + 1;
  }
}

}  // namespace zelrt
