// Texts that come from outside: escaping, and what a comment must not contain.

#include <array>

#include "xml/internal.h"

namespace zelrt {
namespace {

struct Entity {
  char character;
  std::string_view text;
};
constexpr Entity kEntities[] = {
    {'"', "&quot;"}, {'&', "&amp;"}, {'\'', "&apos;"}, {'<', "&lt;"}, {'>', "&gt;"},
};

constexpr size_t kMaxEscaped = kXmlTextSize - 1;

// By byte: 0 for an ordinary one, else 1 + its index in kEntities; kEnd for NUL.
constexpr uint8_t kEnd = 0xFF;
constexpr std::array<uint8_t, 256> kKinds = [] {
  std::array<uint8_t, 256> kinds = {};
  for (size_t i = 0; i < std::size(kEntities); ++i) {
    kinds[static_cast<unsigned char>(kEntities[i].character)] = static_cast<uint8_t>(i + 1);
  }
  kinds[0] = kEnd;
  return kinds;
}();

// Two dashes would end a comment.
size_t CollapseDashes(char* text) {
  char* end = text;
  for (const char* from = text; *from != '\0'; ++from) {
    if (*from != '-' || end == text || end[-1] != '-') *end++ = *from;
  }
  return static_cast<size_t>(end - text);
}

uint8_t KindOf(char c) { return kKinds[static_cast<unsigned char>(c)]; }

}  // namespace

XmlPieces& XmlPieces::Comment(const char* format, va_list arguments) {
  char* const text = file_->text;
  if (std::vsnprintf(text, kXmlTextSize - 1, format, arguments) < 0) text[0] = '\0';
  return AddLineStart().Add("<!-- ").Add({text, CollapseDashes(text)}).Add(" -->");
}

// Runs of ordinary bytes are copied whole.
XmlPieces& XmlPieces::AddEscaped(const char* text) {
  for (size_t left = kMaxEscaped;;) {
    size_t run = 0;
    while (KindOf(text[run]) == 0 && run < left) ++run;
    Add(std::string_view(text, run));
    left -= run;
    text += run;
    const uint8_t kind = KindOf(*text);
    // An ordinary byte here is the first one that does not fit.
    if (kind == kEnd || kind == 0) return *this;
    const std::string_view entity = kEntities[kind - 1].text;
    if (entity.size() > left) return *this;
    Add(entity);
    left -= entity.size();
    ++text;
  }
}

}  // namespace zelrt
