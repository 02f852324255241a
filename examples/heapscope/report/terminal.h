// What a terminal can show, and how far a long step is.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdio>
#include <string>
#include <string_view>

namespace heapscope::report {

struct Style {
  bool hasColours = false;
  size_t width = 0;  // in columns; 0 when nothing has to be cut

  static Style Of(FILE* stream);  // plain and of any width unless it is a terminal

  std::string Title(std::string_view text) const { return Coloured("1", text); }
  std::string Strong(std::string_view text) const { return Coloured("36", text); }
  std::string Faint(std::string_view text) const { return Coloured("2", text); }
  std::string Warning(std::string_view text) const { return Coloured("33", text); }

 private:
  std::string Coloured(std::string_view code, std::string_view text) const;
};

// A line on standard error, if that is a terminal, for a step that takes more than a second.
class Progress {
 public:
  explicit Progress(std::string step);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void Show(size_t done, size_t all);

 private:
  using Clock = std::chrono::steady_clock;
  const std::string step_;
  const bool isWanted_;
  bool isShown_ = false;
  Clock::time_point next_;
};

}  // namespace heapscope::report
