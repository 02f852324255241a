#include "tools/zelctl/channels.h"

#include <cstring>
#include <filesystem>
#include <fstream>

#include "tools/zelctl/exit_status.h"

namespace zelctl {

using zelrt::ControlResult;

namespace {

std::string ProcessName(int pid) {
  std::string name;
  std::getline(std::ifstream("/proc/" + std::to_string(pid) + "/comm"), name);
  return name;
}

bool HasLockFile(const std::filesystem::path& directory) {
  std::error_code ignored;
  const auto status = std::filesystem::symlink_status(directory / ZEL_COMMAND_LOCK_FILE, ignored);
  return std::filesystem::exists(status);
}

std::string FindByPid(int pid) {
  for (const std::string& directory : FindOwnChannels()) {
    const Channel channel = LookAt(directory);
    const bool hasState =
        channel.result == ControlResult::kDone || channel.result == ControlResult::kStale;
    if (hasState && channel.state.owner == pid) return directory;
  }
  throw Failure{kExitFailed, "process " + std::to_string(pid) + " has no channel in " +
                                 zelrt::ChannelsDirectory()};
}

}  // namespace

const char* Channel::StateName() const {
  switch (result) {
    case ControlResult::kDone:
      return "alive";
    case ControlResult::kStale:
      return "stale";
    case ControlResult::kNotReady:
      return "starting";
    case ControlResult::kNoChannel:
    case ControlResult::kGone:
      return "gone";
    case ControlResult::kRefused:
      return "refused";
    default:
      return "broken";
  }
}

Channel LookAt(const std::string& directory) {
  zelrt::CommandController controller;
  Channel channel = {directory, controller.Open(directory), {}, {}};
  if (channel.result == ControlResult::kDone) channel.result = controller.State(channel.state);
  if (channel.result != ControlResult::kDone) return channel;
  if (channel.state.isStale) {
    channel.result = ControlResult::kStale;
  } else {
    channel.process = ProcessName(channel.state.owner);
  }
  return channel;
}

nlohmann::json ToJson(const Channel& channel) {
  nlohmann::json object = {{"directory", channel.directory}, {"state", channel.StateName()}};
  if (channel.result != ControlResult::kDone && channel.result != ControlResult::kStale) {
    object["reason"] = zelrt::ControlResultText(channel.result);
    return object;
  }
  const zelrt::ChannelState& state = channel.state;
  object.update({{"pid", state.owner},
                 {"process", channel.process},
                 {"ready", state.isReady},
                 {"pending", state.pending},
                 {"attached", state.attached},
                 {"locked", state.isLocked},
                 {"lockUser", state.lockUser},
                 {"listening", state.isListening}});
  return object;
}

std::vector<std::string> FindChannels(const std::string& directory) {
  if (HasLockFile(directory)) return {directory};
  std::vector<std::string> found;
  std::error_code failed;
  for (std::filesystem::directory_iterator entry(directory, failed), end; !failed && entry != end;
       entry.increment(failed)) {
    if (HasLockFile(entry->path())) found.push_back(entry->path());
  }
  std::sort(found.begin(), found.end());
  return found;
}

std::vector<std::string> FindOwnChannels() {
  const std::string directory = zelrt::ChannelsDirectory();
  if (zelrt::IsPrivateDirectory(directory)) return FindChannels(directory);
  if (errno == ENOENT) return {};
  throw Failure{kExitFailed, directory + " is not a directory of this user alone: not used"};
}

std::string Resolve(const Target& target) {
  if (!target.directory.empty()) return target.directory;
  if (target.pid != 0) return FindByPid(target.pid);
  throw Failure{kExitUsage, "name a directory or --pid; `zelctl list` shows the channels"};
}

void Connect(const Target& target, zelrt::CommandController& controller) {
  Require(controller.Open(Resolve(target)), controller);
  zelrt::ChannelState state = {};
  Require(controller.State(state), controller);
  if (state.isStale) Require(ControlResult::kStale, controller);
}

void Require(ControlResult result, const zelrt::CommandController& controller) {
  if (result == ControlResult::kDone) return;
  const std::string reason = result == ControlResult::kSystem ? std::strerror(errno) : "";
  std::string text = zelrt::ControlResultText(result);
  if (!reason.empty()) text += ": " + reason;
  zelrt::ChannelState state = {};
  if (result == ControlResult::kStale && controller.State(state) == ControlResult::kDone) {
    text = "stale: process " + std::to_string(state.owner) +
           " is gone; `zelctl reap` removes what it left";
  }
  throw Failure{ExitStatusOf(result), controller.directory() + ": " + text};
}

}  // namespace zelctl
