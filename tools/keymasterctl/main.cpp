// keymasterctl: every request of the keymaster back-end from the command line.

#include <stdlib.h>
#include <unistd.h>

#include <exception>

#include "commands.h"
#include "errors.h"
#include "session.h"

namespace {

constexpr int kFailed = 1;
constexpr int kUsage = 2;

struct GlobalArgs {
  std::string state;
  bool verbose = false;
  std::string trace;
};

// What stands around the library reads these when the TEE context is made.
void ApplyToEnvironment(const GlobalArgs& args) {
  if (!args.state.empty()) setenv("KEYMASTER_TA_STATE", args.state.c_str(), 1);
  setenv("ANDROID_LOG_TAGS", args.verbose ? "*:V" : kConnectingLogTags, 0);
  if (!args.trace.empty()) setenv("TEE_TRACE", args.trace.c_str(), 1);
  // A TA that crashes takes its own process with it, and not this one.
  setenv("TEE_HOST", "process", 0);
}

void AddGlobalOptions(CLI::App* app, GlobalArgs* args) {
  app->add_option("--state", args->state, "State folder of the TA (default: the TA's own)")
      ->type_name("DIR");
  app->add_flag("--verbose", args->verbose, "Show the library's whole log on standard error");
  app->add_flag("--trace{1}", args->trace,
                "Show every TEE command on standard error; --trace=params also the key parameters, "
                "--trace=secrets also those that are secret")
      ->check(CLI::IsMember({"1", "params", "secrets"}));
  app->set_version_flag("--version", "keymasterctl " KEYMASTERCTL_VERSION);
}

// What wrong usage says, for a word that is no command too.
std::string UsageText(const CLI::App* app, const CLI::Error& error) {
  std::string text = error.what();
  if (app->get_subcommands().empty()) {
    const std::vector<std::string> words = app->remaining();
    text = words.empty() ? "say a command" : "there is no command '" + words.front() + "'";
    text += "; keymasterctl --help lists them";
  }
  return "keymasterctl: " + text + "\n";
}

int Run(const std::function<void()>& action) {
  try {
    action();
    if (fflush(stdout) != 0) throw SystemFailure("cannot write", "standard output");
    return 0;
  } catch (const UsageFailure& error) {
    fprintf(stderr, "keymasterctl: %s\n", error.what());
    return kUsage;
  } catch (const std::exception& error) {
    fprintf(stderr, "keymasterctl: %s\n", error.what());
    return kFailed;
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::function<void()> action;
  GlobalArgs args;
  CLI::App app("Use the keymaster: make, import and use keys that stay in its trusted application.",
               "keymasterctl");
  app.require_subcommand(1);
  app.fallthrough();
  app.footer(
      "Example:\n  keymasterctl generate --algorithm ec --key k.blob\n"
      "  keymasterctl sign --key k.blob --in letter.txt --out letter.sig\n"
      "keymasterctl COMMAND --help tells more. Status: 0 done, 1 failed, 2 wrong usage.");
  app.failure_message(UsageText);
  app.get_formatter()->label("UINT", "N");
  AddGlobalOptions(&app, &args);
  const Registry registry = {&app, &action};
  AddKeyCommands(registry);
  AddImportCommands(registry);
  AddOperationCommands(registry);
  AddAttestCommands(registry);
  AddAuthorizationCommands(registry);
  AddDeviceCommands(registry);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : kUsage;
  }
  ApplyToEnvironment(args);
  return Run(action);
}
