/* Hooks, start-up, environment, yielding.
 *
 * Bringing the library up, in this order and before other threads use it:
 *   1. install the hooks below, and a backing allocator if the host's heap is not to be used
 *      (zelrt/memory.h);
 *   2. call __ZelRtStartup();
 *   3. use everything else.
 * Nothing of the library runs before the first call, and nothing needs to run after the last. */
#ifndef ZELRT_RUNTIME_H
#define ZELRT_RUNTIME_H

#include "zelrt/base.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Hooks. The library never asks the system who the calling thread is: the client tells it, through
 * one function per service. A slot is null until its setter ran; null uninstalls. Setters check
 * nothing and take no lock: install before threads exist. A hook may run on any thread, under any
 * lock of the library, and must neither call back into it nor throw. */

typedef uint64_t (*ZelThreadIdProc)(void);
typedef uint32_t (*ZelTlsAllocProc)(void);
typedef uint32_t (*ZelTlsFreeProc)(uint32_t index);
typedef void* (*ZelTlsGetValueProc)(uint32_t index);
typedef uint32_t (*ZelTlsSetValueProc)(uint32_t index, void* value);
typedef int32_t (*ZelPidProc)(void);
typedef void (*ZelClientLockProc)(void);

/* The slots, for reading; write them through the setters. */
ZEL_API extern ZelThreadIdProc __zelGetCurrentThreadIdProc;
ZEL_API extern ZelThreadIdProc __zelGetNativeThreadIdProc;
ZEL_API extern ZelThreadIdProc __zelGetNativeParentThreadIdProc;
ZEL_API extern ZelTlsAllocProc __zelTlsAllocProc;
ZEL_API extern ZelTlsFreeProc __zelTlsFreeProc;
ZEL_API extern ZelTlsGetValueProc __zelTlsGetValueProc;
ZEL_API extern ZelTlsSetValueProc __zelTlsSetValueProc;
ZEL_API extern ZelClientLockProc __zelTAVClientLock;
ZEL_API extern ZelClientLockProc __zelTAVClientUnlock;

/* Thread ids: the framework's own number of the calling thread; the operating system's, by which
 * the library's locks know their owners; and the operating system's of its creator. The locks use
 * the low 32 bits of the native id, which must differ between live threads; 0 is no id. */
ZEL_API void __ZelSetGetCurrentThreadIdProc(ZelThreadIdProc proc);
ZEL_API void __ZelSetGetNativeThreadIdProc(ZelThreadIdProc proc);
ZEL_API void __ZelSetGetNativeParentThreadIdProc(ZelThreadIdProc proc);

/* Thread-local storage by index; 0xFFFFFFFF is no index, a success flag is non-zero on success. */
ZEL_API void __ZelSetTlsAllocProc(ZelTlsAllocProc proc);
ZEL_API void __ZelSetTlsFreeProc(ZelTlsFreeProc proc);
ZEL_API void __ZelSetTlsGetValueProc(ZelTlsGetValueProc proc);
ZEL_API void __ZelSetTlsSetValueProc(ZelTlsSetValueProc proc);

ZEL_API void __ZelSetGetPidProc(ZelPidProc proc);

/* Stores the framework's client lock and unlock together. The library only keeps them in
 * __zelTAVClientLock and __zelTAVClientUnlock for its clients; it never takes that lock. */
ZEL_API void __ZelSetTavClientLockProc(ZelClientLockProc lock, ZelClientLockProc unlock);

/* Each calls the installed hook and returns its result unchanged. Without a hook: 0 for the ids
 * and the success flags, 0xFFFFFFFF for an index, null for a value, -1 for the process id. */
ZEL_API uint64_t __ZelGetCurrentThreadId(void);
ZEL_API uint64_t __ZelGetNativeThreadId(void);
ZEL_API uint64_t __ZelGetNativeParentThreadId(void);
ZEL_API uint32_t __ZelTlsAlloc(void);
ZEL_API uint32_t __ZelTlsFree(uint32_t index);
ZEL_API void* __ZelTlsGetValue(uint32_t index);
ZEL_API uint32_t __ZelTlsSetValue(uint32_t index, void* value);
ZEL_API int32_t __ZelGetPid(void);

/* Start-up. */

#define ZELRT_VERSION_CODE 0x0D0F0002u /* version 13.15.2: 8 bits, 8 bits, 16 bits */

ZEL_API extern uint32_t __zelRtStarted;          /* 0 until start-up is complete, then 1 for ever */
ZEL_API extern uint32_t __zelNumberOfProcessors; /* 1 until start-up has counted; 0: not known */

/* Counts the processors and registers the library's log messages, once per process, and returns
 * ZELRT_VERSION_CODE, always. May be called from several threads at once: each returns only when
 * the start-up is complete. */
ZEL_API uint32_t __ZelRtStartup(void);

/* Does nothing: what holds resources has its own tear-down. */
ZEL_API void __ZelRtShutdown(void);

ZEL_API uint32_t __ZelGetStarted(void); /* __zelRtStarted */
ZEL_API uint32_t __ZelGetNProcs(void);  /* __zelNumberOfProcessors */

/* Environment. The calls of the C library behind a check for null, with its rules: a value stays
 * the environment's, and a change is not safe beside a thread that reads. */

/* Null when the name is null or the variable is not set. */
ZEL_API const char* __ZelGetEnvironmentVariable(const char* name);

/* Sets the variable; one that exists is replaced only when overwrite is non-zero.
 * Returns 1, or 0 when a pointer is null or the environment refused. */
ZEL_API uint32_t __ZelSetEnvironmentVariableEx(const char* name, const char* value,
                                               int32_t overwrite);
ZEL_API uint32_t __ZelSetEnvironmentVariable(const char* name, const char* value); /* overwrites */
ZEL_API void __ZelUnsetEnvironmentVariable(const char* name); /* a null name is ignored */

/* Scheduling. */

/* Gives up the processor. Returns the result of sched_yield. */
ZEL_API int32_t __ZelYield(void);

/* A pause of units x 5,000,000 yields, no measured time: on an idle machine about a second or two
 * a unit, longer on a busy one. The product is taken modulo 2^32. Uses no timer and no signal. */
ZEL_API void __ZelSleep(uint32_t units);

#ifdef __cplusplus
}
#endif

#endif
