/* Lock files, by which processes that work together exclude each other and pass 8 bytes on; and the
 * start of a child process. The lock is the process's: its threads do not exclude each other, and
 * closing any descriptor of the file ends it. */
#ifndef ZELRT_PROCESSES_H
#define ZELRT_PROCESSES_H

#include "zelrt/base.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Opens the file for reading and writing, creates it if missing (0777 less the umask), and empties
 * it when truncate is not 0. Writes reach the disk before they return. Returns a descriptor
 * above 2. A file that cannot be opened is a fatal tool defect. */
ZEL_API int32_t __ZelCreateLockFile(const char* path, int truncate);

/* Waits until this process alone has the whole file locked. Returns 0, or -1 with errno, EINTR
 * included. */
ZEL_API int __ZelLockFile(int32_t descriptor);

/* Returns 0, or -1 with errno. */
ZEL_API int __ZelUnlockFile(int32_t descriptor);

/* Moves the 8 bytes at the start of the file. Return how many there were, or were written; fewer
 * are no error. An error of the system is a fatal tool defect. */
ZEL_API int __ZelReadLockFile(int32_t descriptor, void* buffer);
ZEL_API int __ZelWriteLockFile(int32_t descriptor, const void* buffer);

/* Returns the result of close. */
ZEL_API int __ZelCloseLockFile(int32_t descriptor);

/* Starts arguments[0], a path, with the arguments up to a null entry and an empty environment.
 * Returns the child's process id, or -1 with errno. A child that cannot start the executable says
 * so in the log, if nothing hinders it, and ends with status 255 within a second. */
ZEL_API int32_t __ZelCreateProcess(char* const arguments[]);

#ifdef __cplusplus
}
#endif

#endif
