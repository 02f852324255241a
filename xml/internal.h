// The record of an XML file, and what composes its pieces.
#pragma once

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "runtime/locks.h"
#include "zelrt/xml.h"

inline constexpr size_t kXmlTextSize = 65'536;

// The depth and the text buffer belong to the file: whoever writes holds its lock, or is the only
// one who uses the file.
struct ZelXmlFile {
  FILE* stream;    // null after a close that failed: there is nothing to write to
  char* path;      // to open the file again
  uint32_t owner;  // native id of the thread that holds the lock, 0 when free
  uint32_t depth;  // open elements
  ZelSpinLock lock;
  char text[kXmlTextSize];  // where comments are formatted
  char* streamBuffer;       // the stream's; null when it has its own
  ZelXmlFile* earlier;      // of a log file: the one before it
};

namespace zelrt {

// Notes the native thread id of a new holder; 0 when it has none.
inline void RecordXmlFileOwner(ZelXmlFile* file, uint64_t self) {
  StoreRelaxed(file->owner, self < kThreadPointerMark ? static_cast<uint32_t>(self) : 0);
}

// Puts consecutive pieces together, so that the stream is called once for most of them. They are
// written when the object goes.
//
// The stream's own lock is only spared a thread that holds the file's. Threads that all write
// without get a mixed up file, not a broken stream; one that writes while another holds the lock
// may break it.
class XmlPieces {
 public:
  explicit XmlPieces(ZelXmlFile* file)
      : file_(file), isLocked_(IsSpinLockHeldBy(&file->lock, CallingOwner())) {}
  ~XmlPieces() { Flush(); }
  XmlPieces(const XmlPieces&) = delete;
  XmlPieces& operator=(const XmlPieces&) = delete;

  // Tags. A new line begins before all but the last.
  XmlPieces& StartTag(std::string_view name) {
    AddLineStart().Add('<').Add(name);
    ++file_->depth;
    return *this;
  }
  XmlPieces& CloseTag(std::string_view name) {
    LowerDepth();
    return AddLineStart().Add("</").Add(name).Add('>');
  }
  XmlPieces& AppendCloseTag(std::string_view name) {
    LowerDepth();
    return Add("</").Add(name).Add('>');
  }

  // The end of a started tag.
  XmlPieces& FinishTag() { return Add('>'); }
  XmlPieces& FinishEmptyTag() {
    LowerDepth();
    return Add("/>");
  }

  // What stands between " name='" and "'", or between "<name>" and "</name>" on a line of its own,
  // is what `addValue` adds.
  template <typename AddValue>
  XmlPieces& Attribute(std::string_view name, AddValue addValue) {
    Add(' ').Add(name).Add("='");
    addValue(*this);
    return Add('\'');
  }
  template <typename AddValue>
  XmlPieces& Element(std::string_view name, AddValue addValue) {
    AddLineStart().Add('<').Add(name).Add('>');
    addValue(*this);
    return Add("</").Add(name).Add('>');
  }

  // Formats into the file's text buffer; each run of '-' becomes a single one.
  XmlPieces& Comment(const char* format, va_list arguments);

  // Cut where the escaped text would not fit a text buffer any more.
  XmlPieces& AddEscaped(const char* text);

  // An integer; std::to_chars asks no locale.
  template <typename Integer>
  XmlPieces& AddNumber(Integer value, int base = 10) {
    char digits[24];
    const char* const end = std::to_chars(digits, digits + sizeof digits, value, base).ptr;
    return Add(std::string_view(digits, static_cast<size_t>(end - digits)));
  }

  XmlPieces& Add(std::string_view text) {
    if (text.size() > sizeof buffer_ - used_) [[unlikely]] {
      Flush();
      if (text.size() > sizeof buffer_) {
        Write(text.data(), text.size());
        return *this;
      }
    }
    std::memcpy(buffer_ + used_, text.data(), text.size());
    used_ += text.size();
    return *this;
  }
  XmlPieces& Add(char c) { return Add(std::string_view(&c, 1)); }

 private:
  XmlPieces& AddLineStart() {
    Add('\n');
    for (uint32_t left = file_->depth; left > 0;) {
      static constexpr std::string_view kTabs = "\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t";
      const std::string_view tabs = kTabs.substr(0, left);
      Add(tabs);
      left -= static_cast<uint32_t>(tabs.size());
    }
    return *this;
  }
  void LowerDepth() {
    if (file_->depth > 0) --file_->depth;
  }

  void Write(const char* text, size_t length) {
    if (isLocked_) {
      fwrite_unlocked(text, 1, length, file_->stream);
    } else {
      std::fwrite(text, 1, length, file_->stream);
    }
  }
  void Flush() {
    if (used_ > 0) Write(buffer_, used_);
    used_ = 0;
  }

  ZelXmlFile* const file_;
  const bool isLocked_;
  size_t used_ = 0;
  char buffer_[512];
};

}  // namespace zelrt
