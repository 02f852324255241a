// The subcommands. Each prints its result and returns the exit status, or throws a Failure.
#pragma once

#include "tools/zelctl/exit_status.h"
#include "tools/zelctl/options.h"

namespace zelctl {

ExitStatus List(const Options& options);
ExitStatus Status(const Options& options);
ExitStatus Send(const Options& options);
ExitStatus Ping(const Options& options);
ExitStatus Reap(const Options& options);

}  // namespace zelctl
