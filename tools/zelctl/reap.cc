// Removes what a dead process has left of its channel: segment, semaphores, answers that nobody
// fetched, lock file, and a directory of its own.
//
// Nothing of a live process may go, and the semaphores can be shared with one: their key has but 16
// bits of the lock file's inode. So they stay, and all else with them, while there is any sign of a
// live user.

#include <sys/sem.h>
#include <sys/shm.h>

#include <cctype>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <system_error>

#include "tools/zelctl/channels.h"
#include "tools/zelctl/commands.h"
#include "tools/zelctl/output.h"

namespace zelctl {

using zelrt::ControlResult;

namespace {

constexpr time_t kSetUpSeconds = 60;  // a process that has not set its channel up by then is dead

struct Reaped {
  std::string directory;
  std::string reason;                // why it was kept; empty when it was not
  std::vector<std::string> removed;  // what was removed
};

bool IsAlive(pid_t pid) { return pid > 0 && (kill(pid, 0) == 0 || errno != ESRCH); }

// A process that still uses the semaphores, with a word on it; empty when there is no sign of one.
// That of the channel itself is known to be gone, whoever has its id now.
std::string UserOfSemaphores(int set, pid_t owner) {
  if (set == -1) return "";
  for (const int number : {ZEL_COMMAND_DOORBELL, ZEL_COMMAND_LOCK}) {
    if (semctl(set, number, GETNCNT) > 0) return "a process waits for its semaphores";
    const pid_t user = semctl(set, number, GETPID);
    if (user != owner && user != getpid() && IsAlive(user))
      return "process " + std::to_string(user) + " has used its semaphores and is alive";
  }
  return "";
}

std::string WhyIsSegmentInUse(const zelrt::CommandController& controller, pid_t& owner) {
  shmid_ds segment;
  if (controller.segmentId() == -1 || shmctl(controller.segmentId(), IPC_STAT, &segment) != 0)
    return "";
  owner = segment.shm_cpid;
  zelrt::ChannelState state = {};
  const bool isAlive = controller.State(state) == ControlResult::kDone
                           ? !state.isStale
                           : segment.shm_nattch > 0 && (owner == 0 || IsAlive(owner));
  return isAlive ? "process " + std::to_string(owner) + " is alive" : "";
}

bool IsLockFileNew(const std::string& path) {
  struct stat file;
  return lstat(path.c_str(), &file) != 0 || file.st_mtime > time(nullptr) - kSetUpSeconds;
}

// Empty when all of it may go.
std::string WhyKept(const zelrt::CommandController& controller, ControlResult result,
                    const std::string& lockFile) {
  switch (result) {
    case ControlResult::kDone:
    case ControlResult::kGone:
      break;
    case ControlResult::kNotReady:
      if (!IsLockFileNew(lockFile)) break;
      [[fallthrough]];
    default:
      return zelrt::ControlResultText(result);
  }
  pid_t owner = -1;
  const std::string use = WhyIsSegmentInUse(controller, owner);
  return use.empty() ? UserOfSemaphores(controller.semaphoreSet(), owner) : use;
}

// Removals note what they did; what is not there any more is no failure. Objects go only when they
// are of the lock file's owner: root must not be led to those of others.
class Remover {
 public:
  Remover(uid_t owner, Reaped& reaped) : owner_(owner), reaped_(reaped) {}

  void Segment(int id) {
    shmid_ds segment;
    // It can have been removed, and the id given to another, since it was looked at.
    if (id == -1 || shmctl(id, IPC_STAT, &segment) != 0) return;
    if (segment.shm_segsz != sizeof(ZelCommandSegment) || segment.shm_perm.cuid != owner_) return;
    Note(shmctl(id, IPC_RMID, nullptr) == 0, "segment " + std::to_string(id));
  }
  void Semaphores(int set) {
    semid_ds semaphores;
    if (set == -1 || semctl(set, 0, IPC_STAT, &semaphores) != 0) return;
    if (semaphores.sem_perm.cuid != owner_) return;
    Note(semctl(set, 0, IPC_RMID) == 0, "semaphores " + std::to_string(set));
  }
  void File(const std::string& path) { Note(unlink(path.c_str()) == 0, path); }

  // A directory as mkdtemp names it, when nothing is left in it.
  void OwnDirectory(const std::string& directory) {
    constexpr size_t kSuffix = 7;  // ".XXXXXX"
    std::error_code failed;
    const auto path = std::filesystem::canonical(directory, failed);
    const std::string name = path.filename();
    if (failed || name.size() <= kSuffix || name[name.size() - kSuffix] != '.') return;
    for (size_t i = name.size() - kSuffix + 1; i < name.size(); ++i)
      if (std::isalnum(static_cast<unsigned char>(name[i])) == 0) return;
    if (rmdir(path.c_str()) == 0) reaped_.removed.push_back(path);
  }

 private:
  void Note(bool isRemoved, const std::string& what) {
    const int reason = errno;
    if (isRemoved) {
      reaped_.removed.push_back(what);
    } else if (reason != ENOENT && reason != EINVAL && reason != EIDRM) {
      reaped_.reason = what + ": " + std::generic_category().message(reason);
    }
  }

  uid_t owner_;
  Reaped& reaped_;
};

std::vector<std::string> FindAnswers(const std::string& directory) {
  std::vector<std::string> answers;
  std::error_code failed;
  for (std::filesystem::directory_iterator entry(directory, failed), end; !failed && entry != end;
       entry.increment(failed)) {
    const std::string name = entry->path().filename();
    if (name.starts_with("answer.") || name.starts_with(".answer."))
      answers.push_back(entry->path());
  }
  return answers;
}

Reaped ReapChannel(const std::string& directory) {
  Reaped reaped = {directory, {}, {}};
  const std::string lockFile = directory + "/" ZEL_COMMAND_LOCK_FILE;
  zelrt::CommandController controller;
  const ControlResult result = controller.Open(directory);
  reaped.reason = WhyKept(controller, result, lockFile);
  if (!reaped.reason.empty()) return reaped;

  const int segment = controller.segmentId();
  const int semaphores = controller.semaphoreSet();
  controller.Close();
  struct stat file;
  if (lstat(lockFile.c_str(), &file) != 0) return reaped;  // another was faster
  Remover remove(file.st_uid, reaped);
  remove.Segment(segment);
  remove.Semaphores(semaphores);
  // What leads to the rest goes last, so that an interrupted or failed reap can be repeated.
  if (!reaped.reason.empty()) return reaped;
  for (const std::string& answer : FindAnswers(directory)) remove.File(answer);
  remove.File(lockFile);
  remove.OwnDirectory(directory);
  return reaped;
}

void Print(const Reaped& reaped) {
  for (const std::string& what : reaped.removed)
    std::printf("removed %s\n", Printable(what).c_str());
  if (!reaped.reason.empty())
    std::printf("kept %s: %s\n", Printable(reaped.directory).c_str(), reaped.reason.c_str());
}

}  // namespace

ExitStatus Reap(const Options& options) {
  const bool isForAll = options.target.directory.empty() && options.target.pid == 0;
  const std::vector<std::string> directories =
      isForAll ? FindOwnChannels() : std::vector{Resolve(options.target)};
  nlohmann::json rows = nlohmann::json::array();
  ExitStatus status = kExitDone;
  for (const std::string& directory : directories) {
    const Reaped reaped = ReapChannel(directory);
    if (!reaped.reason.empty() && !isForAll) status = kExitFailed;
    if (options.isJson) {
      rows.push_back({{"directory", reaped.directory}, {"removed", reaped.removed}});
      if (!reaped.reason.empty()) rows.back()["kept"] = reaped.reason;
    } else {
      Print(reaped);
    }
  }
  if (options.isJson) PrintJson({{"channels", rows}});
  return status;
}

}  // namespace zelctl
