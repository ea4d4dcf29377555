// What TEE_TRACE shows on standard error, a line a command: "1" the command, "params" also the
// key parameters in it, "secrets" also the values of those that are secret. What a key is made
// of, and what an operation takes in and puts out, are never shown.
#ifndef PLATFORM_TEE_CLIENT_COMMAND_TRACE_H
#define PLATFORM_TEE_CLIENT_COMMAND_TRACE_H

#include <chrono>
#include <string>

#include "platform/tee_client/command_parameters.h"

enum class TraceLevel { kOff, kCommands, kParams, kSecrets };

TraceLevel TraceLevelNow();

// TraceCommand prints a command's name, its parameters with their first bytes, result, origin and
// duration.
void TraceCommand(uint32_t command, const CommandParameters& parameters, Reply reply,
                  std::chrono::microseconds duration);
// TraceEvent prints a line about something else, if there is a trace.
void TraceEvent(const std::string& text);

#endif  // PLATFORM_TEE_CLIENT_COMMAND_TRACE_H
