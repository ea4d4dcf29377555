// The commands and their options, in the order of the help.
#ifndef KEYMASTERCTL_COMMAND_TABLE_H
#define KEYMASTERCTL_COMMAND_TABLE_H

#include <hardware/keymaster_defs.h>

#include <string>
#include <utility>
#include <vector>

#include "tools/keymasterctl/params.h"

constexpr const char* kProgram = "keymasterctl";
constexpr const char* kProgramSummary =
    "Use the keymaster: make, import and use keys that stay in its trusted application.";
constexpr const char* kKeyFiles =
    "A key file holds a key sealed by the TA: only the TA that made it, with its state folder, can "
    "use it.";

// The group of the options that the help shows first.
constexpr const char* kFirstGroup = "Options";

// A command, and the options of one or more, as texts.json has them.
struct CommandRow {
  std::string group;
  std::string name;
  void (*run)(const Args& args);
  std::string summary;
  std::vector<std::string> examples;  // without the program's name
  std::string note;                   // what there is to know beside the options; may be empty
};

struct OptionRow {
  std::string commands;  // names with spaces between; "*" for what every command takes
  std::string group;
  std::string names;  // with commas between; an argument's name has no dash
  std::string value;  // see ValueOf; "!" before it for an option that is required
  std::string help;
  keymaster_tag_t tag;  // the parameter that the value is of; KM_TAG_INVALID for none
};

const std::vector<CommandRow>& Commands();
std::vector<std::string> CommandNames();
// OptionsOf returns the rows of a command, or of "*".
std::vector<OptionRow> OptionsOf(const std::string& command);

std::vector<std::string> NamesOf(const OptionRow& option);
// NameOf returns the last name without its dashes.
std::string NameOf(const OptionRow& option);
bool IsRequired(const OptionRow& option);
bool IsPositional(const OptionRow& option);
// ValueOf returns the kind of value, such as FILE or a|b|c, with ",..." behind it where there may
// be several; empty for a flag.
std::string ValueOf(const OptionRow& option);
// WordsOf returns the words that an option takes; none where it takes anything else.
std::vector<std::string> WordsOf(const OptionRow& option);

// TypedExamples returns a command's examples, a line each, as they are typed.
std::string TypedExamples(const CommandRow& command, const std::string& before = "");

// TextsOf returns a table: "exit statuses" or "environment".
using NamedTexts = std::vector<std::pair<std::string, std::string>>;
NamedTexts TextsOf(const char* table);

#endif  // KEYMASTERCTL_COMMAND_TABLE_H
