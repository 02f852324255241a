#include "examples/heapscope/report/terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>

namespace heapscope::report {

Style Style::Of(FILE* stream) {
  Style style;
  const int descriptor = fileno(stream);
  if (isatty(descriptor) == 0) return style;
  const char* const kind = std::getenv("TERM");
  const char* const noColour = std::getenv("NO_COLOR");
  style.hasColours = kind != nullptr && std::string_view(kind) != "dumb" &&
                     (noColour == nullptr || noColour[0] == '\0');
  winsize size = {};
  style.width = ioctl(descriptor, TIOCGWINSZ, &size) == 0 && size.ws_col != 0 ? size.ws_col : 80;
  return style;
}

std::string Style::Coloured(std::string_view code, std::string_view text) const {
  if (!hasColours || text.empty()) return std::string(text);
  return "\033[" + std::string(code) + "m" + std::string(text) + "\033[0m";
}

Progress::Progress(std::string step)
    : step_(std::move(step)),
      isWanted_(isatty(STDERR_FILENO) != 0),
      next_(Clock::now() + std::chrono::seconds(1)) {}

Progress::~Progress() {
  if (isShown_) std::fputs("\r\033[K", stderr);
}

void Progress::Show(size_t done, size_t all) {
  if (!isWanted_ || Clock::now() < next_) return;
  next_ = Clock::now() + std::chrono::milliseconds(200);
  isShown_ = true;
  std::fprintf(stderr, "\r\033[K%s: %zu%%", step_.c_str(), all != 0 ? done * 100 / all : 0);
}

}  // namespace heapscope::report
