// Threads with handles, and callbacks at the end of the run.

#include <pthread.h>
#include <signal.h>
#include <time.h>

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
};

void* Run(void* argument) {
  const auto* const thread = static_cast<const Thread*>(argument);
  t_identity = thread->identity;
  thread->function(thread->argument);
  return nullptr;
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

uint32_t CreateThread(ThreadFunction function, uintptr_t argument, size_t stackSize,
                      uintptr_t* handle) {
  auto thread = std::make_unique<Thread>();
  thread->function = function;
  thread->argument = argument;
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

void ExitThread(uint32_t code) { pthread_exit(reinterpret_cast<void*>(uintptr_t{code})); }

uint32_t WaitThread(uintptr_t* handle, uint32_t timeoutMs, uint32_t* exitCode) {
  auto* const thread = reinterpret_cast<Thread*>(*handle);
  if (thread == nullptr) return 0;
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
