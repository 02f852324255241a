// The handler's end of the command channel, as the calls of zelrt/command.h use it.
#ifndef ZELRT_COMMAND_HANDLER_HPP
#define ZELRT_COMMAND_HANDLER_HPP

#include <sys/sem.h>

#include "zelrt/command.h"

namespace zelrt {
struct CommandHandlerInternals;
}

// The library keeps one of these for the process; a further one is a further channel, without a
// thread. Who owns what: an object owns the segment and the semaphore set while it has their ids,
// and the lock file while it has a descriptor of it.
//
// Processing may run on one thread while another tears the channel down; all else is for one thread
// at a time.
class ZEL_API CollectorCommandHandler {
 public:
  CollectorCommandHandler();   // no channel
  ~CollectorCommandHandler();  // does nothing: tear the channel down before
  CollectorCommandHandler(const CollectorCommandHandler&) = delete;
  CollectorCommandHandler& operator=(const CollectorCommandHandler&) = delete;

  // Sets the channel up and frees the lock over the segment. Returns 1, or 0 with nothing left
  // behind: see __ZelRegisterCommandHandlerWithHeartbeat.
  int initializeCommandHandler(const char* directory, ZelCommandCallback callback, void* userData);

  // The part of it that asks the system: lock file, semaphores, segment. Returns 1, with the
  // segment locked, or 0.
  int createSharedMemoryAndLockFile();

  // Tear-down; the second name is the first.
  void destroySharedMemoryAndLockFile(_ZELCMDHDLRCLEANEXTENT extent);
  void cleanupCommandHandler(_ZELCMDHDLRCLEANEXTENT extent);

  // The lock over the segment. Neither call waits. acquireLock returns 1 when it got the lock, 0
  // when it is held or cannot be asked for; releaseLock 0, or -1 with errno. The system gives back
  // what a process holds that ends.
  int acquireLock();
  int releaseLock();

  // Delivers what waits, in order, at most ZEL_COMMAND_CAPACITY records. Returns 2 when it took
  // commands, 1 when the lock was held and they stay queued, 0 when none waits, -1 without a
  // channel.
  int processCommands();

  // Delivers a heartbeat. Returns 2, or -1 without a channel.
  int processHeartbeat();

 private:
  friend struct zelrt::CommandHandlerInternals;

  ZelCommandSegment* segment_;  // null without a channel
  char lockFilePath_[4096];
  ZelCommandCallback callback_;
  void* userData_;
  int32_t lockFile_;   // descriptor, -1 when closed
  int32_t segmentId_;  // -1 when there is none, here and below
  int32_t semaphores_;
  sembuf lockOperation_;  // of acquireLock and releaseLock
};

namespace zelrt {

// As open, but never returns a standard descriptor (0, 1 or 2), also when those are closed: -1 with
// errno. The file may be opened twice.
ZEL_API int safeOpen(const char* path, int flags, int mode);

}  // namespace zelrt

#endif
