#include <stdio.h>

#include "tools/keymasterctl/command_table.h"
#include "tools/keymasterctl/commands.h"
#include "tools/keymasterctl/names.h"
#include "tools/keymasterctl/report.h"

namespace {

// The values that an option is completed with; the names of FILE and DIR stand for themselves.
std::string ValuesOf(const OptionRow& option) {
  const std::string value = ValueOf(option);
  return value == "FILE" || value == "DIR" ? value : Joined(WordsOf(option), " ");
}

// What may stand in place of the next word: values of an argument, then options.
std::string NextWords(const std::string& command) {
  std::string out;
  for (const OptionRow& option : OptionsOf(command)) {
    out = IsPositional(option) ? ValuesOf(option) + out : out + " " + Joined(NamesOf(option), " ");
  }
  return out;
}

std::string ValueCases(const std::string& command) {
  std::string out;
  for (const OptionRow& option : OptionsOf(command)) {
    std::vector<std::string> patterns;
    for (const std::string& name : NamesOf(option)) {
      patterns.push_back(command + ":" + name);
    }
    if (!IsPositional(option) && !ValueOf(option).empty()) {
      out += "    " + Joined(patterns, "|") + ") values='" + ValuesOf(option) + "' ;;\n";
    }
  }
  return out;
}

}  // namespace

void RunCompletion(const Args&) {
  const std::vector<std::string> names = CommandNames();
  const std::string all = Joined(names, " ");
  const std::string global = NextWords("*");
  std::string words;
  std::string values = ValueCases("*");
  for (const std::string& name : names) {
    const std::string next = name == "help" ? all : NextWords(name) + global;
    words += "    " + name + ") words='" + next + "' ;;\n";
    values += ValueCases(name);
  }
  words += "    *) words='" + all + global + "' ;;\n";
  std::string script = ReplaceAll(kCompletionScript, "@commands@", Joined(names, "|"));
  script = ReplaceAll(script, "@words@", words);
  fputs(ReplaceAll(script, "@values@", values).c_str(), stdout);
}
