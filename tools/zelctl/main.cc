// zelctl: steers collectors through their command channels.

#include <cstdio>
#include <exception>

#include "tools/zelctl/commands.h"
#include "tools/zelctl/output.h"

namespace {

using namespace zelctl;

struct Command {
  const char* name;
  ExitStatus (*run)(const Options& options);
};

constexpr Command kCommands[] = {
    {"list", List}, {"status", Status}, {"send", Send}, {"ping", Ping}, {"reap", Reap},
};

ExitStatus Run(const Options& options) {
  for (const Command& command : kCommands)
    if (options.command == command.name) return command.run(options);
  return kExitUsage;
}

int Report(const Options& options, const Failure& failure) {
  if (options.isJson) {
    PrintJson({{"error", failure.text}, {"status", static_cast<int>(failure.status)}});
  } else {
    std::fprintf(stderr, "zelctl: %s\n", Printable(failure.text).c_str());
  }
  return failure.status;
}

}  // namespace

int main(int argc, char** argv) {
  int exitStatus = kExitDone;
  Options options;
  try {
    options = ParseCommandLine(argc, argv, exitStatus);
    return options.command.empty() ? exitStatus : Run(options);
  } catch (const Failure& failure) {
    return Report(options, failure);
  } catch (const std::exception& error) {
    return Report(options, {kExitFailed, error.what()});
  }
}
