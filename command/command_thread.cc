// The command thread, the services that make it, and the flat calls.
//
// The thread is made before the channel, by a service that may fail, and waits at a gate until the
// channel is up or has failed. g_gate is stored with release after everything that the thread
// reads, and read with acquire. g_stop is stored before the doorbell is rung; the thread reads it
// after its wait, and the system calls order the two.
//
// All this belongs to the process g_owner. A child of fork starts afresh.

#include <unistd.h>

#include <cerrno>

#include "command/internal.h"
#include "runtime/atomics.h"
#include "zelrt/runtime.h"

namespace zelrt {
namespace {

constexpr uint32_t kNoThread = 0xFFFFFFFF;
constexpr uint32_t kWaitTimeout = 1000;  // in the service's unit

struct ThreadServices {
  ZelThreadCreateProc create;
  ZelThreadExitProc exit;
  ZelThreadWaitProc wait;
  ZelAddFiniProc addFini;

  bool AreComplete() const {
    return create != nullptr && exit != nullptr && wait != nullptr && addFini != nullptr;
  }
};
constinit ThreadServices g_services = {};

enum Gate : uint32_t { kClosed, kOpen, kCalledOff };

constinit uintptr_t g_thread = 0;  // handle of the command thread, 0 when none runs
constinit uint32_t g_stop = 0;
constinit uint32_t g_gate = kClosed;
constinit uint32_t g_registrations = 0;  // a thread that outlasted its own leaves
constinit int32_t g_owner = 0;           // process that registered; 0: none has

bool IsStopped(uint32_t registration) {
  return LoadAcquire(g_stop) != 0 || LoadRelaxed(g_registrations) != registration;
}

bool IsChannelUpInTime() {
  uint32_t gate;
  while ((gate = LoadAcquire(g_gate)) == kClosed) __ZelYield();
  return gate == kOpen;
}

void ServeCommands(uint32_t registration, intptr_t heartbeatSeconds) {
  // Looked at before the first wait too: the create service may run the function again after the
  // doorbell was rung for the stop.
  while (!IsStopped(registration)) {
    const bool isRung =
        CommandHandlerInternals::WaitForDoorbell(g_commandHandler, heartbeatSeconds);
    if (!isRung && errno != EAGAIN) return;
    if (IsStopped(registration)) return;
    if (isRung) {
      g_commandHandler.processCommands();
    } else {
      g_commandHandler.processHeartbeat();
    }
  }
}

void RunCommandThread(uintptr_t heartbeatSeconds) {
  const uint32_t registration = LoadRelaxed(g_registrations);
  if (IsChannelUpInTime()) ServeCommands(registration, static_cast<intptr_t>(heartbeatSeconds));
  g_services.exit(0);
}

// Gives up the thread, which is on its way out, or will be after its callback.
void WaitForThread() {
  g_services.wait(&g_thread, kWaitTimeout, nullptr);
  g_thread = 0;
}

void ForgetParentsChannel() {
  if (g_owner == 0 || g_owner == getpid()) return;
  CommandHandlerInternals::Forget(g_commandHandler);
  g_thread = 0;
  g_owner = 0;
}

void StopThread(uintptr_t) {
  ForgetParentsChannel();
  if (g_thread == 0) return;
  StoreRelease(g_stop, 1);
  CommandHandlerInternals::RingDoorbell(g_commandHandler);
  WaitForThread();
}

bool StartThread(int heartbeatSeconds) {
  StoreRelease(g_stop, 0);
  StoreRelease(g_gate, kClosed);
  AtomicIncrement(g_registrations);
  const auto argument = static_cast<uintptr_t>(intptr_t{heartbeatSeconds});
  return g_services.create(RunCommandThread, argument, 0, &g_thread) != kNoThread;
}

bool Register(const char* directory, ZelCommandCallback callback, void* userData,
              int heartbeatSeconds) {
  ForgetParentsChannel();
  if (!g_services.AreComplete() || CommandHandlerInternals::IsUp(g_commandHandler)) return false;
  StopThread(0);  // of a channel that was torn down under it
  if (!StartThread(heartbeatSeconds)) return false;
  g_owner = getpid();
  g_services.addFini(StopThread, 0);
  const bool isUp = g_commandHandler.initializeCommandHandler(directory, callback, userData) != 0;
  StoreRelease(g_gate, isUp ? kOpen : kCalledOff);
  if (!isUp) WaitForThread();
  return isUp;
}

}  // namespace
}  // namespace zelrt

using namespace zelrt;

uint32_t __ZelSetThreadProcs(ZelThreadCreateProc create, ZelThreadExitProc exit,
                             ZelThreadWaitProc wait, ZelAddFiniProc addFini) {
  g_services = {create, exit, wait, addFini};
  return 1;
}

ZelThreadCreateProc __ZelGetThreadCreateProc() { return g_services.create; }
ZelThreadWaitProc __ZelGetThreadWaitProc() { return g_services.wait; }

uint32_t __ZelRegisterCommandHandlerWithHeartbeat(const char* directory,
                                                  ZelCommandCallback callback, void* userData,
                                                  int heartbeatSeconds) {
  return Register(directory, callback, userData, heartbeatSeconds) ? 1 : 0;
}

uint32_t __ZelRegisterCommandHandler(const char* directory, ZelCommandCallback callback,
                                     void* userData) {
  return __ZelRegisterCommandHandlerWithHeartbeat(directory, callback, userData, 0);
}

void __ZelShutdownCommandHandler() { StopThread(0); }

void __ZelUnregisterCommandHandler(_ZELCMDHDLRCLEANEXTENT extent) {
  ForgetParentsChannel();
  g_commandHandler.cleanupCommandHandler(extent);
}
