// Finding channels.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tools/zelctl/options.h"
#include "zelrt/command_controller.hpp"

namespace zelctl {

// What a look at a directory has told.
struct Channel {
  std::string directory;
  zelrt::ControlResult result;  // kDone, kStale, or why there is no state
  zelrt::ChannelState state;
  std::string process;  // name of the process, empty when it is gone

  const char* StateName() const;
};

Channel LookAt(const std::string& directory);

nlohmann::json ToJson(const Channel& channel);

// The directories with a lock file: this one, or those right in it. None where it cannot be read.
std::vector<std::string> FindChannels(const std::string& directory);

// Those of the user, by convention. Throws a Failure when the place is not the user's alone.
std::vector<std::string> FindOwnChannels();

// The directory that the user means. Throws a Failure when there is none.
std::string Resolve(const Target& target);

// Attaches the channel that the user means. Throws a Failure unless its process is there.
void Connect(const Target& target, zelrt::CommandController& controller);

// Throws the Failure that the result means; does nothing for kDone.
void Require(zelrt::ControlResult result, const zelrt::CommandController& controller);

}  // namespace zelctl
