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
constexpr int kExitNoTa = 3;  // the TEE or its TA cannot be reached, or died

// Failure carries the text that the user sees, and the program's status.
class Failure : public std::runtime_error {
 public:
  explicit Failure(const std::string& text, int status = kExitFailed)
      : std::runtime_error(text), status_(status) {}
  int status() const { return status_; }

 private:
  int status_;
};

// UsageFailure is about what the user wrote.
class UsageFailure : public Failure {
 public:
  explicit UsageFailure(const std::string& text) : Failure(text, kExitUsage) {}
};

// ToldFailure has been told to the user already.
class ToldFailure : public Failure {
 public:
  ToldFailure() : Failure("") {}
};

// ResultFailure is a request that the keymaster or the TEE refused.
class ResultFailure : public Failure {
 public:
  ResultFailure(const std::string& text, int32_t result, const std::string& hint, int status)
      : Failure(text, status), result_(result), hint_(hint) {}
  int32_t result() const { return result_; }
  // What the user can do next; empty where that is not known.
  const std::string& hint() const { return hint_; }

 private:
  int32_t result_;
  std::string hint_;
};

// ResultText names a keymaster or TEE result, with its number: "KM_ERROR_INVALID_KEY_BLOB (-33)".
std::string ResultText(int32_t result);

// Check throws a ResultFailure that says what failed, with which result and, where that is known,
// what to do next; key is the key's file, for commands that the hint proposes. A result of 0
// passes.
void Check(const char* what, int32_t result, const std::string& key = "FILE");

// CheckConnected is Check for the making of a session: what the TEE says is kExitNoTa.
void CheckConnected(const char* what, int32_t result);

// SystemFailure is a Failure about a file, with the text of errno.
Failure SystemFailure(const std::string& what, const std::string& path);

// Tell prints a failure: to standard error or, with --json, as a JSON object to standard output.
void Tell(const Failure& failure);

#endif  // KEYMASTERCTL_ERRORS_H
