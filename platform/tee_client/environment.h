// What the environment tells the TEE client: TEE_HOST, TEE_TRACE, TEE_FAULT.
#ifndef PLATFORM_TEE_CLIENT_ENVIRONMENT_H
#define PLATFORM_TEE_CLIENT_ENVIRONMENT_H

#include <string>

// VariableText returns a variable's value, "" for one that is not set.
std::string VariableText(const char* variable);

// RejectWord ends the process with status 2 and a line on standard error: a test whose fault is
// misspelt would pass without one. known says what is understood.
[[noreturn]] void RejectWord(const char* variable, const std::string& word, const char* known);

#endif  // PLATFORM_TEE_CLIENT_ENVIRONMENT_H
