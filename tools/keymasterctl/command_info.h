// The command line described, for what is generated from it.
#ifndef KEYMASTERCTL_COMMAND_INFO_H
#define KEYMASTERCTL_COMMAND_INFO_H

#include <string>
#include <vector>

struct OptionInfo {
  std::vector<std::string> names;  // "-k", "--key"
  std::string value;               // kind of value, such as FILE or a|b|c; empty for a flag
  std::string help;
  bool required = false;
  bool repeatable = false;
};

struct CommandInfo {
  std::string name;  // empty for what every command takes
  std::string summary;
  std::vector<OptionInfo> options;
};

// WordsOf returns the words that an option takes; none where it takes anything else.
std::vector<std::string> WordsOf(const OptionInfo& option);

// BashCompletion, ZshCompletion and Manual (a page for man) return what an installation holds. The
// first command of the list stands for what every command takes.
std::string BashCompletion(const std::vector<CommandInfo>& commands);
std::string ZshCompletion(const std::vector<CommandInfo>& commands);
std::string Manual(const std::vector<CommandInfo>& commands);

#endif  // KEYMASTERCTL_COMMAND_INFO_H
