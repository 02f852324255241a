// Reads a text file by lines, for the small files under /proc.
//
// Not a stream of the C library: that allocates from the host's heap, and can land on a standard
// descriptor which the host had closed and expects to stay so.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>

namespace zelrt {

class LineReader {
 public:
  explicit LineReader(const char* path) : descriptor_(OpenAboveStandard(path)) {}
  ~LineReader() {
    if (descriptor_ >= 0) close(descriptor_);
  }
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;

  bool IsOpen() const { return descriptor_ >= 0; }

  // Stores the next line and a NUL, without its line break. A line that does not fit comes in
  // pieces. False at the end of the file, and when it cannot be read.
  bool Next(char* line, size_t size) {
    size_t length = 0;
    while (length + 1 < size) {
      if (position_ == filled_ && !Fill()) break;
      const char c = buffer_[position_++];
      if (c == '\n') {
        line[length] = '\0';
        return true;
      }
      line[length++] = c;
    }
    line[length] = '\0';
    return length > 0;
  }

 private:
  static int OpenAboveStandard(const char* path) {
    const int opened = open(path, O_RDONLY | O_CLOEXEC);
    if (opened < 0 || opened > STDERR_FILENO) return opened;
    const int moved = fcntl(opened, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    close(opened);
    return moved;
  }

  bool Fill() {
    ssize_t got;
    do {
      got = read(descriptor_, buffer_, sizeof buffer_);
    } while (got < 0 && errno == EINTR);
    position_ = 0;
    filled_ = got > 0 ? static_cast<size_t>(got) : 0;
    return filled_ > 0;
  }

  const int descriptor_;
  size_t position_ = 0;
  size_t filled_ = 0;
  char buffer_[4096];
};

}  // namespace zelrt
