#include "command_info.h"

namespace {

constexpr const char* kHead = R"(#compdef keymasterctl
# zsh completion for keymasterctl
_keymasterctl() {
  local context state state_descr line
  typeset -A opt_args
)";

constexpr const char* kMiddle =
    R"(  _arguments -S -C $every '1:command:->command' '*::argument:->arguments'
  case $state in
    command) _describe command commands ;;
    arguments)
      case $words[1] in
)";

constexpr const char* kTail = R"(      esac ;;
  esac
}
if [ "$funcstack[1]" = _keymasterctl ]; then
  _keymasterctl "$@"
elif (( $+functions[compdef] )); then
  compdef _keymasterctl keymasterctl
fi
)";

// Text within a quoted specification, where brackets and colons would end its parts.
std::string Quoted(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '\'') {
      out += "'\\''";
      continue;
    }
    if (c == ':' || c == '[' || c == ']' || c == '\\') out += '\\';
    out += c;
  }
  return out;
}

std::string Value(const OptionInfo& option) {
  if (option.value.empty()) return "";
  std::string words;
  for (const std::string& word : WordsOf(option)) words += (words.empty() ? "" : " ") + word;
  if (!words.empty()) {
    const std::string action =
        option.repeatable ? "_values -s , value " + words : "(" + words + ")";
    return ":value:" + action;
  }
  std::string action;
  if (option.value == "FILE") action = "_files";
  if (option.value == "DIR") action = "_files -/";
  return ":" + Quoted(option.value) + ":" + action;
}

// A specification for each name of the option.
std::string Specifications(const OptionInfo& option) {
  if (option.names.front()[0] != '-') return "          '1" + Value(option) + "' \\\n";
  std::string all;
  for (const std::string& name : option.names) all += (all.empty() ? "" : " ") + name;
  std::string out;
  for (const std::string& name : option.names) {
    const std::string before = option.repeatable ? "*" : "(" + all + ")";
    const bool is_long = name.compare(0, 2, "--") == 0;
    const std::string joined = option.value.empty() ? "" : is_long ? "=" : "+";
    out += "          '" + before + name + joined + "[" + Quoted(option.help) + "]" +
           Value(option) + "' \\\n";
  }
  return out;
}

}  // namespace

std::string ZshCompletion(const std::vector<CommandInfo>& commands) {
  std::string every = "  local -a every=( \\\n";
  std::string names = "  local -a commands=(\n";
  std::string cases;
  for (const CommandInfo& command : commands) {
    std::string specifications;
    for (const OptionInfo& option : command.options) specifications += Specifications(option);
    if (command.name.empty()) {
      every += specifications + "  )\n";
      continue;
    }
    names += "    '" + command.name + ":" + Quoted(command.summary) + "'\n";
    cases += "        " + command.name + ")\n          _arguments -S \\\n" + specifications +
             "          $every ;;\n";
  }
  return kHead + every + names + "  )\n" + kMiddle + cases + kTail;
}
