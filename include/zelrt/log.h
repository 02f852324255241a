/* Reporting: messages, comments, and the ends of a process that cannot go on.
 *
 * A message has a number, a severity and typed arguments. There is no log file yet: messages are
 * dropped, and the report of a tool defect goes to standard output. */
#ifndef ZELRT_LOG_H
#define ZELRT_LOG_H

#include "zelrt/base.h"

#ifdef __cplusplus
extern "C" {
#endif

enum { ZELLOG_SEVERITY_ERROR = 0, ZELLOG_SEVERITY_WARNING = 1, ZELLOG_SEVERITY_INFO = 2 };

/* Messages that exist without registration: a bare comment, and a text on the tool itself. */
enum { ZELLOG_MSG_COMMENT = 0, ZELLOG_MSG_INTERNAL = 1 };

/* The library's own messages; 0 until start-up has registered them. */
ZEL_API extern uint32_t ZELLOG_MSG_ABNORMAL_TERMINATE;
ZEL_API extern uint32_t ZELLOG_MSG_OUT_OF_MEMORY;
ZEL_API extern uint32_t ZELLOG_MSG_COLLECT_MEMORY;
ZEL_API extern uint32_t ZELLOG_MSG_MEMORY_IS_TIGHT;
ZEL_API extern uint32_t ZELLOG_MSG_FREEING_RESERVES;

/* Argument tags: each argument of a message is its tag (32 bits), then its value. */
#define ZELLOG_ARG_STRING 0x3ede9134u  /* const char* */
#define ZELLOG_ARG_POINTER 0x020fb6deu /* a 64-bit word, written with %p */
#define ZELLOG_ARG_INT 0x4afe0077u     /* int32_t */
#define ZELLOG_ARG_ULONG 0xfa10cab4u   /* uint64_t */

/* Logs one message. formatOrTag is, for a message with named arguments, the first one's tag in its
 * low 32 bits; for a text or a comment, the address of a printf format. Any thread; returns after
 * the record is written, or dropped. */
ZEL_API void __ZelLogInternal(uint32_t severity, uint32_t messageId, uint32_t notForDisplay,
                              uint64_t formatOrTag, ...);

/* Logs a bare comment at severity INFO. Returns 0. */
ZEL_API int32_t __ZelLogCommentInternal(const char* format, ...) ZEL_PRINTF_LIKE(1, 2);

/* Prints a line to standard output. Returns 0. */
ZEL_API int32_t __ZelLogToConsole(const char* format, ...) ZEL_PRINTF_LIKE(1, 2);

ZEL_API uint32_t __ZelIsLoggerInitialized(void); /* 1 when a log file is open, else 0 */

/* Ends. The first thread that comes here ends the process; what meets a fatal condition meanwhile
 * reports nothing more. */

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

/* Reports a defect of the tool itself, in the log or on standard output, then __ZelFatalExit(-1).
 */
ZEL_API void __ZelLogFatalToolDefect(const char* format, ...) ZEL_NO_RETURN ZEL_PRINTF_LIKE(1, 2);

#ifdef __cplusplus
}
#endif

#endif
