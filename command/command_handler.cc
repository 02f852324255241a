// The handler's end of the command channel.
//
// The segment is shared with another process, which may write to it at any moment, lock or not:
// what is decided on is read once, and records are used from a copy.
//
// Locks, outermost first: g_segmentInUse, which keeps the segment attached while a thread looks
// into it; the semaphore over the segment, which is shared with the controller and never waited
// for. No callback runs under either.

#include <fcntl.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include "command/internal.h"
#include "runtime/atomics.h"
#include "runtime/spin_flag.h"
#include "zelrt/files.h"

namespace zelrt {

static_assert(offsetof(ZelCommandRecord, payload) == 20);
static_assert(sizeof(ZelCommandRecord) == 4372);
static_assert(offsetof(ZelCommandSegment, pending) == 4);
static_assert(offsetof(ZelCommandSegment, records) == 8);
static_assert(sizeof(ZelCommandSegment) == 21868);

namespace {

constexpr int kNone = -1;
constexpr int kSemaphores = 2;
constexpr int kSetMode = 0666;      // whoever can read the lock file may steer
constexpr int kPrivateMode = 0600;  // of the lock file and the segment

constinit SpinFlag g_segmentInUse;

// What semctl takes as fourth argument; the headers leave it to the caller.
union SemaphoreArgument {
  int value;
};

bool SetSemaphore(int set, int number, int value) {
  return semctl(set, number, SETVAL, SemaphoreArgument{value}) == 0;
}

// Removes the segment that the lock file still names when the process that made it was killed, or
// has become another program, or when nobody has it attached any more.
void RemoveOrphan(int lockFile) {
  int32_t id;
  shmid_ds status;
  if (pread(lockFile, &id, sizeof id, 0) != sizeof id) return;
  if (shmctl(id, IPC_STAT, &status) != 0) return;
  if (status.shm_segsz != sizeof(ZelCommandSegment) || status.shm_perm.cuid != geteuid()) return;
  const bool isMakerGone =
      status.shm_cpid == getpid() || (kill(status.shm_cpid, 0) != 0 && errno == ESRCH);
  if (isMakerGone || status.shm_nattch == 0) shmctl(id, IPC_RMID, nullptr);
}

// The host may have closed the descriptor, and got its number for a file of its own since.
void CloseLockFile(int descriptor, const char* path) {
  struct stat open, named;
  if (descriptor == kNone || fstat(descriptor, &open) != 0) return;
  const bool isNamed = stat(path, &named) == 0;
  const bool isOurs = isNamed ? open.st_dev == named.st_dev && open.st_ino == named.st_ino
                              : S_ISREG(open.st_mode) && open.st_nlink == 0;
  if (isOurs) close(descriptor);
}

// Stores the path of the lock file in a buffer of that size. False when it does not fit.
bool BuildLockFilePath(const char* directory, char* path, size_t size) {
  const size_t length = strnlen(directory, size);
  if (length == size) return false;
  std::memcpy(path, directory, length + 1);
  __ZelSanitizePath(path);
  size_t end = std::strlen(path);
  if (end > 0 && path[end - 1] != '/') path[end++] = '/';
  if (end + sizeof ZEL_COMMAND_LOCK_FILE > size) return false;
  std::memcpy(path + end, ZEL_COMMAND_LOCK_FILE, sizeof ZEL_COMMAND_LOCK_FILE);
  return true;
}

}  // namespace

CollectorCommandHandler g_commandHandler;

bool CommandHandlerInternals::IsUp(const CollectorCommandHandler& handler) {
  return LoadAcquire(handler.segment_) != nullptr;
}

bool CommandHandlerInternals::WaitForDoorbell(const CollectorCommandHandler& handler,
                                              intptr_t seconds) {
  sembuf take = {ZEL_COMMAND_DOORBELL, -1, 0};
  const timespec interval = {seconds, 0};
  return semtimedop(LoadRelaxed(handler.semaphores_), &take, 1,
                    seconds != 0 ? &interval : nullptr) == 0;
}

void CommandHandlerInternals::RingDoorbell(const CollectorCommandHandler& handler) {
  sembuf ring = {ZEL_COMMAND_DOORBELL, 1, SEM_UNDO};
  semop(handler.semaphores_, &ring, 1);
}

void CommandHandlerInternals::Forget(CollectorCommandHandler& handler) {
  // The thread that may have held it is not in this process.
  g_segmentInUse = SpinFlag();
  if (handler.segment_ != nullptr) shmdt(handler.segment_);
  CloseLockFile(handler.lockFile_, handler.lockFilePath_);
  handler.segment_ = nullptr;
  handler.lockFilePath_[0] = '\0';
  handler.lockFile_ = handler.segmentId_ = handler.semaphores_ = kNone;
}

// Lock file, semaphores, segment, in this order. What was made until a failure is the handler's.
bool CommandHandlerInternals::Create(CollectorCommandHandler& handler) {
  const key_t key = ftok(handler.lockFilePath_, ZEL_COMMAND_KEY_PROJECT);
  if (key == -1) return false;
  handler.semaphores_ = semget(key, kSemaphores, IPC_CREAT | kSetMode);
  if (handler.semaphores_ == kNone) return false;
  // Held while the segment is set up.
  if (!SetSemaphore(handler.semaphores_, ZEL_COMMAND_LOCK, 0)) return false;

  RemoveOrphan(handler.lockFile_);
  handler.segmentId_ = shmget(IPC_PRIVATE, sizeof(ZelCommandSegment), IPC_CREAT | kPrivateMode);
  if (handler.segmentId_ == kNone) return false;
  const int32_t id = handler.segmentId_;
  if (write(handler.lockFile_, &id, sizeof id) != sizeof id) return false;

  if (!SetSemaphore(handler.semaphores_, ZEL_COMMAND_DOORBELL, 0)) return false;
  void* const attached = shmat(handler.segmentId_, nullptr, 0);
  if (attached == reinterpret_cast<void*>(-1)) return false;
  StoreRelease(handler.segment_, static_cast<ZelCommandSegment*>(attached));
  return true;
}

}  // namespace zelrt

using namespace zelrt;

CollectorCommandHandler::CollectorCommandHandler()
    : segment_(nullptr),
      lockFilePath_(),
      callback_(nullptr),
      userData_(nullptr),
      lockFile_(kNone),
      segmentId_(kNone),
      semaphores_(kNone),
      lockOperation_{ZEL_COMMAND_LOCK, 0, IPC_NOWAIT | SEM_UNDO} {}

CollectorCommandHandler::~CollectorCommandHandler() = default;

int CollectorCommandHandler::initializeCommandHandler(const char* directory,
                                                      ZelCommandCallback callback, void* userData) {
  if (callback == nullptr || directory == nullptr || segment_ != nullptr) return 0;
  char path[sizeof lockFilePath_];
  if (!BuildLockFilePath(directory, path, sizeof path)) return 0;
  std::memcpy(lockFilePath_, path, sizeof path);
  if (createSharedMemoryAndLockFile() == 0) return 0;
  std::memset(segment_, 0, sizeof *segment_);
  segment_->isReady = 1;
  releaseLock();
  callback_ = callback;
  userData_ = userData;
  return 1;
}

int CollectorCommandHandler::createSharedMemoryAndLockFile() {
  lockFile_ = safeOpen(lockFilePath_, O_RDWR | O_CREAT | O_CLOEXEC, kPrivateMode);
  if (lockFile_ == kNone) {
    lockFilePath_[0] = '\0';  // what is there is not ours
    return 0;
  }
  if (CommandHandlerInternals::Create(*this)) return 1;
  destroySharedMemoryAndLockFile(ZELCMDHDLR_CLEAN_ALL);
  return 0;
}

void CollectorCommandHandler::destroySharedMemoryAndLockFile(_ZELCMDHDLRCLEANEXTENT extent) {
  ZelCommandSegment* const attached = segment_;
  {
    const SpinFlagGuard guard(g_segmentInUse);
    StoreRelease(segment_, nullptr);
  }
  if (attached != nullptr) shmdt(attached);
  if (segmentId_ != kNone) shmctl(segmentId_, IPC_RMID, nullptr);
  segmentId_ = kNone;

  const bool isFull = extent != ZELCMDHDLR_CLEAN_PARTIAL;
  if (isFull && semaphores_ != kNone) {
    semctl(semaphores_, 0, IPC_RMID);
    StoreRelaxed(semaphores_, kNone);
  }
  CloseLockFile(lockFile_, lockFilePath_);
  lockFile_ = kNone;
  if (isFull && lockFilePath_[0] != '\0') {
    unlink(lockFilePath_);
    lockFilePath_[0] = '\0';  // the name may be another process's from now on
  }
}

void CollectorCommandHandler::cleanupCommandHandler(_ZELCMDHDLRCLEANEXTENT extent) {
  destroySharedMemoryAndLockFile(extent);
}

int CollectorCommandHandler::acquireLock() {
  lockOperation_.sem_op = -1;
  return semop(semaphores_, &lockOperation_, 1) == 0 ? 1 : 0;
}

int CollectorCommandHandler::releaseLock() {
  lockOperation_.sem_op = 1;
  return semop(semaphores_, &lockOperation_, 1);
}

int CollectorCommandHandler::processCommands() {
  ZelCommandRecord records[ZEL_COMMAND_CAPACITY];
  int32_t count;
  ZelCommandCallback callback;  // of this channel: there may be another before the last record
  void* userData;
  {
    const SpinFlagGuard guard(g_segmentInUse);
    if (segment_ == nullptr) return -1;
    callback = callback_;
    userData = userData_;
    if (LoadRelaxed(segment_->pending) == 0) return 0;
    if (acquireLock() == 0) return 1;
    count = std::clamp(LoadRelaxed(segment_->pending), 0, ZEL_COMMAND_CAPACITY);
    std::memcpy(records, segment_->records, static_cast<size_t>(count) * sizeof records[0]);
    StoreRelaxed(segment_->pending, 0);
    releaseLock();
  }
  for (ZelCommandRecord* record = records; record != records + count; ++record) {
    const int32_t* const arguments = record->arguments;
    callback(arguments[0], arguments[1], arguments[2], arguments[3], arguments[4], record->payload,
             userData);
  }
  return 2;
}

int CollectorCommandHandler::processHeartbeat() {
  if (!CommandHandlerInternals::IsUp(*this)) return -1;
  callback_(ZEL_COMMAND_HEARTBEAT, 0, 0, 0, 0, nullptr, userData_);
  return 2;
}
