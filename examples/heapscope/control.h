// The launcher's other forms: they ask a collector while its program runs.
#pragma once

namespace heapscope {

// Whether the command line is one of them. A program of such a name is run behind "--".
bool IsControl(const char* firstArgument);

// Prints the answer. Returns the exit status: 0, 1 for an answer that says no, 125 when there is
// none to be had.
int Control(int argc, char** argv);

}  // namespace heapscope
