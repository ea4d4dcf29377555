// The commands, by family, and how each is registered.
#ifndef KEYMASTERCTL_COMMANDS_H
#define KEYMASTERCTL_COMMANDS_H

#include <CLI/CLI.hpp>
#include <functional>
#include <memory>
#include <string>
#include <utility>

// Registry is where the commands are registered; the command line's choice lands in action.
struct Registry {
  CLI::App* app;
  std::function<void()>* action;
};

// AddCommand registers a command that runs with its own Args. example is its command line; what
// else its help tells stands behind that on lines of its own. Returns the place of its options and
// the Args that they fill in.
template <typename Args>
std::pair<CLI::App*, Args*> AddCommand(const Registry& registry, const std::string& name,
                                       const std::string& description, const std::string& example,
                                       void (*run)(const Args&)) {
  CLI::App* command = registry.app->add_subcommand(name, description);
  command->footer("Example:\n  keymasterctl " + example);
  const auto args = std::make_shared<Args>();
  std::function<void()>* action = registry.action;
  command->callback([action, args, run] { *action = [args, run] { run(*args); }; });
  return {command, args.get()};
}

struct NoArgs {};

void AddKeyCommands(const Registry& registry);            // generate ... delete
void AddImportCommands(const Registry& registry);         // import, import-wrapped
void AddOperationCommands(const Registry& registry);      // sign, verify, encrypt, decrypt
void AddAttestCommands(const Registry& registry);         // attest
void AddAuthorizationCommands(const Registry& registry);  // auth-token ... hmac-sharing
void AddDeviceCommands(const Registry& registry);         // device state, configuration, info

#endif  // KEYMASTERCTL_COMMANDS_H
