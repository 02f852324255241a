// The state of a thread that writes on the collector's account.
#pragma once

#include <signal.h>
#include <time.h>

#include "examples/heapscope/internal.h"

namespace heapscope {

// Keeps from the program the signals that a failing write raises.
class WriteSignalsBlocked {
 public:
  WriteSignalsBlocked() {
    sigemptyset(&signals_);
    for (const int signal : {SIGPIPE, SIGXFSZ, SIGTTOU}) sigaddset(&signals_, signal);
    sigpending(&pendingBefore_);
    pthread_sigmask(SIG_BLOCK, &signals_, &maskBefore_);
  }
  ~WriteSignalsBlocked() {
    sigset_t pending;
    sigpending(&pending);
    for (const int signal : {SIGPIPE, SIGXFSZ, SIGTTOU}) {
      if (sigismember(&pending, signal) == 0 || sigismember(&pendingBefore_, signal) == 1) continue;
      sigset_t one;
      sigemptyset(&one);
      sigaddset(&one, signal);
      const timespec now = {};
      sigtimedwait(&one, nullptr, &now);
    }
    pthread_sigmask(SIG_SETMASK, &maskBefore_, nullptr);
  }
  WriteSignalsBlocked(const WriteSignalsBlocked&) = delete;
  WriteSignalsBlocked& operator=(const WriteSignalsBlocked&) = delete;

 private:
  sigset_t signals_;
  sigset_t pendingBefore_;
  sigset_t maskBefore_;
};

// Has what the thread allocates come from the arena.
class ArenaUse {
 public:
  ArenaUse() : outer_(t_isWriting) { t_isWriting = true; }
  ~ArenaUse() { t_isWriting = outer_; }
  ArenaUse(const ArenaUse&) = delete;
  ArenaUse& operator=(const ArenaUse&) = delete;

 private:
  const bool outer_;
};

// Around the library's file functions, for a thread that holds a shard's lock. Holds the lock of
// the files, and keeps errno.
class Writing {
 public:
  Writing() { LockOwnFiles(); }
  ~Writing() {
    UnlockOwnFiles();
    errno = keptErrno_;
  }
  Writing(const Writing&) = delete;
  Writing& operator=(const Writing&) = delete;

 private:
  const int keptErrno_ = errno;
  const WriteSignalsBlocked signals_;
  const MemoryPurpose purpose_{OwnMemory::kFiles};
  const ArenaUse arena_;
};

}  // namespace heapscope
