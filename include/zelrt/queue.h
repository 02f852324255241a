/* Queues: first in, first out, of pointer-sized values; one block of memory for each value.
 *
 *   ZelQueue* const events = __ZelCreateQueue(ZEL_QUEUE_FLAG_LOCKING, category);
 *   __ZelEnqueue(events, (uintptr_t)event);                                      any thread
 *   while (!__ZelIsQueueEmpty(events)) Handle((Event*)__ZelDequeue(events));     another
 *   __ZelDestroyQueue(events);                                                   when all is over
 *   __ZelFree(events);
 *
 * Dequeue and peek answer 0 when they find nothing. Keep 0 out of the queue, or, where only one
 * thread takes values out, ask first whether the queue is empty. No queue may be null.
 *
 * A queue with ZEL_QUEUE_FLAG_LOCKING has a spin lock (zelrt/locks.h) for each end. Who enqueues
 * takes the tail's, and the head's only if the queue is empty; who dequeues or peeks takes the
 * head's, and the tail's only to take out the last value: with two values or more the ends do not
 * meet. Which calls may overlap on one queue, and the locks they take:
 *
 *                     with the flag                               without
 *   enqueue           enqueue, dequeue, peek, is-empty   locks    nothing
 *   dequeue, peek     the same                           locks    nothing; peeks that do not
 *                                                                 remove, and is-empty, each other
 *   is-empty          everything but destroy             none     is-empty, peeks
 *   set-flag          everything but destroy             none     everything but destroy
 *   destroy           nothing                            none     nothing
 *
 * In a forked child a lock that another thread held is held for ever. */
#ifndef ZELRT_QUEUE_H
#define ZELRT_QUEUE_H

#include "zelrt/base.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ZelQueue ZelQueue;

#define ZEL_QUEUE_FLAG_LOCKING 0x02u

/* Returns a new, empty queue. Bit 1 of the flags is ZEL_QUEUE_FLAG_LOCKING; bits 4 to 11 are
 * ignored and hold the memory category, a number below 64 (zelrt/memory.h); the others have no
 * effect. The queue and what it holds count under the category.
 *
 * Where even the allocator has no memory, which it admits only in a process that it is ending, the
 * result is null, and enqueuing leaves the queue as it is. */
ZEL_API ZelQueue* __ZelCreateQueue(uint32_t flags, uint32_t memoryCategory);

/* Appends the value. Constant time; the block is allocated before a lock is taken. */
ZEL_API void __ZelEnqueue(ZelQueue* queue, uintptr_t value);

/* Takes the first value out and returns it; 0 when there is none. Constant time. */
ZEL_API uintptr_t __ZelDequeue(ZelQueue* queue);

/* Whether a value is meant: exactly 1 says yes, any other result no. The arguments are those given
 * to peek. It runs on the thread that peeks, under the head's lock if the queue has locks: others
 * can enqueue meanwhile, unless they find the queue empty, but nobody can take a value out. It must
 * return, and must not use this queue but for is-empty and set-flag. */
typedef uint32_t (*ZelQueueMatch)(uint32_t argument1, uintptr_t argument2, uintptr_t value);

/* Returns the first value that `match` selects, in the order of the queue; the first of all when
 * `match` is null; 0 when there is none. With `remove` not 0 the value is taken out, wherever it
 * stands, and the others keep their order. Takes time in proportion to the values passed over. */
ZEL_API uintptr_t __ZelPeekQueue(ZelQueue* queue, ZelQueueMatch match, uint32_t argument1,
                                 uintptr_t argument2, uint32_t remove);

/* 1 when no value is queued, else 0. Where others are at work the answer may be old when it
 * arrives. */
ZEL_API uint32_t __ZelIsQueueEmpty(const ZelQueue* queue);

/* Keeps a number with the queue, 0 at first, for the caller's own purposes, as seen in a debugger.
 * No call reads it. */
ZEL_API void __ZelSetQueueFlag(ZelQueue* queue, uint32_t value);

/* Frees what is still queued; the values are the caller's business. The queue must not be used
 * afterwards. Its own record, a block of the allocator, is left: give it to __ZelFree, or let it
 * be. */
ZEL_API void __ZelDestroyQueue(ZelQueue* queue);

#ifdef __cplusplus
}
#endif

#endif
