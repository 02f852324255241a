// Printing.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace zelctl {

// On a line of standard output. Text that is not UTF-8 is made so.
void PrintJson(const nlohmann::json& object);

// The text with a '?' for each control character: names come from other processes, and a terminal
// obeys what it is sent.
std::string Printable(std::string text);

}  // namespace zelctl
