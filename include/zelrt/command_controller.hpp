// The controller's end of the command channel (zelrt/command.h), for a process that steers a
// collector in another one. Header only: nothing of the library is linked.
//
//   zelrt::CommandController controller;
//   zelrt::ControlResult result = controller.Open(directory);
//   if (result == zelrt::ControlResult::kDone)
//     result = controller.Send(zelrt::MakeCommand(7, {1, 2}), std::chrono::seconds(5));
//   if (result != zelrt::ControlResult::kDone) puts(zelrt::ControlResultText(result));
//
// Any number of controllers may use a channel at once: no command is lost or mixed with another,
// and those of one controller arrive in their order. A controller that is killed at any moment
// leaves the channel usable. Nothing waits longer than its time-out; with a time-out of 0 each call
// still tries once. An object is for one thread at a time. Nothing throws but the allocation of
// strings.
//
// What is read from the lock file, the segment and an answer is not trusted.
#ifndef ZELRT_COMMAND_CONTROLLER_HPP
#define ZELRT_COMMAND_CONTROLLER_HPP

#include <fcntl.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>

#include "zelrt/command.h"
#include "zelrt/command_channels.hpp"

namespace zelrt {

enum class ControlResult {
  kDone,
  kNoChannel,
  kNotReady,
  kGone,
  kStale,
  kRefused,
  kBroken,
  kLockHeld,
  kFull,
  kNoReply,
  kNoAnswer,
  kBadAnswer,
  kSystem,  // errno tells more
};

inline constexpr const char* kControlResultTexts[] = {
    "done",
    "there is no channel in the directory",
    "the channel is not set up yet",
    "the channel has been taken down",
    "the process of the channel is gone",
    "no permission to use the channel",
    "what is there is not a command channel",
    "timed out: another process holds the channel's lock",
    "timed out: the commands before it have not been taken",
    "timed out: the command thread does not answer the bell",
    "timed out: no answer has come",
    "the answer cannot be read",
    "the system has refused a call",
};
constexpr const char* ControlResultText(ControlResult result) {
  return kControlResultTexts[static_cast<size_t>(result)];
}

constexpr bool IsTimeout(ControlResult result) {
  return result >= ControlResult::kLockHeld && result <= ControlResult::kNoAnswer;
}

// A command of up to five arguments, the code being the first, and a payload, padded with zeros.
// What is too long is cut: compare with ZEL_COMMAND_PAYLOAD_SIZE before.
inline ZelCommandRecord MakeCommand(int32_t code, std::initializer_list<int32_t> others = {},
                                    std::string_view payload = {}) {
  ZelCommandRecord record = {};
  record.arguments[0] = code;
  std::copy_n(others.begin(), std::min<size_t>(others.size(), 4), record.arguments + 1);
  payload.copy(reinterpret_cast<char*>(record.payload), sizeof record.payload);
  return record;
}

struct ChannelState {
  int32_t owner;      // process that set the channel up; 0: it is in another pid namespace
  bool isStale;       // that process is gone
  bool isReady;       // the handler has set the segment up
  int32_t pending;    // commands that wait
  uint64_t attached;  // processes that have the segment attached, without this object
  bool isLocked;      // somebody holds the lock
  int32_t lockUser;   // process that took the lock, or gave it back, last
  bool isListening;   // the command thread waits for the doorbell; else it is busy, or not there
};

struct CommandAnswer {
  bool isOk = false;
  std::string text;  // without the first line
};

class CommandController {
 public:
  using Timeout = std::chrono::milliseconds;

  CommandController() {}
  ~CommandController() { Close(); }
  CommandController(const CommandController&) = delete;
  CommandController& operator=(const CommandController&) = delete;

  // Attaches the channel of a directory. That of a process that has gone can be opened too, to look
  // at its state. After a failure segmentId and semaphoreSet tell what had been found by then.
  ControlResult Open(const std::string& directory) {
    Close();
    directory_ = directory.empty() ? "." : directory;
    const std::string path = directory_ + "/" ZEL_COMMAND_LOCK_FILE;
    struct stat file;
    const ControlResult result = ReadLockFile(path, file);
    if (result != ControlResult::kDone) return result;
    semaphores_ = semget(ftok(path.c_str(), ZEL_COMMAND_KEY_PROJECT), 2, 0);
    if (semaphores_ == -1) return errno == EINVAL ? ControlResult::kBroken : FromErrno();

    shmid_ds segment;
    if (shmctl(segmentId_, IPC_STAT, &segment) != 0) return FromErrno();
    // The segment is of whoever made the lock file: else a lock file could point a controller of
    // root at any segment of any user.
    if (segment.shm_segsz != sizeof(ZelCommandSegment) || segment.shm_perm.cuid != file.st_uid)
      return ControlResult::kBroken;
    if ((segment.shm_perm.mode & SHM_DEST) != 0) return ControlResult::kGone;
    void* const attached = shmat(segmentId_, nullptr, 0);
    if (attached == reinterpret_cast<void*>(-1)) return FromErrno();
    segment_ = static_cast<ZelCommandSegment*>(attached);
    owner_ = file.st_uid;
    return ControlResult::kDone;
  }

  void Close() {
    if (segment_ != nullptr) shmdt(segment_);
    segment_ = nullptr;
    segmentId_ = semaphores_ = -1;
  }

  const std::string& directory() const { return directory_; }
  int segmentId() const { return segmentId_; }      // -1: not found
  int semaphoreSet() const { return semaphores_; }  // -1: not found

  // Queues the commands in their order and rings the doorbell. When five wait already it waits for
  // room; commands of other controllers may come between. Stores how many were queued, also on
  // failure, where there is a place for it.
  ControlResult Send(std::span<const ZelCommandRecord> records, Timeout timeout,
                     size_t* queued = nullptr) {
    const auto deadline = Clock::now() + timeout;
    const size_t total = records.size();
    ControlResult result = Check();
    while (result == ControlResult::kDone && !records.empty()) {
      result = WaitForRoom(deadline);
      if (result == ControlResult::kDone) result = QueueWhatFits(records, deadline);
    }
    if (queued != nullptr) *queued = total - records.size();
    return result;
  }
  ControlResult Send(const ZelCommandRecord& record, Timeout timeout) {
    return Send(std::span(&record, 1), timeout);
  }

  // Rings the doorbell, without a command, and waits until the command thread has taken the ring:
  // it is alive and not in a callback any more. Commands that had not been announced are delivered.
  ControlResult Ping(Timeout timeout) {
    // Two: the system hands the first to a thread that waits without waiting for it to run. The
    // second is taken when the thread comes back.
    sembuf ring = {ZEL_COMMAND_DOORBELL, 2, 0};
    ControlResult result = Check();
    if (result != ControlResult::kDone) return result;
    if (semop(semaphores_, &ring, 1) != 0 && errno != ERANGE) return FromErrno();
    sembuf untilZero = {ZEL_COMMAND_DOORBELL, 0, 0};
    return Operate(untilZero, Clock::now() + timeout, ControlResult::kNoReply);
  }

  // Sends the command with a new ticket as fifth argument and waits for the answer to it (see
  // zelrt/command_channels.hpp). Returns kDone for an answer of either kind.
  ControlResult Request(ZelCommandRecord command, Timeout timeout, CommandAnswer& answer) {
    const auto deadline = Clock::now() + timeout;
    const int32_t ticket = NewTicket();
    const std::string path = AnswerPath(directory_, ticket);
    unlink(path.c_str());  // of an earlier process with this one's id
    command.arguments[4] = ticket;
    ControlResult result = Send(command, timeout);
    if (result != ControlResult::kDone) return result;
    for (;;) {
      // Checked before it is looked for: the last thing the process did may have been to answer.
      const ControlResult state = Check();
      const bool isLate = Clock::now() >= deadline;
      result = FetchAnswer(path, answer);
      if (result != ControlResult::kNoAnswer) return result;
      if (state != ControlResult::kDone) return state;
      if (isLate) return result;
      if (Pending() != 0) RingUnlessRung();
      Sleep();
    }
  }

  // Looks without waiting and without taking the lock: all of it may be out of date.
  ControlResult State(ChannelState& state) const {
    shmid_ds segment;
    if (segment_ == nullptr) return ControlResult::kNoChannel;
    if (shmctl(segmentId_, IPC_STAT, &segment) != 0) return FromErrno();
    if ((segment.shm_perm.mode & SHM_DEST) != 0) return ControlResult::kGone;
    const int lock = semctl(semaphores_, ZEL_COMMAND_LOCK, GETVAL);
    if (lock == -1) return FromErrno();
    state.owner = segment.shm_cpid;
    state.isStale = !HasOwner(segment);
    state.isReady = IsReady();
    state.pending = Pending();
    state.attached = segment.shm_nattch - 1;
    state.isLocked = lock == 0;
    state.lockUser = semctl(semaphores_, ZEL_COMMAND_LOCK, GETPID);
    state.isListening = semctl(semaphores_, ZEL_COMMAND_DOORBELL, GETNCNT) > 0;
    return ControlResult::kDone;
  }

 private:
  using Clock = std::chrono::steady_clock;

  static ControlResult FromErrno() {
    switch (errno) {
      case EINVAL:
      case EIDRM:
      case ENOENT:
        return ControlResult::kGone;
      case EACCES:
      case EPERM:
        return ControlResult::kRefused;
      default:
        return ControlResult::kSystem;
    }
  }

  static void Sleep() {
    const timespec moment = {0, 1'000'000};
    nanosleep(&moment, nullptr);
  }

  ControlResult ReadLockFile(const std::string& path, struct stat& file) {
    // Not to wait for the other end of a pipe that somebody has put there.
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (descriptor == -1) {
      if (errno == ENOENT || errno == ENOTDIR) return ControlResult::kNoChannel;
      return errno == ELOOP ? ControlResult::kBroken : FromErrno();
    }
    const bool isFile = fstat(descriptor, &file) == 0 && S_ISREG(file.st_mode);
    int32_t id;
    const ssize_t got = isFile ? read(descriptor, &id, sizeof id) : 0;
    close(descriptor);
    if (!isFile) return ControlResult::kBroken;
    if (got != sizeof id) return ControlResult::kNotReady;
    segmentId_ = id;
    return id < 0 ? ControlResult::kBroken : ControlResult::kDone;
  }

  // When nobody but this object has the segment attached there is no process either: another has
  // its id by now, or its parent has not asked for its end yet. The process attaches the segment
  // before it says that it is ready.
  bool HasOwner(const shmid_ds& segment) const {
    const pid_t owner = segment.shm_cpid;
    if (owner > 0 && kill(owner, 0) != 0 && errno == ESRCH) return false;
    return segment.shm_nattch > 1 || !IsReady();
  }

  ControlResult Check() const {
    shmid_ds segment;
    if (segment_ == nullptr) return ControlResult::kNoChannel;
    if (shmctl(segmentId_, IPC_STAT, &segment) != 0) return FromErrno();
    // The semaphores may live on for the next process.
    if ((segment.shm_perm.mode & SHM_DEST) != 0) return ControlResult::kGone;
    return HasOwner(segment) ? ControlResult::kDone : ControlResult::kStale;
  }

  ControlResult Operate(sembuf operation, Clock::time_point deadline, ControlResult whenLate) {
    constexpr Timeout kLookAround(100);  // how soon it notices that the other side is gone
    for (;;) {
      const ControlResult state = Check();
      if (state != ControlResult::kDone) return state;
      const auto left = deadline - Clock::now();
      const auto slice = std::clamp<std::chrono::nanoseconds>(left, Timeout(0), kLookAround);
      const timespec limit = {0, static_cast<long>(slice.count())};
      if (semtimedop(semaphores_, &operation, 1, &limit) == 0) return ControlResult::kDone;
      if (errno != EAGAIN && errno != EINTR) return FromErrno();
      if (left.count() <= 0) return whenLate;
    }
  }

  bool IsReady() const { return std::atomic_ref(segment_->isReady).load() == 1; }
  int32_t Pending() const {
    return std::clamp(std::atomic_ref(segment_->pending).load(), 0, ZEL_COMMAND_CAPACITY);
  }

  // Repeats a ring that the command thread spent on a lock that was held, perhaps by a process that
  // has been killed with it.
  bool RingUnlessRung() const {
    sembuf operations[] = {{ZEL_COMMAND_DOORBELL, 0, IPC_NOWAIT}, {ZEL_COMMAND_DOORBELL, 1, 0}};
    return semop(semaphores_, operations, 2) == 0 || errno == EAGAIN;
  }

  // Without the lock: the command thread does not wait for it, and would find it held again and
  // again.
  ControlResult WaitForRoom(Clock::time_point deadline) {
    while (Pending() == ZEL_COMMAND_CAPACITY) {
      if (!RingUnlessRung()) return FromErrno();
      const ControlResult state = Check();
      if (state != ControlResult::kDone) return state;
      if (Clock::now() >= deadline) return ControlResult::kFull;
      Sleep();
    }
    return ControlResult::kDone;
  }

  ControlResult QueueWhatFits(std::span<const ZelCommandRecord>& records,
                              Clock::time_point deadline) {
    ControlResult result =
        Operate({ZEL_COMMAND_LOCK, -1, SEM_UNDO}, deadline, ControlResult::kLockHeld);
    if (result != ControlResult::kDone) return result;
    result = Check();  // the lock may be that of a later channel already
    if (result == ControlResult::kDone && !IsReady()) result = ControlResult::kNotReady;
    size_t count = 0;
    if (result == ControlResult::kDone) {
      const auto pending = static_cast<size_t>(Pending());
      count = std::min(records.size(), ZEL_COMMAND_CAPACITY - pending);
      std::memcpy(segment_->records + pending, records.data(), count * sizeof records[0]);
      std::atomic_ref(segment_->pending).store(static_cast<int32_t>(pending + count));
    }
    if (!UnlockAndRing()) return FromErrno();
    records = records.subspan(count);
    return result;
  }

  // In one operation: no kill can come between, and leave commands that nobody announces. The bell
  // rings whether anything was queued or not: the thread may have found the lock held meanwhile.
  bool UnlockAndRing() {
    sembuf operations[] = {{ZEL_COMMAND_LOCK, 1, SEM_UNDO}, {ZEL_COMMAND_DOORBELL, 1, 0}};
    if (semop(semaphores_, operations, 2) == 0) return true;
    return errno == ERANGE && semop(semaphores_, operations, 1) == 0;  // it rings no louder
  }

  // Unlike those of all other processes, and of the last 511 in this one.
  static int32_t NewTicket() {
    static std::atomic<uint32_t> count = 0;
    constexpr uint32_t kCountBits = 9;  // beside the 22 of the largest process id
    const uint32_t number = count++ % (1U << kCountBits);
    return static_cast<int32_t>((static_cast<uint32_t>(getpid()) << kCountBits | number) &
                                0x7FFFFFFF);
  }

  ControlResult FetchAnswer(const std::string& path, CommandAnswer& answer) const {
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (descriptor == -1)
      return errno == ENOENT ? ControlResult::kNoAnswer : ControlResult::kBadAnswer;
    constexpr off_t kMaxAnswer = off_t{64} << 20;
    struct stat file;
    std::string& text = answer.text;
    bool isGood = fstat(descriptor, &file) == 0 && S_ISREG(file.st_mode) && file.st_uid == owner_ &&
                  file.st_size <= kMaxAnswer;
    text.clear();
    if (isGood) {
      text.resize(static_cast<size_t>(file.st_size));
      isGood = read(descriptor, text.data(), text.size()) == file.st_size;
    }
    close(descriptor);
    unlink(path.c_str());
    const size_t end = text.find('\n');
    const std::string_view kind = std::string_view(text).substr(0, end);
    answer.isOk = kind == "ok";
    if (!isGood || (kind != "ok" && kind != "error")) return ControlResult::kBadAnswer;
    text.erase(0, end == std::string::npos ? end : end + 1);
    return ControlResult::kDone;
  }

  std::string directory_;
  ZelCommandSegment* segment_ = nullptr;  // null: not open
  int segmentId_ = -1;                    // -1: not found, here and below
  int semaphores_ = -1;
  uid_t owner_ = 0;  // of the lock file and the segment
};

}  // namespace zelrt

#endif
