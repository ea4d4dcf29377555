// What the environment tells the TEE client: TEE_HOST, TEE_TRACE, TEE_FAULT.
#ifndef PLATFORM_TEE_CLIENT_ENVIRONMENT_H
#define PLATFORM_TEE_CLIENT_ENVIRONMENT_H

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

// VariableText returns a variable's value, "" for one that is not set.
inline std::string VariableText(const char* variable) {
  const char* const value = getenv(variable);
  return value == nullptr ? "" : value;
}

// RejectWord ends the process with status 2 and a line on standard error: a test whose fault is
// misspelt would pass without one. known says what is understood.
[[noreturn]] inline void RejectWord(const char* variable, const std::string& word,
                                    const char* known) {
  (void)fprintf(stderr, "tee: %s: \"%s\" is not understood; known: %s\n", variable, word.c_str(),
                known);
  // Other threads may be at work: nothing of theirs is torn down under them.
  _exit(2);
}

#endif  // PLATFORM_TEE_CLIENT_ENVIRONMENT_H
