// A stand-in for the instrumentation framework, over POSIX threads.
//
// A collector's client normally gets thread ids, thread-local storage, the process id, a client
// lock and threads from its framework, and hands them to zelrt. This gives the same services to
// programs that have no framework: tests, benchmarks, tools and examples.
#ifndef ZELRT_HOST_HOST_H
#define ZELRT_HOST_HOST_H

#include <cstddef>
#include <cstdint>

namespace zelhost {

// Installs every hook of zelrt/runtime.h, and the thread services of zelrt/command.h, with what is
// below. Call it once, before zelrt is started and before there are threads. In a child of fork the
// ids are the child's own; what the forking thread holds by its old id can be released there, but
// not taken again.
void Install();

// Ids of the calling thread: this stand-in's own number, counted from 1 in the order in which
// threads first ask; the kernel's; and the kernel's of the creator, 0 for a thread that was not
// made by CreateThread. The first two are kept per thread: asking again costs a few instructions
// and no call, allocates nothing, and may be done anywhere.
uint64_t CurrentThreadId();
uint64_t NativeThreadId();
uint64_t NativeParentThreadId();

int32_t ProcessId();

// Thread-local storage. 0xFFFFFFFF is no index; flags are 1 for success. A new index holds null in
// every thread.
inline constexpr uint32_t kNoTlsIndex = 0xFFFFFFFF;
uint32_t TlsAlloc();
uint32_t TlsFree(uint32_t index);
void* TlsGetValue(uint32_t index);
uint32_t TlsSetValue(uint32_t index, void* value);

// The client lock, recursive.
void ClientLock();
void ClientUnlock();

// Threads. A new thread has all signals blocked, since they are the host program's business.

inline constexpr uint32_t kNoThread = 0xFFFFFFFF;
using ThreadFunction = void (*)(uintptr_t argument);

// Starts a thread and stores its handle, which one thread at a time may pass to WaitThread until
// that succeeds. The thread may run before the handle is stored. A stack size of 0 is the system's
// default. Returns the new thread's CurrentThreadId, kNoThread on failure.
uint32_t CreateThread(ThreadFunction function, uintptr_t argument, size_t stackSize,
                      uintptr_t* handle);

// The same for a thread that serves others until it is told to end: when it ends by ExitThread with
// errno at EINTR, and nobody waits for it yet, its function is called again. Objects with
// destructors must not be in scope there.
uint32_t CreateServiceThread(ThreadFunction function, uintptr_t argument, size_t stackSize,
                             uintptr_t* handle);

// Ends the calling thread, which was made by one of the two. Returning from the function ends it
// with code 0.
[[noreturn]] void ExitThread(uint32_t code);

// Waits up to timeoutMs for the thread's end. Returns 1, stores the exit code where there is a
// place for it, sets the handle to 0 and frees what is behind it; or returns 0, and the handle
// stays.
uint32_t WaitThread(uintptr_t* handle, uint32_t timeoutMs, uint32_t* exitCode);

// End of the run. Callbacks are called once, last registered first, by RunEndCallbacks or at the
// latest by exit().
using EndCallback = void (*)(uintptr_t argument);
void AddEndCallback(EndCallback callback, uintptr_t argument);
void RunEndCallbacks();

}  // namespace zelhost

#endif
