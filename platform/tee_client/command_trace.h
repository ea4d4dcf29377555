// One line a command on standard error, while the environment variable TEE_TRACE is 1.
#ifndef PLATFORM_TEE_CLIENT_COMMAND_TRACE_H
#define PLATFORM_TEE_CLIENT_COMMAND_TRACE_H

#include <chrono>

#include "command_parameters.h"

bool IsTracing();

// TraceCommand prints a command's id, parameter types and sizes, result, origin and duration,
// and never a value or a byte of its parameters.
void TraceCommand(uint32_t command, const CommandParameters& parameters, Reply reply,
                  std::chrono::microseconds duration);

#endif  // PLATFORM_TEE_CLIENT_COMMAND_TRACE_H
