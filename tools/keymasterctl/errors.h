// What a failure says to the user.
#ifndef KEYMASTERCTL_ERRORS_H
#define KEYMASTERCTL_ERRORS_H

#include <stdint.h>

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>

// The program's exit status.
constexpr int kExitDone = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kExitNoTa = 3;  // the TEE or its TA cannot be reached, or died

// Failure ends the command. An empty text means that the user has been told already.
class Failure : public std::runtime_error {
 public:
  explicit Failure(const std::string& text, const std::string& next = "", int exit = kExitFailed)
      : std::runtime_error(text), hint(next), status(exit) {}

  std::string hint;  // what the user can do next; empty where that is not known
  int status;
  std::optional<int32_t> result;  // of the keymaster or the TEE
  // Finds a better hint once no session is open any more; may be empty.
  std::function<std::string()> diagnose;
};

// UsageFailure is a Failure about what the user wrote.
Failure UsageFailure(const std::string& text, const std::string& hint = "");
// SystemFailure is a Failure about a file, with the text of errno.
Failure SystemFailure(const std::string& what, const std::string& path);

// Require throws a Failure with that text, RequireUsage a UsageFailure, when it does not hold.
void Require(bool holds, const std::string& text);
void RequireUsage(bool holds, const std::string& text);

// ResultFailure is a request that the keymaster or the TEE rejected: what failed, with which
// result and, where that is known, what to do next; key is the key's file, for commands that the
// hint proposes.
Failure ResultFailure(const char* what, int32_t result, const std::string& key = "FILE");
// Check throws a ResultFailure unless the result is 0.
void Check(const char* what, int32_t result, const std::string& key = "FILE");

// Typed returns the tool's name with the --state that it was called with, as the user types it
// again; and the text with every "keymasterctl" replaced by that.
std::string Typed(std::string text = "keymasterctl");
// Quoted returns text as one word of a shell.
std::string Quoted(const std::string& text);

// Tell prints a failure: to standard error or, with --json, as a JSON object to standard output.
void Tell(const Failure& failure);

#endif  // KEYMASTERCTL_ERRORS_H
