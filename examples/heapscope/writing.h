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

// Around the library's file functions, for a thread that holds a stripe's lock. What they and the
// C library allocate comes from the arena, what the library's allocator is asked for from the
// collector's memory.
class Writing {
 public:
  Writing() { t_isWriting = true; }
  ~Writing() { t_isWriting = false; }
  Writing(const Writing&) = delete;
  Writing& operator=(const Writing&) = delete;

  // Without it no file may be opened. What is written to an open one takes no memory.
  bool HasMemory() { return library_.HasMemoryForFiles(); }

 private:
  const WriteSignalsBlocked signals_;
  LibraryHold library_;
};

}  // namespace heapscope
