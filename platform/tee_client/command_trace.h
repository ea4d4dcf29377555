// What TEE_TRACE shows on standard error, a line a command: "1" the command, "params" also the
// key parameters in it, "secrets" also the values of those that are secret. What a key is made
// of, and what an operation takes in and puts out, are shown by "full" only: all of every buffer,
// inputs before the command and outputs after it. Any other word ends the process.
#ifndef PLATFORM_TEE_CLIENT_COMMAND_TRACE_H
#define PLATFORM_TEE_CLIENT_COMMAND_TRACE_H

#include <chrono>
#include <string>

#include "platform/tee_client/command_parameters.h"

// TraceInputs prints the inputs of a command that is about to run, when the trace is full.
void TraceInputs(uint32_t command, const CommandParameters& parameters);
// TraceCommand prints a command's name, its parameters with their first bytes, result, origin and
// duration since its start, if there is a trace.
void TraceCommand(uint32_t command, const CommandParameters& parameters, Reply reply,
                  std::chrono::steady_clock::time_point start);
// TraceEvent prints a line about something else, if there is a trace.
void TraceEvent(const std::string& text);

#endif  // PLATFORM_TEE_CLIENT_COMMAND_TRACE_H
