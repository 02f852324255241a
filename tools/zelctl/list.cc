// list and status: look, and change nothing.

#include <cstdio>

#include "tools/zelctl/channels.h"
#include "tools/zelctl/commands.h"
#include "tools/zelctl/output.h"

namespace zelctl {

using zelrt::ControlResult;

namespace {

void PrintRow(const Channel& channel) {
  const bool hasState =
      channel.result == ControlResult::kDone || channel.result == ControlResult::kStale;
  const std::string process = channel.process.empty() ? "-" : channel.process;
  std::printf("%8d  %-15s  %-8s  %7d  %s\n", hasState ? channel.state.owner : 0,
              Printable(process).c_str(), channel.StateName(), hasState ? channel.state.pending : 0,
              Printable(channel.directory).c_str());
}

void PrintStatus(const Channel& channel) {
  const zelrt::ChannelState& state = channel.state;
  std::printf("directory  %s\n", Printable(channel.directory).c_str());
  std::printf("process    %d %s\n", state.owner, Printable(channel.process).c_str());
  std::printf("state      %s%s\n", channel.StateName(), state.isReady ? "" : ", not ready");
  std::printf("pending    %d of %d\n", state.pending, ZEL_COMMAND_CAPACITY);
  std::printf("attached   %llu\n", static_cast<unsigned long long>(state.attached));
  std::printf("lock       %s, last used by process %d\n", state.isLocked ? "held" : "free",
              state.lockUser);
  std::printf("thread     %s\n", state.isListening ? "waits for commands" : "busy, or not there");
}

}  // namespace

ExitStatus List(const Options& options) {
  std::vector<std::string> directories;
  ExitStatus status = kExitDone;
  if (options.directories.empty()) directories = FindOwnChannels();
  for (const std::string& given : options.directories) {
    const std::vector<std::string> found = FindChannels(given);
    if (found.empty()) {
      std::fprintf(stderr, "zelctl: %s: no channel\n", Printable(given).c_str());
      status = kExitFailed;
    }
    directories.insert(directories.end(), found.begin(), found.end());
  }

  nlohmann::json rows = nlohmann::json::array();
  if (!options.isJson && !directories.empty())
    std::printf("%8s  %-15s  %-8s  %7s  %s\n", "PID", "PROCESS", "STATE", "PENDING", "DIRECTORY");
  for (const std::string& directory : directories) {
    const Channel channel = LookAt(directory);
    if (options.isJson) {
      rows.push_back(ToJson(channel));
    } else {
      PrintRow(channel);
    }
  }
  if (options.isJson) PrintJson({{"channels", rows}});
  return status;
}

ExitStatus Status(const Options& options) {
  const Channel channel = LookAt(Resolve(options.target));
  const ExitStatus status = ExitStatusOf(channel.result);
  if (status != kExitDone && status != kExitStale)
    throw Failure{status, channel.directory + ": " + zelrt::ControlResultText(channel.result)};
  if (options.isJson) {
    PrintJson(ToJson(channel));
  } else {
    PrintStatus(channel);
  }
  if (status == kExitStale && !options.isJson)
    std::fprintf(stderr, "zelctl: stale: process %d is gone; `zelctl reap` removes what it left\n",
                 channel.state.owner);
  return status;
}

}  // namespace zelctl
