#include "command_info.h"

namespace {

constexpr const char* kHead = R"(# bash completion for keymasterctl
_keymasterctl() {
  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}
  local command='' options='' values='' kind='' prefix='' i
  # "--color=au" comes as three words.
  if [[ $word == = ]]; then
    word=''
  elif [[ $before == = ]]; then
    before=${COMP_WORDS[COMP_CWORD - 2]}
  fi
  for ((i = 1; i < COMP_CWORD; ++i)); do
    case ${COMP_WORDS[i]} in
)";

constexpr const char* kTail = R"(  esac
  case $kind in
    path)
      compopt -o filenames 2>/dev/null
      mapfile -t COMPREPLY < <(compgen -f -- "$word")
      return ;;
    folder)
      compopt -o filenames 2>/dev/null
      mapfile -t COMPREPLY < <(compgen -d -- "$word")
      return ;;
    other)
      COMPREPLY=()
      return ;;
  esac
  if [[ -z $values ]]; then
    values=$options
  elif [[ $word == *,* ]]; then
    prefix=${word%,*},
  fi
  mapfile -t COMPREPLY < <(compgen -P "$prefix" -W "$values" -- "${word##*,}")
}
complete -F _keymasterctl keymasterctl
)";

std::string Join(const std::vector<std::string>& words, const char* between) {
  std::string out;
  for (const std::string& word : words) out += (out.empty() ? "" : between) + word;
  return out;
}

// One branch for the values behind an option; its names carry the command's.
std::string ValueCase(const std::string& command, const OptionInfo& option) {
  std::vector<std::string> patterns;
  for (const std::string& name : option.names) patterns.push_back(command + ":" + name);
  std::string body = "kind=other";
  if (option.value == "FILE") body = "kind=path";
  if (option.value == "DIR") body = "kind=folder";
  const std::vector<std::string> words = WordsOf(option);
  if (!words.empty()) body = "values='" + Join(words, " ") + "'";
  return "    " + Join(patterns, "|") + ") " + body + " ;;\n";
}

std::string OptionNames(const CommandInfo& command) {
  std::vector<std::string> names;
  for (const OptionInfo& option : command.options) {
    const bool positional = option.names.front()[0] != '-';
    const std::vector<std::string> words = positional ? WordsOf(option) : option.names;
    names.insert(names.end(), words.begin(), words.end());
  }
  return Join(names, " ");
}

}  // namespace

std::string BashCompletion(const std::vector<CommandInfo>& commands) {
  std::vector<std::string> names;
  std::string options;
  std::string values;
  const std::string global = OptionNames(commands.front());
  for (const CommandInfo& command : commands) {
    const bool every = command.name.empty();
    if (!every) {
      names.push_back(command.name);
      options +=
          "    " + command.name + ") options='" + OptionNames(command) + " " + global + "' ;;\n";
    }
    for (const OptionInfo& option : command.options) {
      const bool positional = option.names.front()[0] != '-';
      if (!positional && !option.value.empty())
        values += ValueCase(every ? "*" : command.name, option);
    }
  }
  return kHead + ("      " + Join(names, "|")) + ")\n        command=${COMP_WORDS[i]}\n" +
         "        break ;;\n    esac\n  done\n  case $command in\n" + options + "    *) options='" +
         Join(names, " ") + " " + global + "' ;;\n  esac\n  case $command:$before in\n" + values +
         kTail;
}
