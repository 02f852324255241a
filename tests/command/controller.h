// The controller's end of the command channel, by hand: each step of the protocol is a call of its
// own, so that a test can leave one out or do it wrong.
#pragma once

#include <sys/sem.h>

#include <cstdint>
#include <string>

#include "zelrt/command.h"

namespace zeltest {

class Controller {
 public:
  explicit Controller(const std::string& directory);
  ~Controller();
  Controller(const Controller&) = delete;
  Controller& operator=(const Controller&) = delete;

  bool IsAttached() const { return segment_ != nullptr; }
  volatile ZelCommandSegment& Segment() { return *segment_; }

  // Waits for it, and gives it back.
  void Lock() { Add(ZEL_COMMAND_LOCK, -1); }
  void Unlock() { Add(ZEL_COMMAND_LOCK, 1); }
  void Append(int32_t code, int32_t argument, const std::string& payload);
  void Ring() { Add(ZEL_COMMAND_DOORBELL, 1); }

  // The whole of it.
  void Send(int32_t code, int32_t argument = 0, const std::string& payload = "");

  // Removes whatever the directory's lock file leads to.
  static void RemoveAll(const std::string& directory);

 private:
  void Add(uint16_t semaphore, int16_t value);

  int semaphores_ = -1;
  ZelCommandSegment* segment_ = nullptr;
};

// Whether the system still has the object.
bool SegmentExists(int id);
bool SemaphoresExist(int id);

}  // namespace zeltest
