// What help and manual say of each command, in the order of the help.
#ifndef KEYMASTERCTL_COMMAND_TABLE_H
#define KEYMASTERCTL_COMMAND_TABLE_H

#include <string>

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
// FooterOf returns what stands below the options in a command's help.
std::string FooterOf(const CommandText& text);
// ProgramFooter returns the same for the program's own help.
std::string ProgramFooter();

#endif  // KEYMASTERCTL_COMMAND_TABLE_H
