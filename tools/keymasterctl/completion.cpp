#include <stdio.h>

#include "tools/keymasterctl/command_table.h"
#include "tools/keymasterctl/commands.h"
#include "tools/keymasterctl/names.h"

namespace {

// Filled in: the commands, the words behind each command, the kind of value behind each option.
constexpr const char* kScript = R"(# bash completion for keymasterctl
_keymasterctl() {
  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}
  local command='' words='' values='' prefix='' i
  # "--color=au" comes as three words.
  if [[ $word == = ]]; then
    word=''
  elif [[ $before == = ]]; then
    before=${COMP_WORDS[COMP_CWORD - 2]}
  fi
  for ((i = 1; i < COMP_CWORD && ${#command} == 0; ++i)); do
    case ${COMP_WORDS[i]} in
      %s) command=${COMP_WORDS[i]} ;;
    esac
  done
  case $command in
%s  esac
  case $command:$before in
%s    *) values=$words ;;
  esac
  [[ $values != FILE* || $word == -* ]] || values=FILE
  [[ $word != *,* ]] || prefix=${word%%,*},
  case $values in
    FILE) compopt -o filenames 2>/dev/null; mapfile -t COMPREPLY < <(compgen -f -- "$word") ;;
    DIR) compopt -o filenames 2>/dev/null; mapfile -t COMPREPLY < <(compgen -d -- "$word") ;;
    *) mapfile -t COMPREPLY < <(compgen -P "$prefix" -W "$values" -- "${word##*,}") ;;
  esac
}
complete -F _keymasterctl keymasterctl
)";

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
  printf(kScript, Joined(names, "|").c_str(), words.c_str(), values.c_str());
}
