// keymasterctl: every request of the keymaster back-end from the command line.

#include <stdio.h>
#include <stdlib.h>

#include <exception>
#include <optional>
#include <string>

#include "commands.h"
#include "errors.h"
#include "session.h"
#include "terminal.h"

namespace {

struct GlobalArgs {
  std::optional<std::string> state;
  bool verbose = false;
  std::string trace;
};

// What stands around the library reads these when the TEE context is made.
void ApplyToEnvironment(const GlobalArgs& args) {
  // An empty name is a variable that was never set, and not the user's own folder.
  if (args.state && args.state->empty()) throw UsageFailure("--state names no folder");
  if (args.state) setenv("KEYMASTER_TA_STATE", args.state->c_str(), 1);
  setenv("ANDROID_LOG_TAGS", args.verbose ? "*:V" : kConnectingLogTags, args.verbose ? 1 : 0);
  if (!args.trace.empty()) setenv("TEE_TRACE", args.trace.c_str(), 1);
  // A TA that crashes takes its own process with it, and not this one.
  setenv("TEE_HOST", "process", 0);
}

void AddGlobalOptions(const Command& global, GlobalArgs* args) {
  global.Add("--state", &args->state, "State folder of the TA (default: the TA's own)")
      .Takes("DIR");
  global.AddFlag("--verbose", &args->verbose, "Show the library's whole log on standard error");
  global
      .AddTextFlag("--trace{1}", &args->trace,
                   "Show every TEE command on standard error; --trace=params also the key "
                   "parameters, --trace=secrets also those that are secret")
      .TakesWords({"1", "params", "secrets"});
  global.AddFlag("--json", &Style().json,
                 "Tell the result, or a request's failure, as a JSON object");
  global.Add("--color", &Style().color, "Colour the output (default auto: on a terminal)")
      .TakesWords({"auto", "always", "never"});
}

int Run(const std::function<void()>& action) {
  try {
    action();
    if (fflush(stdout) != 0) throw SystemFailure("cannot write", "standard output");
    return kExitDone;
  } catch (const Failure& failure) {
    Tell(failure);
    return failure.status();
  } catch (const std::exception& error) {
    Tell(Failure(error.what()));
    return kExitFailed;
  }
}

}  // namespace

int main(int argc, char** argv) {
  GlobalArgs args;
  CommandLine line;
  AddGlobalOptions(line.global(), &args);
  AddKeyCommands(&line);
  AddImportCommands(&line);
  AddOperationCommands(&line);
  AddAttestCommands(&line);
  AddAuthorizationCommands(&line);
  AddDeviceCommands(&line);
  AddDoctorCommand(&line);
  AddShellCommands(&line);
  int status = kExitDone;
  const std::function<void()> action = line.Parse(argc, argv, &status);
  if (!action) return status;
  return Run([&] {
    ApplyToEnvironment(args);
    action();
  });
}
