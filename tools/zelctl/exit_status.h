// What the program's exit status says.
#pragma once

#include <string>

#include "zelrt/command_controller.hpp"

namespace zelctl {

enum ExitStatus {
  kExitDone = 0,
  kExitFailed = 1,  // no channel, or it could not be done
  kExitUsage = 2,
  kExitStale = 3,  // the channel's process is gone
  kExitTimeout = 4,
};

// Ends the command; main prints the text.
struct Failure {
  ExitStatus status;
  std::string text;
};

inline ExitStatus ExitStatusOf(zelrt::ControlResult result) {
  if (result == zelrt::ControlResult::kDone) return kExitDone;
  if (result == zelrt::ControlResult::kStale) return kExitStale;
  return zelrt::IsTimeout(result) ? kExitTimeout : kExitFailed;
}

}  // namespace zelctl
