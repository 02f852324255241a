// Threads with handles, and callbacks at the end of the run.

#include <pthread.h>
#include <setjmp.h>
#include <signal.h>
#include <time.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "host/host.h"
#include "host/thread_ids.h"

namespace zelhost {
namespace {

// Behind a handle; owned by whoever waits for the thread.
struct Thread {
  pthread_t pthread;
  ThreadFunction function;
  uintptr_t argument;
  ThreadIdentity identity;
  bool isService;
  std::atomic<bool> isWaitedFor;
  jmp_buf start;  // of a service, for ExitThread
};

constinit thread_local Thread* t_service = nullptr;

void* Run(void* argument) {
  auto* const thread = static_cast<Thread*>(argument);
  t_identity = thread->identity;
  if (thread->isService) {
    t_service = thread;
    setjmp(thread->start);  // NOLINT(cert-err52-cpp): see ExitThread
    errno = 0;
  }
  thread->function(thread->argument);
  return nullptr;
}

// The kernel lets a wait fail when the process was stopped and goes on, signals blocked or not, and
// not everybody waits again.
bool WasInterrupted(const Thread* thread) {
  return thread != nullptr && errno == EINTR && !thread->isWaitedFor.load();
}

class Attributes {
 public:
  explicit Attributes(size_t stackSize) {
    pthread_attr_init(&attributes_);
    sigset_t all;
    sigfillset(&all);
    pthread_attr_setsigmask_np(&attributes_, &all);
    isUsable_ = stackSize == 0 || pthread_attr_setstacksize(&attributes_, stackSize) == 0;
  }
  ~Attributes() { pthread_attr_destroy(&attributes_); }
  Attributes(const Attributes&) = delete;
  Attributes& operator=(const Attributes&) = delete;

  const pthread_attr_t* Get() const { return isUsable_ ? &attributes_ : nullptr; }

 private:
  pthread_attr_t attributes_;
  bool isUsable_;
};

timespec FromNow(uint32_t milliseconds) {
  timespec time;
  clock_gettime(CLOCK_REALTIME, &time);
  time.tv_sec += milliseconds / 1000;
  time.tv_nsec += (milliseconds % 1000) * 1'000'000L;
  if (time.tv_nsec >= 1'000'000'000L) {
    time.tv_nsec -= 1'000'000'000L;
    ++time.tv_sec;
  }
  return time;
}

struct RegisteredCallback {
  EndCallback callback;
  uintptr_t argument;
};

// Never destroyed: exit() may come to the callbacks after the destructors of this file.
struct EndCallbacks {
  std::mutex mutex;
  std::vector<RegisteredCallback> list;
};
EndCallbacks& TheEndCallbacks() {
  static auto& callbacks = *new EndCallbacks;
  return callbacks;
}

}  // namespace

namespace {

uint32_t Create(ThreadFunction function, uintptr_t argument, size_t stackSize, uintptr_t* handle,
                bool isService) {
  auto thread = std::make_unique<Thread>();
  thread->function = function;
  thread->argument = argument;
  thread->isService = isService;
  thread->identity.current = NextThreadNumber();
  thread->identity.parent = NativeThreadId();
  // Read before the start: a waiter may free the record as soon as the handle is stored.
  const auto number = static_cast<uint32_t>(thread->identity.current);
  const Attributes attributes(stackSize);
  if (attributes.Get() == nullptr) return kNoThread;
  if (pthread_create(&thread->pthread, attributes.Get(), Run, thread.get()) != 0) return kNoThread;
  *handle = reinterpret_cast<uintptr_t>(thread.release());
  return number;
}

}  // namespace

uint32_t CreateThread(ThreadFunction function, uintptr_t argument, size_t stackSize,
                      uintptr_t* handle) {
  return Create(function, argument, stackSize, handle, false);
}

uint32_t CreateServiceThread(ThreadFunction function, uintptr_t argument, size_t stackSize,
                             uintptr_t* handle) {
  return Create(function, argument, stackSize, handle, true);
}

void ExitThread(uint32_t code) {
  // Not pthread_exit and another thread: whoever has the handle waits for this one. Nor an
  // exception: it would have to pass through functions that know of none.
  if (WasInterrupted(t_service)) longjmp(t_service->start, 1);  // NOLINT(cert-err52-cpp)
  pthread_exit(reinterpret_cast<void*>(uintptr_t{code}));
}

uint32_t WaitThread(uintptr_t* handle, uint32_t timeoutMs, uint32_t* exitCode) {
  auto* const thread = reinterpret_cast<Thread*>(*handle);
  if (thread == nullptr) return 0;
  thread->isWaitedFor.store(true);
  const timespec deadline = FromNow(timeoutMs);
  void* result;
  if (pthread_timedjoin_np(thread->pthread, &result, &deadline) != 0) return 0;
  if (exitCode != nullptr) *exitCode = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(result));
  *handle = 0;
  delete thread;
  return 1;
}

void AddEndCallback(EndCallback callback, uintptr_t argument) {
  EndCallbacks& callbacks = TheEndCallbacks();
  const std::lock_guard guard(callbacks.mutex);
  static const int registered = std::atexit(RunEndCallbacks);
  static_cast<void>(registered);
  callbacks.list.push_back({callback, argument});
}

void RunEndCallbacks() {
  EndCallbacks& callbacks = TheEndCallbacks();
  for (;;) {
    RegisteredCallback last;
    {
      const std::lock_guard guard(callbacks.mutex);
      if (callbacks.list.empty()) return;
      last = callbacks.list.back();
      callbacks.list.pop_back();
    }
    last.callback(last.argument);
  }
}

}  // namespace zelhost
