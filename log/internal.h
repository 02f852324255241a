// What the files of log/ lend each other.
#pragma once

#include <cstdarg>
#include <cstdint>

#include "runtime/lock_order.h"
#include "xml/internal.h"
#include "zelrt/log.h"

namespace zelrt {

// messages.cc -------------------------------------------------------------------------------------

inline constexpr uint32_t kMaxMessages = 128;

// A registered message; immutable, and there for ever.
struct Message {
  const char* name;
  const char* const* argumentNames;  // up to a null entry
  uint32_t flags;
  int32_t source;
};

// Null for an id that is not registered, or not yet.
const Message* FindMessage(uint32_t id);

// sources.cc --------------------------------------------------------------------------------------

inline constexpr uint32_t kMaxSources = 16;

// Whether the handle has been given out, released or not.
bool IsSource(int32_t handle);

// The source's name; empty when it was released. Valid for ever.
const char* SourceName(int32_t handle);

// timestamp.cc ------------------------------------------------------------------------------------

// The local time, "Mon Nov 16 16:20:20 2026". Valid until the thread asks again.
const char* LocalTimestamp();

// log_file.cc -------------------------------------------------------------------------------------

// The log file that records go to, null when none is open.
ZelXmlFile* CurrentLogFile();

// The same, but opens the default one if there is none.
ZelXmlFile* LogFileForRecord(uint64_t self);

// Whether a log file has ever been opened.
bool LoggerWasCreated();

// Holds the log file's lock for a record. A thread that ends the process does not wait for ever:
// the lock may be held by a thread that a fork has left behind.
class LogFileHold {
 public:
  LogFileHold(ZelXmlFile* file, uint64_t self);
  ~LogFileHold();
  LogFileHold(const LogFileHold&) = delete;
  LogFileHold& operator=(const LogFileHold&) = delete;

  bool IsHeld() const { return file_ != nullptr; }

 private:
  ZelXmlFile* file_;
};

// For the thread that ends the process, in front of exit(): no other thread writes to a log file
// any more.
void KeepOthersFromLog(uint64_t self);

// record.cc ---------------------------------------------------------------------------------------

// Writes one record, or one bare comment, to the log file; what the parameters mean is told at
// __ZelLogInternal.
void WriteLogRecord(uint32_t severity, uint32_t messageId, bool notForDisplay, uint64_t formatOrTag,
                    va_list arguments);

}  // namespace zelrt
