// Text from outside, made fit for an XML document.

#include "examples/heapscope/xml_text.h"

#include <cstdint>
#include <cstring>
#include <iterator>

namespace heapscope {
namespace {

bool IsAllowed(uint32_t character) {
  if (character < 0x20) return character == '\t' || character == '\n' || character == '\r';
  return character != 0xFFFE && character != 0xFFFF;
}

// The bytes of the character that the text begins with; 0 when it is none.
size_t CharacterLength(const char* text) {
  struct Form {
    uint8_t mask, lead;
    uint32_t smallest, largest;
  };
  constexpr Form kForms[] = {{0x80, 0x00, 0, 0x7F},
                             {0xE0, 0xC0, 0x80, 0x7FF},
                             {0xF0, 0xE0, 0x800, 0xFFFF},
                             {0xF8, 0xF0, 0x10000, 0x10FFFF}};
  const auto* const bytes = reinterpret_cast<const uint8_t*>(text);
  for (size_t length = 1; length <= std::size(kForms); ++length) {
    const Form& form = kForms[length - 1];
    if ((bytes[0] & form.mask) != form.lead) continue;
    uint32_t character = bytes[0] & static_cast<uint8_t>(~form.mask);
    for (size_t i = 1; i < length; ++i) {
      if ((bytes[i] & 0xC0) != 0x80) return 0;
      character = character << 6 | (bytes[i] & 0x3F);
    }
    const bool isSurrogate = character >= 0xD800 && character <= 0xDFFF;
    const bool isInForm = character >= form.smallest && character <= form.largest;
    return isInForm && !isSurrogate && IsAllowed(character) ? length : 0;
  }
  return 0;
}

}  // namespace

void CleanForXml(const char* text, char* to, size_t size) {
  while (*text != '\0') {
    const size_t length = CharacterLength(text);
    const size_t taken = length == 0 ? 1 : length;
    if (taken >= size) break;
    if (length == 0) {
      *to = '?';
    } else {
      std::memcpy(to, text, length);
    }
    text += taken;
    to += taken;
    size -= taken;
  }
  *to = '\0';
}

}  // namespace heapscope
