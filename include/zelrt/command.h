/* The command channel, by which another process on the machine steers a running collector.
 *
 * A controller drops commands into a System V shared-memory segment and rings a semaphore; a thread
 * inside the collector wakes, copies the commands out and hands each to the collector's callback.
 * When none comes within the heartbeat interval, the callback gets a heartbeat instead. Both sides
 * know a directory: the lock file in it leads to the rest. zelrt/command_controller.hpp is the
 * controller's side, zelrt/command_handler.hpp the class behind the calls below.
 *
 * The channel belongs to the process that registered it. A child of fork does not inherit it: there
 * the first of these calls forgets it without touching anything, and it may register one of its
 * own, in another directory. One directory serves one process at a time.
 *
 * Registration, unregistration and shutdown are for one thread at a time. A collector shuts the
 * thread down before it unregisters. Nothing is logged; errno may change. */
#ifndef ZELRT_COMMAND_H
#define ZELRT_COMMAND_H

#include "zelrt/base.h"

#ifdef __cplusplus
extern "C" {
#endif

/* What both sides share -------------------------------------------------------------------------
 */

#define ZEL_COMMAND_LOCK_FILE \
  "ulvcmds.dat"                   /* in the directory; its first 4 bytes are the segment's id */
#define ZEL_COMMAND_KEY_PROJECT 0 /* the semaphore set's key is ftok(lock file, this) */
#define ZEL_COMMAND_CAPACITY 5    /* records that the segment holds */
#define ZEL_COMMAND_PAYLOAD_SIZE 4352
#define ZEL_COMMAND_HEARTBEAT 0x11010 /* argument 1 of a heartbeat */

/* The semaphores of the set. Both sides take the lock by subtracting 1 and give it back by adding
 * 1: whoever holds it may change the pending count and the records. The controller adds 1 to the
 * doorbell after it has queued commands and given the lock back. */
#define ZEL_COMMAND_DOORBELL 0
#define ZEL_COMMAND_LOCK 1 /* 1 free, 0 held */

/* Integers are in the machine's byte order. The library interprets neither arguments nor payload.
 */
typedef struct ZelCommandRecord {
  int32_t arguments[5]; /* the first is the command's code */
  uint8_t payload[ZEL_COMMAND_PAYLOAD_SIZE];
} ZelCommandRecord;

/* The segment. It is made with IPC_PRIVATE and mode 0600: only the lock file tells its id. */
typedef struct ZelCommandSegment {
  uint32_t isReady; /* 1 once the handler has set the segment up */
  int32_t pending;  /* records that wait, from the first on; 0 to ZEL_COMMAND_CAPACITY */
  ZelCommandRecord records[ZEL_COMMAND_CAPACITY];
} ZelCommandSegment;

/* Thread services -------------------------------------------------------------------------------
 */

typedef void (*ZelThreadFunction)(uintptr_t argument);

/* Starts a thread and stores its handle; a stack size of 0 is the service's default. Returns the
 * new thread's id, 0xFFFFFFFF on failure. The library clears the stored handle when it gives the
 * thread up. */
typedef uint32_t (*ZelThreadCreateProc)(ZelThreadFunction function, uintptr_t argument,
                                        size_t stackSize, uintptr_t* handle);

/* Ends the calling thread. */
typedef void (*ZelThreadExitProc)(uint32_t code);

/* Waits for the end of the thread with that stored handle. The library passes a time-out of 1000,
 * in the service's own unit, and no place for the exit code, and makes nothing of the result. */
typedef uint32_t (*ZelThreadWaitProc)(uintptr_t* handle, uint32_t timeout, uint32_t* exitCode);

/* Has the function called with the argument at the end of the run. */
typedef void (*ZelAddFiniProc)(ZelThreadFunction function, uintptr_t argument);

/* Installs all four; null takes one away. Returns 1. To be called while no channel is registered.
 * The thread that they make should have signals blocked: a wait that a signal or a stop of the
 * process interrupts ends the command thread, unless the create service runs the function again. */
ZEL_API uint32_t __ZelSetThreadProcs(ZelThreadCreateProc create, ZelThreadExitProc exit,
                                     ZelThreadWaitProc wait, ZelAddFiniProc addFini);

/* The installed services, null while there are none. */
ZEL_API ZelThreadCreateProc __ZelGetThreadCreateProc(void);
ZEL_API ZelThreadWaitProc __ZelGetThreadWaitProc(void);

/* The channel -----------------------------------------------------------------------------------
 */

/* Gets each command on the command thread, with no lock held and in the order of the records: the
 * five arguments, a private copy of the payload, which lasts for the call, and the user data. A
 * heartbeat has ZEL_COMMAND_HEARTBEAT as first argument, 0 for the others, and null as payload; a
 * command with that code has a payload. */
typedef void (*ZelCommandCallback)(int code, int argument2, int argument3, int argument4,
                                   int argument5, unsigned char* payload, void* userData);

/* What is torn down besides the segment and the descriptor. */
typedef enum _ZELCMDHDLRCLEANEXTENT
#ifdef __cplusplus
    : int32_t
#endif
{ ZELCMDHDLR_CLEAN_ALL = 0,    /* the lock file and the semaphores too; so does any value but 1 */
  ZELCMDHDLR_CLEAN_PARTIAL = 1 /* neither: a process that registers next finds them */
} _ZELCMDHDLRCLEANEXTENT;

/* Sets the channel up in an existing directory, the current one when the text is empty, and starts
 * the command thread. A relative path must lead to the same place until the channel is torn down.
 * The lock file is made if it is not there; the segment of a process that has gone without removing
 * it is removed. Returns 1 when the channel is up; 0, with nothing left behind, when a thread
 * service is missing, the thread could not be made, the callback or the directory is null, the path
 * does not fit into 4,095 characters, a channel is up already, or the system refuses something. The
 * thread is then up to heartbeatSeconds without a command when it calls the callback, and again as
 * often; with 0 it waits without end, with less it ends at once. */
ZEL_API uint32_t __ZelRegisterCommandHandlerWithHeartbeat(const char* directory,
                                                          ZelCommandCallback callback,
                                                          void* userData, int heartbeatSeconds);

/* The same without heartbeats. */
ZEL_API uint32_t __ZelRegisterCommandHandler(const char* directory, ZelCommandCallback callback,
                                             void* userData);

/* Stops the command thread, if one runs, and waits for its end as long as the wait service does. A
 * callback that takes longer comes to its end later; after it come the commands that were taken out
 * of the segment together with its own, and nothing else. Also called at the end of the run. A
 * callback must not call it. */
ZEL_API void __ZelShutdownCommandHandler(void);

/* Tears the channel down. Commands that wait are lost. The thread is not stopped; without its
 * semaphores it ends by itself. Without a channel nothing happens. */
ZEL_API void __ZelUnregisterCommandHandler(_ZELCMDHDLRCLEANEXTENT extent);

#ifdef __cplusplus
}
#endif

#endif
