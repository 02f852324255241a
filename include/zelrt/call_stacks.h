/* Call stacks: capture by frame pointers, and lines for the log.
 *
 *   uint64_t frames[ZEL_MAX_STACK_FRAMES];
 *   const uint16_t count = __ZelCaptureCurrentStackBackTrace(frames);
 *   ...
 *   __ZelLogCallstack("allocation", frames, count);
 *
 * A frame list is an array of code addresses, innermost first: the return addresses of the calls
 * that were under way. The walk follows the chain of saved frame pointers and nothing else, so all
 * code on the stack has to keep them; code that does not is skipped, or ends the walk. Any thread
 * may make any call. */
#ifndef ZELRT_CALL_STACKS_H
#define ZELRT_CALL_STACKS_H

#include "zelrt/base.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A capture never stores more; callers provide room for as many. */
#define ZEL_MAX_STACK_FRAMES 25

/* Walks a stack that lies between stackLimit, its low end, and stackBase, its high end; the memory
 * between them must be readable. framePointer is the address of the first frame record: the
 * caller's saved frame pointer, then the return address. firstAddress is stored in front unless it
 * is 0; stackPointer is not looked at. Returns how many addresses were stored.
 *
 * The walk ends at a frame pointer that is 0, or whose record is not wholly within the stack. It
 * does not ask that frame pointers grow or are aligned: a chain that loops fills the list. It
 * allocates nothing and takes no lock. */
ZEL_API uint16_t __ZelCaptureStackBackTrace(uint64_t stackBase, uint64_t stackLimit,
                                            uint64_t framePointer, uint64_t firstAddress,
                                            uint64_t stackPointer, uint64_t* frames);

/* Captures the calling thread's stack, beginning in the function that calls. Returns how many
 * addresses were stored: 1 when the stack's bounds are not known. These come from
 * __ZelGetThreadStackBaseAndSize (zelrt/modules.h), which reads a file. */
ZEL_API uint16_t __ZelCaptureCurrentStackBackTrace(uint64_t* frames);

/* A text for each frame. Null, always: on this platform there are none. */
ZEL_API char** __ZelGetStackBackTraceSymbols(const uint64_t* frames, uint16_t count);

/* 0, always: on this platform images have no preferred address. */
ZEL_API uint64_t __ZelGetImageOffsetFromPreferredAddress(void);

/* Logs a frame list: a heading with the label, and for each frame a line with its address, in front
 * of it module and offset when the module map (zelrt/modules.h) knows the module:
 *   Frames of allocation call stack:
 *   => /bin/app!0x1234 (0x401234)
 *   => 0x7f0000001000
 * An empty list gives the line "Unable to unwind allocation call stack.". Lines are bare comments
 * of the log (zelrt/log.h) or, before start-up, lines of standard output. Other threads may log
 * between them. */
ZEL_API void __ZelLogCallstack(const char* label, const uint64_t* frames, uint16_t count);

/* Captures and logs the calling thread's stack, with the label "tavtool". */
ZEL_API void __ZelLogCurrentCallstack(void);

#ifdef __cplusplus
}
#endif

#endif
