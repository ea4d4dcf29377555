#include <stdlib.h>
#include <string.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <deque>

#include "tools/keymasterctl/command_table.h"
#include "tools/keymasterctl/commands.h"
#include "tools/keymasterctl/errors.h"
#include "tools/keymasterctl/names.h"
#include "tools/keymasterctl/report.h"

namespace {

CLI::App& TheApp() {
  static CLI::App app(kProgramSummary, kProgram);
  return app;
}

// What stands around the library reads these when the TEE context is made.
void ApplyToEnvironment(const Args& args) {
  if (args.Has("state")) {
    Style().state = args.Text("state");
    // An empty name is a variable that was never set, and not the user's own folder.
    RequireUsage(!Style().state.empty(), "--state names no folder");
    setenv("KEYMASTER_TA_STATE", Style().state.c_str(), 1);
  }
  // The library tells of its start and of successes at error level, so all or nothing is shown.
  const bool verbose = args.Has("verbose");
  setenv("ANDROID_LOG_TAGS", verbose ? "*:V" : "*:S", verbose ? 1 : 0);
  if (args.Has("trace")) setenv("TEE_TRACE", args.Text("trace").c_str(), 1);
  // A TA that crashes takes its own process with it, and not this one.
  setenv("TEE_HOST", "process", 0);
}

// Says what has to be given in the first line, and names options as they are typed.
class HelpFormatter : public CLI::Formatter {
 public:
  std::string make_usage(const CLI::App* app, std::string name) const override {
    std::string out = "Usage: " + name;
    for (const OptionRow& option :
         OptionsOf(app->get_parent() != nullptr ? app->get_name() : "*")) {
      const std::string value = ValueOf(option);
      const std::string text = IsPositional(option) ? value : NamesOf(option).back() + " " + value;
      if (IsRequired(option) || IsPositional(option)) {
        out += IsRequired(option) ? " " + text : " [" + text + "]";
      }
    }
    return out + (app->get_parent() == nullptr ? " COMMAND" : "") + " [OPTIONS]\n";
  }
  // The parser's leaves two empty lines between groups.
  std::string make_group(std::string group, bool positional,
                         std::vector<const CLI::Option*> options) const override {
    const std::string out = CLI::Formatter::make_group(group, positional, options);
    return group == kFirstGroup || positional ? out : out.substr(1);
  }
  std::string make_option_name(const CLI::Option* option, bool positional) const override {
    std::string name = positional ? "" : option->get_name(false, true);
    return name.substr(0, name.find('{'));
  }
  std::string make_option_opts(const CLI::Option* option) const override {
    const std::string& text = option->get_option_text();
    return (text.empty() || text[0] == '[' ? "" : " ") + text;
  }
};

// What is wrong with a value; empty where nothing is.
std::string WrongValue(const OptionRow& row, const std::string& text) {
  const std::vector<std::string> words = WordsOf(row);
  if (row.tag != KM_TAG_INVALID && !IsBytes(row.tag)) {
    try {
      ParamList().AddText(row.tag, text);
    } catch (const Failure& failure) {
      return failure.what();
    }
  } else if (ValueOf(row) == "N" && !ParseNumber(text)) {
    return "'" + text + "' is no number, or too large";
  } else if (!words.empty() && !Contains(words, text)) {
    return "'" + text + "' is none of " + Joined(words, ", ");
  }
  return "";
}

void AddOption(CLI::App* command, const OptionRow& row, Args* args) {
  const std::string name = NameOf(row);
  std::vector<std::string>* const values = args->Place(name);
  const auto check = [row](const std::string& text) { return WrongValue(row, text); };
  const std::string value = ValueOf(row);
  CLI::Option* option = nullptr;
  if (value.empty()) {
    option = command->add_flag_callback(
        row.names, [values] { values->emplace_back("yes"); }, row.help);
  } else if (name == "trace") {
    option =
        command->add_flag("--trace{1}", *values, row.help)->option_text("[=params|secrets|full]");
  } else {
    option = command->add_option(row.names, *values, row.help)->option_text(value);
    const bool several = value.back() == '.';
    option->expected(1)->allow_extra_args(false);
    option->multi_option_policy(several ? CLI::MultiOptionPolicy::TakeAll
                                        : CLI::MultiOptionPolicy::Throw);
    // "NAME=VALUE" may have commas of its own.
    option->delimiter(several && value.find('=') == std::string::npos ? ',' : '\0');
  }
  option->required(IsRequired(row))->group(row.group);
  if (!value.empty()) option->check(CLI::Validator(check, "", ""));
}

// What goes with what, and what does not.
void AddRules(CLI::App* command) {
  const auto find = [command](const char* name) { return command->get_option_no_throw(name); };
  CLI::Option* const sid = find("--auth-sid");
  for (const char* name : {"--auth-type", "--auth-timeout"}) {
    if (sid != nullptr && find(name) != nullptr) find(name)->needs(sid);
  }
  for (const char* name : {"--no-auth", "--auth-token"}) {
    if (sid != nullptr && find(name) != nullptr) sid->excludes(find(name));
  }
}

void AddCommand(const CommandRow& row, const Args** chosen_args, const CommandRow** chosen) {
  static std::deque<Args> all;  // grows without moving what it holds
  Args* const args = &all.emplace_back();
  CLI::App* const command = TheApp().add_subcommand(row.name, row.summary);
  const std::string note = row.note.empty() ? "" : row.note + "\n";
  command->group(row.group);
  command->footer("Example:\n" + TypedExamples(row, "  ") + note +
                  "keymasterctl --help shows the options that every command takes.");
  for (const OptionRow& option : OptionsOf(row.name)) {
    AddOption(command, option, args);
  }
  AddRules(command);
  command->callback([=, &row] {
    *chosen = &row;
    *chosen_args = args;
  });
}

std::string Footer() {
  std::string out = "Example:\n" + TypedExamples(Commands()[0], "  ") + "\nExit status:\n";
  for (const auto& [status, text] : TextsOf("exit statuses")) {
    out += "  " + status + "  " + text + "\n";
  }
  return out + "\nkeymasterctl help COMMAND tells more.";
}

Failure NoSuchWord(const std::string& subject, const std::string& word,
                   const std::vector<std::string>& candidates, const std::string& help) {
  const std::string near = Nearest(word, candidates);
  return UsageFailure(subject + " '" + word + "'",
                      near.empty() ? help : "did you mean " + near + "? " + help);
}

// What is wrong with the command line: first of all a word that means nothing.
Failure WrongLine(const CLI::Error& error) {
  const std::vector<CLI::App*> chosen = TheApp().get_subcommands();
  std::vector<std::string> words = TheApp().remaining(true);
  if (chosen.empty()) {
    const std::string help = "keymasterctl help lists the commands";
    return words.empty() ? UsageFailure("say a command", help)
                         : NoSuchWord("there is no command", words[0], CommandNames(), help);
  }
  const std::string command = chosen[0]->get_name();
  const std::string help = "keymasterctl help " + command + " lists what it takes";
  // The value of an unknown option is no word of its own.
  std::stable_partition(words.begin(), words.end(),
                        [](const std::string& word) { return word[0] == '-'; });
  if (words.empty()) return UsageFailure(error.what(), help);
  std::vector<std::string> candidates = {"--help"};
  for (const std::string& place : {command, std::string("*")}) {
    for (const OptionRow& option : OptionsOf(place)) {
      const std::vector<std::string> names = NamesOf(option);
      candidates.insert(candidates.end(), names.begin(), names.end());
    }
  }
  return NoSuchWord(command + " takes no", words[0].substr(0, words[0].find('=')), candidates,
                    help);
}

}  // namespace

void RunHelp(const Args& args) {
  const std::string name = args.Text("command");
  if (name.empty()) {
    // App::help() would show the help of the command that runs: this one.
    const auto formatter = TheApp().get_formatter();
    fputs(formatter->make_help(&TheApp(), kProgram, CLI::AppFormatMode::Normal).c_str(), stdout);
    return;
  }
  const std::vector<std::string> names = CommandNames();
  if (!Contains(names, name)) {
    throw NoSuchWord("there is no command", name, names, "keymasterctl help lists them");
  }
  fputs(TheApp().get_subcommand(name)->help(kProgram).c_str(), stdout);
}

std::function<void()> Parse(int argc, char** argv, int* status) {
  static Args global;
  CLI::App& app = TheApp();
  const CommandRow* chosen = nullptr;
  const Args* args = nullptr;
  app.require_subcommand(1);
  app.fallthrough();
  app.footer(Footer());
  app.formatter(std::make_shared<HelpFormatter>());
  app.set_help_flag("-h,--help", "Show this help");
  app.set_version_flag("--version", "keymasterctl " KEYMASTERCTL_VERSION, "Show the version");
  for (const OptionRow& option : OptionsOf("*")) {
    AddOption(&app, option, &global);
  }
  for (const CommandRow& command : Commands()) {
    AddCommand(command, &args, &chosen);
  }
  // A wrong command line is told as JSON too.
  const auto is_json = [](const char* word) { return strcmp(word, "--json") == 0; };
  Style().json = std::any_of(argv + 1, argv + argc, is_json);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    const bool told = error.get_exit_code() == 0;
    *status = told ? kExitDone : kExitUsage;
    told ? static_cast<void>(app.exit(error)) : Tell(WrongLine(error));
    return nullptr;
  }
  Style().color = global.Text("color", "auto");
  return [chosen, args] {
    ApplyToEnvironment(global);
    chosen->run(*args);
  };
}
