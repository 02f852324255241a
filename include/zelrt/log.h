/* The log: registered messages, the log file, debug channels, and the ends of a process that cannot
 * go on.
 *
 * A process has one log file, an XML document of numbered records. A record names its source (a
 * component), its message, a severity and the time, and holds the message's arguments. Messages are
 * registered once and known by an id. Before start-up (zelrt/runtime.h) nothing is logged; after it
 * the first record opens "zellog.log" in the working directory unless there is a log file.
 *
 * Any thread may make any call, unless it says otherwise. A record is in the file when the call
 * returns. A record that cannot be written is lost without a report. */
#ifndef ZELRT_LOG_H
#define ZELRT_LOG_H

#include <stdarg.h>

#include "zelrt/base.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Severity of a record; anything above counts as an error. */
enum { ZELLOG_SEVERITY_ERROR = 0, ZELLOG_SEVERITY_WARNING = 1, ZELLOG_SEVERITY_INFO = 2 };

/* Messages. At most 128; ids are never taken back. */

#define ZEL_INVALID_LOG_MESSAGE 0xFFFFFFFFu

enum {
  ZELLOG_FLAG_TEXT = 1,      /* the record holds a formatted text instead of named arguments */
  ZELLOG_FLAG_COMMENT = 2,   /* no record: the formatted text stands as a bare comment */
  ZELLOG_FLAG_NO_DISPLAY = 4 /* the record is marked as not for display */
};

typedef struct ZelLogMessage {
  const char* name; /* its type name, such as "FAIL_OPEN_FILE" */
  const char* const*
      argumentNames; /* up to a null entry, in the order of the values; may be null */
  uint32_t flags;
  int32_t source; /* handle of the component that owns the message; 0 is the library */
} ZelLogMessage;

/* Registers a message; everything is copied. Returns its id. ZEL_INVALID_LOG_MESSAGE when there are
 * 128 already or, with an error in the log, when the message is null, has no name, or a source that
 * was never handed out. The second name is the older one. */
ZEL_API uint32_t __ZelRegisterLogMessage2(const ZelLogMessage* message);
ZEL_API uint32_t __ZelRegisterLogMessage(const ZelLogMessage* message);

/* There without registration: a bare comment, and a text on the tool itself. */
enum { ZELLOG_MSG_COMMENT = 0, ZELLOG_MSG_INTERNAL = 1 };

/* The library's own, registered by start-up; 0 before. Arguments are named where there are any. */
ZEL_API extern uint32_t ZELLOG_MSG_ABNORMAL_TERMINATE;
ZEL_API extern uint32_t ZELLOG_MSG_OUT_OF_MEMORY;
ZEL_API extern uint32_t ZELLOG_MSG_COLLECT_MEMORY;
ZEL_API extern uint32_t ZELLOG_MSG_MEMORY_IS_TIGHT;
ZEL_API extern uint32_t ZELLOG_MSG_FREEING_RESERVES; /* num_bytes; not for display */
ZEL_API extern uint32_t ZELLOG_MSG_BAD_OPTION;       /* option */
ZEL_API extern uint32_t ZELLOG_MSG_BAD_ARGUMENT;     /* option */
ZEL_API extern uint32_t ZELLOG_MSG_FAIL_CONVERT_FILENAME;
ZEL_API extern uint32_t ZELLOG_MSG_FAIL_OPEN_FILE;         /* filename */
ZEL_API extern uint32_t ZELLOG_MSG_FAIL_SEEK_FILE;         /* filename */
ZEL_API extern uint32_t ZELLOG_MSG_FAIL_READ_FILE;         /* filename */
ZEL_API extern uint32_t ZELLOG_MSG_FAIL_READ_FILE_VERBOSE; /* filename, srerror */

/* Called by start-up. Returns 1 when all of them are registered, else 0. */
ZEL_API uint32_t __ZelRegisterInternalZELRTLogMessages(void);

/* Logging. */

/* What an argument is, in 32 bits in front of its value. */
#define ZELLOG_ARG_STRING 0x3ede9134u  /* const char*; escaped */
#define ZELLOG_ARG_POINTER 0x020fb6deu /* a 64-bit word, written with %p */
#define ZELLOG_ARG_INT 0x4afe0077u     /* int32_t */
#define ZELLOG_ARG_ULONG 0xfa10cab4u   /* uint64_t */

/* Logs a message. For one with named arguments, formatOrTag has the first one's tag in its low 32
 * bits; then follow its value and, for each further argument, tag and value. An unknown tag leaves
 * this and all further arguments empty; fewer values than the message has names are not detected.
 * For a text or a comment, formatOrTag is the address of a printf format, followed by its
 * arguments; an id that is not registered makes such a comment, an empty one when a tag follows.
 * notForDisplay not 0 marks the record. C++ callers have zelrt::Log below, which cannot be given a
 * wrong tag. */
ZEL_API void __ZelLogInternal(uint32_t severity, uint32_t messageId, uint32_t notForDisplay,
                              uint64_t formatOrTag, ...);

/* Logs a bare comment. Returns 0. */
ZEL_API int32_t __ZelLogCommentInternal(const char* format, ...) ZEL_PRINTF_LIKE(1, 2);

/* Prints a line to standard output, before start-up too. Returns 0. */
ZEL_API int32_t __ZelLogToConsole(const char* format, ...) ZEL_PRINTF_LIKE(1, 2);

/* The log file. */

/* Opens a log file with the collector's name in its root element. With append not 0 it goes on in a
 * file whose root element is there. Records go here from now on; a log file that was open is left
 * as it is, without its closing tag. Returns 1, or 0 before start-up, for a null argument, and when
 * the file cannot be opened: then there is no log file. */
ZEL_API uint32_t __ZelCreateLogger(const char* sourceName, const char* path, uint32_t append);

ZEL_API uint32_t __ZelIsLoggerInitialized(void); /* 1 when a log file is open, else 0 */

/* For a process whose descriptors were closed under the library: opens the log file again if it
 * cannot be reached any more. Returns 1 when it is usable afterwards. */
ZEL_API uint32_t __ZelReopenLogger(void);

/* Writes the root element's closing tag. The file stays open; records that still come stand behind
 * the tag. */
ZEL_API void __ZelCloseLogger(void);

/* Sources: components that share the log file. Handles are 1 to 15 and never given out again. */

/* Returns a handle for a component of that name, or -1 for null, before a log file was opened, and
 * when there are 15 already. */
ZEL_API int32_t __ZelGetLoggerHandle(const char* name);

/* Gives a handle up; records of its messages have an empty source from now on. Returns 1, or 0 when
 * no log file is open, the handle is not in use or 0, or `name` does not begin with its name. */
ZEL_API uint32_t __ZelReleaseLoggerHandle(int32_t handle, const char* name);

/* Ends of the process. The first thread that comes here reports and ends it; what meets a fatal
 * condition meanwhile reports nothing more. */

typedef void (*ZelExitHook)(int32_t code);

/* Has `hook` called once when the process is ended from here; null removes it. It runs on the
 * thread that ends the process, holding none of the memory family's locks; it may allocate, log and
 * end the process its own way, must not leave otherwise than by returning, and has half a minute
 * until another thread that meets a fatal condition ends the process in its place. */
ZEL_API void __ZelSetExitHandler(ZelExitHook hook);

/* Calls the exit hook with `code`, then ends the process with exit(-1), whatever the code. */
ZEL_API void __ZelExitHandler(int32_t code) ZEL_NO_RETURN;

/* Logs "ABNORMAL_TERMINATE", then __ZelExitHandler(code). */
ZEL_API void __ZelFatalExit(int32_t code) ZEL_NO_RETURN;

/* Reports a defect of the tool itself and the calling thread's stack (zelrt/call_stacks.h), in the
 * log or, before start-up, on standard output; then __ZelFatalExit(-1). */
ZEL_API void __ZelLogFatalToolDefect(const char* format, ...) ZEL_NO_RETURN ZEL_PRINTF_LIKE(1, 2);

/* Debug channels: traces that are off until an option text names them. A channel's id is its index
 * in the map in force, at most 32. Set up before other threads dump. */

typedef struct ZelDbgMapEntry {
  uint64_t mask; /* bits of the channel or the group, the low 32 count; 0 clears all when named */
  const char* name; /* null ends the map */
} ZelDbgMapEntry;

/* Switches channels on and off: "0x" and a hexadecimal mask to add, 0 to clear; or names separated
 * by commas, each in any case and shortened as you like, a "no-" in front to switch off. Of several
 * that a short name begins, the first in the map is meant; an empty one means the first of all.
 * Returns 1 when the whole text was understood, else 0; what stands before the fault has taken
 * effect. */
ZEL_API uint32_t __ZelParseDbgDumpOption(const char* text);

/* Puts another map in force, which must live on. Returns 1, or 0 for null. */
ZEL_API uint32_t __ZelDbgRegisterDbgMap(const ZelDbgMapEntry* map);

ZEL_API uint32_t __ZelIsDbgDumpEnabled(uint32_t channel); /* 1 or 0 */

/* If the channel is on: logs a comment of the channel, the calling thread's native id, and the
 * text, cut to 1,022 bytes. */
ZEL_API void __ZelDbgMessageDumpInternal(uint32_t channel, const char* format, ...)
    ZEL_PRINTF_LIKE(2, 3);

#ifdef __cplusplus
}

#include "zelrt/log.hpp"
#endif

#endif
