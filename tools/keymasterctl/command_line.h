// The command line: commands, their options, and where the values land. Only command_line.cpp knows
// the option parser, whose header is slow to compile.
#ifndef KEYMASTERCTL_COMMAND_LINE_H
#define KEYMASTERCTL_COMMAND_LINE_H

#include <hardware/keymaster_defs.h>
#include <stdint.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "command_info.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

// Option is an option that was added to a command.
class Option {
 public:
  explicit Option(CLI::Option* option) : option_(option) {}

  Option Required() const;
  // Has the help name the kind of value; FILE and DIR are completed in a shell.
  Option Takes(const char* what) const;
  // Takes the names of a tag's values; the variable receives the number.
  Option TakesNames(keymaster_tag_t tag) const;
  // Takes one of these words.
  Option TakesWords(const std::vector<std::string>& words) const;
  // Takes several values with commas between.
  Option TakesList() const;
  Option Needs(Option other) const;
  Option Excludes(Option other) const;

 private:
  CLI::Option* option_;
};

// Command takes options. names are as in "-k,--key"; help is one line; the variable must live as
// long as the command line.
class Command {
 public:
  explicit Command(CLI::App* app) : app_(app) {}

  Option Add(const char* names, std::string* value, const char* help) const;
  Option Add(const char* names, std::optional<std::string>* value, const char* help) const;
  Option Add(const char* names, std::vector<std::string>* value, const char* help) const;
  Option Add(const char* names, uint32_t* value, const char* help) const;
  Option Add(const char* names, std::optional<uint32_t>* value, const char* help) const;
  Option Add(const char* names, std::vector<uint32_t>* value, const char* help) const;
  Option Add(const char* names, uint64_t* value, const char* help) const;
  Option Add(const char* names, std::optional<uint64_t>* value, const char* help) const;
  Option Add(const char* names, std::vector<uint64_t>* value, const char* help) const;
  // Adds an option without a value; "!--name" among the names is its opposite.
  Option AddFlag(const char* names, bool* value, const char* help) const;
  // Adds a flag that sets the text in its braces, as in "--trace{1}", or --trace=TEXT.
  Option AddTextFlag(const char* names, std::string* value, const char* help) const;

 private:
  CLI::App* app_;
};

// CommandLine is the whole of it: the options of every command, and the commands.
class CommandLine {
 public:
  CommandLine();
  ~CommandLine();
  CommandLine(const CommandLine&) = delete;
  CommandLine& operator=(const CommandLine&) = delete;

  // Returns the place of the options that every command takes.
  Command global() const;

  // AddCommand adds a command of the command table that runs with its own Args. Returns the place
  // of its options and the Args that they fill in, which the command line owns.
  template <typename Args>
  std::pair<Command, Args*> AddCommand(const char* name, void (*run)(const Args&)) {
    const auto args = std::make_shared<Args>();
    return {Place(name, [args, run] { run(*args); }), args.get()};
  }

  // Describe returns what every command takes, then the commands in the order of the help.
  std::vector<CommandInfo> Describe() const;

  // Parse reads the arguments. Returns what the chosen command runs; nothing when all is said
  // already, with the program's exit status in *status.
  std::function<void()> Parse(int argc, char** argv, int* status);

 private:
  Command Place(const char* name, std::function<void()> action);

  std::unique_ptr<CLI::App> app_;
  std::function<void()> chosen_;
};

#endif  // KEYMASTERCTL_COMMAND_LINE_H
