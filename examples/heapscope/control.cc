#include "examples/heapscope/control.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "examples/heapscope/channel_directories.h"
#include "examples/heapscope/commands.h"
#include "zelrt/command_controller.hpp"

namespace heapscope {
namespace {

constexpr std::chrono::seconds kTimeout(10);  // a snapshot of many sites takes a while
constexpr int kNoAnswer = 125;                // as the launcher's own failures

struct ControlForm {
  const char* name;
  CommandCode code;
  int arguments;  // with the process
};
constexpr ControlForm kControls[] = {
    {"status", CommandCode::kStatus, 1}, {"snapshot", CommandCode::kSnapshot, 1},
    {"where", CommandCode::kWhere, 2},   {"pause", CommandCode::kPause, 1},
    {"resume", CommandCode::kResume, 1}, {"reset", CommandCode::kReset, 1},
};

const ControlForm* FindControl(const char* name) {
  for (const ControlForm& control : kControls) {
    if (std::strcmp(name, control.name) == 0) return &control;
  }
  return nullptr;
}

int FailWith(const std::string& text) {
  std::fprintf(stderr, "heapscope: %s\n", text.c_str());
  return kNoAnswer;
}

// A process's number, or the directory itself.
std::string DirectoryOf(const char* target) {
  char* end;
  const long process = std::strtol(target, &end, 10);
  return *end == '\0' && process > 0 ? FindChannel(static_cast<int>(process)) : target;
}

}  // namespace

bool IsControl(const char* name) { return FindControl(name) != nullptr; }

int Control(int argc, char** argv) {
  const ControlForm* const control = FindControl(argv[1]);
  if (argc != 2 + control->arguments) {
    return FailWith(std::string("usage: heapscope ") + control->name + " PROCESS|DIRECTORY" +
                    (control->arguments > 1 ? " ADDRESS" : "") +
                    "; a program of that name stands behind --");
  }
  const std::string directory = DirectoryOf(argv[2]);
  if (directory.empty()) return FailWith(std::string("no channel of process ") + argv[2]);
  const char* const payload = control->arguments > 1 ? argv[3] : "";
  if (std::strlen(payload) >= ZEL_COMMAND_PAYLOAD_SIZE) return FailWith("that is too long");

  zelrt::CommandController controller;
  zelrt::CommandAnswer answer;
  zelrt::ControlResult result = controller.Open(directory);
  if (result == zelrt::ControlResult::kDone) {
    result = controller.Request(
        zelrt::MakeCommand(static_cast<int32_t>(control->code), {}, payload), kTimeout, answer);
  }
  if (result != zelrt::ControlResult::kDone)
    return FailWith(directory + ": " + zelrt::ControlResultText(result));
  std::fputs(answer.text.c_str(), answer.isOk ? stdout : stderr);
  return answer.isOk ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace heapscope
