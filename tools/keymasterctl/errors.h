// What a failed request says to the user.
#ifndef KEYMASTERCTL_ERRORS_H
#define KEYMASTERCTL_ERRORS_H

#include <stdint.h>

#include <stdexcept>
#include <string>

// The program's exit status.
constexpr int kExitDone = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

// Failure carries the text that the user sees; the program ends with status 1.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// UsageFailure is about what the user wrote; the program ends with status 2.
class UsageFailure : public Failure {
 public:
  using Failure::Failure;
};

// ResultText names a keymaster or TEE result, with its number: "KM_ERROR_INVALID_KEY_BLOB (-33)".
std::string ResultText(int32_t result);

// Check throws a Failure that says what failed, with which result and, where that is known, what
// to do next. A result of 0 passes.
void Check(const char* what, int32_t result);

// SystemFailure is a Failure about a file, with the text of errno.
Failure SystemFailure(const std::string& what, const std::string& path);

#endif  // KEYMASTERCTL_ERRORS_H
