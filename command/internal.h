// What the files of command/ lend each other.
#pragma once

#include "zelrt/command_handler.hpp"

namespace zelrt {

// command_handler.cc -----------------------------------------------------------------------------

// The handler that the flat calls use. The only object of the library that is built at load.
extern CollectorCommandHandler g_commandHandler;

struct CommandHandlerInternals {
  // The members are declared here, and not in the class, so that they are not exported.
  static bool Create(CollectorCommandHandler& handler);
  static bool IsUp(const CollectorCommandHandler& handler);

  // Waits for the doorbell, up to the seconds, or without end when they are 0. False with errno,
  // which is EAGAIN when the time is over.
  static bool WaitForDoorbell(const CollectorCommandHandler& handler, intptr_t seconds);

  static void RingDoorbell(const CollectorCommandHandler& handler);

  // In a child of fork: lets go of the parent's channel and leaves it as it is.
  static void Forget(CollectorCommandHandler& handler);
};

}  // namespace zelrt
