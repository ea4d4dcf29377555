// The command line, by the tables of commands and options.
#ifndef KEYMASTERCTL_COMMAND_LINE_H
#define KEYMASTERCTL_COMMAND_LINE_H

#include <functional>

// Parse reads the arguments. Returns what the chosen command runs; nothing when all is said
// already, with the program's exit status in *status.
std::function<void()> Parse(int argc, char** argv, int* status);

#endif  // KEYMASTERCTL_COMMAND_LINE_H
