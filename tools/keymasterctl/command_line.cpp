#include "command_line.h"

#include <CLI/CLI.hpp>

#include "command_table.h"
#include "errors.h"
#include "names.h"
#include "params.h"
#include "terminal.h"

namespace {

// What wrong usage says, for a word that is no command too.
std::string UsageText(const CLI::App* app, const CLI::Error& error) {
  std::string text = error.what();
  if (app->get_subcommands().empty()) {
    const std::vector<std::string> words = app->remaining();
    text = words.empty() ? "say a command" : "there is no command '" + words.front() + "'";
    text += "; keymasterctl --help lists them";
  }
  return Paint(stderr, Color::kRed, "keymasterctl:") + " " + text + "\n";
}

// The parser's help with its headings in bold: lines without indent that end with a colon.
class HelpFormatter : public CLI::Formatter {
 public:
  std::string make_help(const CLI::App* app, std::string name,
                        CLI::AppFormatMode mode) const override {
    std::string out;
    const std::string help = CLI::Formatter::make_help(app, std::move(name), mode);
    for (const std::string& line : CLI::detail::split(help, '\n')) {
      const bool heading = !line.empty() && line[0] != ' ' && line.back() == ':';
      out += (heading ? Paint(stdout, Color::kBold, line) : line) + "\n";
    }
    while (out.size() > 1 && out[out.size() - 2] == '\n') out.pop_back();
    return out;
  }
};

// The parser itself takes a leading zero for octal, and what does not fit for the largest number.
Option Number(CLI::Option* option) {
  const auto to_decimal = [](std::string& text) {
    const std::optional<uint64_t> value = ParseNumber(text);
    if (!value) return "'" + text + "' is no number, or too large";
    text = std::to_string(*value);
    return std::string();
  };
  option->transform(CLI::Validator(to_decimal, ""));
  return Option(option);
}

OptionInfo Describe(const CLI::Option& option) {
  OptionInfo info;
  for (const std::string& name : option.get_snames()) info.names.push_back("-" + name);
  for (const std::string& name : option.get_lnames()) info.names.push_back("--" + name);
  if (option.get_positional()) info.names = {option.get_name(true)};
  const bool takes_value = option.get_items_expected_max() > 0 && option.get_type_size_max() > 0;
  if (takes_value) info.value = option.get_type_name() == "UINT" ? "N" : option.get_type_name();
  info.help = option.get_description();
  info.required = option.get_required();
  info.repeatable = option.get_expected_max() > 1;
  return info;
}

}  // namespace

std::vector<std::string> WordsOf(const OptionInfo& option) {
  if (option.value.find('|') == std::string::npos) return {};
  return CLI::detail::split(option.value, '|');
}

Option Option::Required() const {
  option_->required();
  return *this;
}

Option Option::Takes(const char* what) const {
  option_->type_name(what);
  return *this;
}

Option Option::TakesNames(keymaster_tag_t tag) const {
  const auto to_number = [tag](std::string& text) {
    const std::optional<uint32_t> value = ValueByName(tag, text);
    if (!value) return "'" + text + "' is none of " + ValueNames(tag);
    text = std::to_string(*value);
    return std::string();
  };
  option_->transform(CLI::Validator(to_number, ""))->type_name(ValueNames(tag));
  return *this;
}

Option Option::TakesWords(const std::vector<std::string>& words) const {
  option_->check(CLI::IsMember(words).description(""))->type_name(CLI::detail::join(words, "|"));
  return *this;
}

Option Option::TakesList() const {
  option_->delimiter(',');
  return *this;
}

Option Option::Needs(Option other) const {
  option_->needs(other.option_);
  return *this;
}

Option Option::Excludes(Option other) const {
  option_->excludes(other.option_);
  return *this;
}

Option Command::Add(const char* names, std::string* value, const char* help) const {
  return Option(app_->add_option(names, *value, help));
}

Option Command::Add(const char* names, std::optional<std::string>* value, const char* help) const {
  return Option(app_->add_option(names, *value, help));
}

Option Command::Add(const char* names, std::vector<std::string>* value, const char* help) const {
  return Option(app_->add_option(names, *value, help));
}

Option Command::Add(const char* names, uint32_t* value, const char* help) const {
  return Number(app_->add_option(names, *value, help));
}

Option Command::Add(const char* names, std::optional<uint32_t>* value, const char* help) const {
  return Number(app_->add_option(names, *value, help));
}

Option Command::Add(const char* names, std::vector<uint32_t>* value, const char* help) const {
  return Number(app_->add_option(names, *value, help));
}

Option Command::Add(const char* names, uint64_t* value, const char* help) const {
  return Number(app_->add_option(names, *value, help));
}

Option Command::Add(const char* names, std::optional<uint64_t>* value, const char* help) const {
  return Number(app_->add_option(names, *value, help));
}

Option Command::Add(const char* names, std::vector<uint64_t>* value, const char* help) const {
  return Number(app_->add_option(names, *value, help));
}

Option Command::AddFlag(const char* names, bool* value, const char* help) const {
  return Option(app_->add_flag(names, *value, help));
}

Option Command::AddTextFlag(const char* names, std::string* value, const char* help) const {
  return Option(app_->add_flag(names, *value, help));
}

CommandLine::CommandLine() : app_(std::make_unique<CLI::App>(kProgramSummary, kProgram)) {
  app_->require_subcommand(1);
  app_->fallthrough();
  app_->footer(ProgramFooter());
  app_->failure_message(UsageText);
  app_->formatter(std::make_shared<HelpFormatter>());
  app_->get_formatter()->label("UINT", "N");
  app_->set_help_flag("-h,--help", "Show this help");
  app_->set_version_flag("--version", "keymasterctl " KEYMASTERCTL_VERSION, "Show the version");
}

CommandLine::~CommandLine() = default;

Command CommandLine::global() const { return Command(app_.get()); }

Command CommandLine::Place(const char* name, std::function<void()> action) {
  const CommandText& text = TextOf(name);
  CLI::App* command = app_->add_subcommand(name, text.summary);
  command->footer(FooterOf(text));
  command->callback([this, action = std::move(action)] { chosen_ = action; });
  return Command(command);
}

std::vector<CommandInfo> CommandLine::Describe() const {
  std::vector<CLI::App*> apps = {app_.get()};
  for (CLI::App* command : app_->get_subcommands({})) apps.push_back(command);
  std::vector<CommandInfo> commands;
  for (const CLI::App* app : apps) {
    CommandInfo info;
    if (app != app_.get()) info.name = app->get_name();
    info.summary = app->get_description();
    for (const CLI::Option* option : app->get_options()) {
      const bool repeats = app != app_.get() && option == app->get_help_ptr();
      if (!repeats) info.options.push_back(::Describe(*option));
    }
    commands.push_back(std::move(info));
  }
  return commands;
}

std::function<void()> CommandLine::Parse(int argc, char** argv, int* status) {
  try {
    app_->parse(argc, argv);
    return chosen_;
  } catch (const CLI::ParseError& error) {
    *status = app_->exit(error) == 0 ? kExitDone : kExitUsage;
    return nullptr;
  }
}
