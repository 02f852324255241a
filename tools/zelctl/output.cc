#include "tools/zelctl/output.h"

#include <algorithm>
#include <cstdio>

namespace zelctl {

void PrintJson(const nlohmann::json& object) {
  std::puts(object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
}

std::string Printable(std::string text) {
  std::replace_if(
      text.begin(), text.end(),
      [](char character) {
        const auto byte = static_cast<unsigned char>(character);
        return byte < ' ' || byte == 0x7F;
      },
      '?');
  return text;
}

}  // namespace zelctl
