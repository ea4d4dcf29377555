// What help and manual say of each command, in the order of the help.
#ifndef KEYMASTERCTL_COMMAND_TABLE_H
#define KEYMASTERCTL_COMMAND_TABLE_H

#include <string>
#include <vector>

constexpr const char* kProgram = "keymasterctl";
constexpr const char* kProgramSummary =
    "Use the keymaster: make, import and use keys that stay in its trusted application.";

struct CommandText {
  const char* name;
  const char* summary;
  const char* examples;  // lines without the program's name
  const char* note;      // what there is to know beside the options; may be empty
};

// TextOf returns a command's row. Throws for a name that has none.
const CommandText& TextOf(const std::string& name);
// TypedExamples returns a command's examples, a line each, as they are typed.
std::string TypedExamples(const CommandText& text, const std::string& before = "");
// FooterOf returns what stands below the options in a command's help.
std::string FooterOf(const CommandText& text);
// ProgramFooter returns the same for the program's own help.
std::string ProgramFooter();

constexpr const char* kKeyFiles =
    "A key file holds a key sealed by the TA: only the TA that made it, with its state folder, can "
    "use it.";

struct NamedText {
  const char* name;
  const char* text;
};
const std::vector<NamedText>& ExitStatuses();
const std::vector<NamedText>& Environment();

#endif  // KEYMASTERCTL_COMMAND_TABLE_H
