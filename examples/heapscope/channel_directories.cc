#include "examples/heapscope/channel_directories.h"

#include <sys/sem.h>
#include <sys/shm.h>

#include <ctime>
#include <filesystem>
#include <system_error>

#include "examples/heapscope/commands.h"
#include "zelrt/command_channels.hpp"
#include "zelrt/command_controller.hpp"

namespace heapscope {
namespace {

constexpr time_t kSetUpSeconds = 60;  // a channel that is not there by then will not come

// Calls visit with each directory that is named as one of a channel.
template <typename Visit>
void ForEachDirectory(Visit visit) {
  std::error_code error;
  const std::string prefix = std::string(kChannelName) + ".";
  for (const auto& entry : std::filesystem::directory_iterator(zelrt::ChannelsDirectory(), error)) {
    if (entry.path().filename().string().starts_with(prefix)) visit(entry.path().string());
  }
}

// Calls visit with the directory and the state of each channel that can be looked at.
template <typename Visit>
void ForEachChannel(Visit visit) {
  ForEachDirectory([&](const std::string& directory) {
    zelrt::CommandController controller;
    zelrt::ChannelState state;
    if (controller.Open(directory) == zelrt::ControlResult::kDone &&
        controller.State(state) == zelrt::ControlResult::kDone)
      visit(directory, state);
  });
}

// Left by a process that took its channel down while an answer lay there, or was killed before it
// had one.
bool IsAbandoned(const std::string& directory) {
  struct stat status;
  zelrt::CommandController controller;
  return controller.Open(directory) == zelrt::ControlResult::kNoChannel &&
         lstat(directory.c_str(), &status) == 0 && status.st_mtime < time(nullptr) - kSetUpSeconds;
}

}  // namespace

std::string MakeChannel() {
  std::string directory;
  return zelrt::MakeChannelDirectory(kChannelName, directory) ? directory : "";
}

void RemoveChannel(const std::string& directory) {
  {
    zelrt::CommandController controller;
    controller.Open(directory);
    if (controller.segmentId() != -1) shmctl(controller.segmentId(), IPC_RMID, nullptr);
    // Their key has but 16 bits of the lock file's inode: they may be another channel's as well.
    const int semaphores = controller.semaphoreSet();
    if (semaphores != -1 && semctl(semaphores, ZEL_COMMAND_DOORBELL, GETNCNT) == 0)
      semctl(semaphores, 0, IPC_RMID);
  }
  std::error_code ignored;
  std::filesystem::remove_all(directory, ignored);
}

void RemoveStaleChannels() {
  ForEachChannel([](const std::string& directory, const zelrt::ChannelState& state) {
    if (state.isStale) RemoveChannel(directory);
  });
  ForEachDirectory([](const std::string& directory) {
    if (IsAbandoned(directory)) RemoveChannel(directory);
  });
}

std::string FindChannel(int process) {
  std::string found;
  ForEachChannel([&](const std::string& directory, const zelrt::ChannelState& state) {
    if (state.owner == process && !state.isStale) found = directory;
  });
  return found;
}

}  // namespace heapscope
