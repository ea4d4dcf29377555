// keymasterctl: every request of the keymaster back-end from the command line.

#include <stdio.h>

#include <exception>

#include "tools/keymasterctl/commands.h"
#include "tools/keymasterctl/errors.h"

namespace {

int Run(const std::function<void()>& action) {
  try {
    action();
    if (fflush(stdout) != 0) throw SystemFailure("cannot write", "standard output");
    return kExitDone;
  } catch (Failure& failure) {
    // The hint stays as it is when the failure cannot be looked into.
    try {
      failure.hint = failure.diagnose ? failure.diagnose() : failure.hint;
    } catch (const std::exception&) {
    }
    Tell(failure);
    return failure.status;
  } catch (const std::exception& error) {
    Tell(Failure(error.what()));
    return kExitFailed;
  }
}

}  // namespace

int main(int argc, char** argv) {
  int status = kExitDone;
  const std::function<void()> action = Parse(argc, argv, &status);
  return action ? Run(action) : status;
}
