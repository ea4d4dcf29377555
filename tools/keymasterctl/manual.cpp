#include <stdio.h>

#include <algorithm>

#include "tools/keymasterctl/command_table.h"
#include "tools/keymasterctl/commands.h"
#include "tools/keymasterctl/names.h"

namespace {

constexpr size_t kLineLimit = 66;  // before escapes make lines longer; 80 is what tools expect

// Text in lines, which are filled anew when the page is shown, with no character as a request.
std::string Escaped(std::string text) {
  size_t start = 0;
  std::replace(text.begin(), text.end(), '\n', ' ');
  while (text.size() - start > kLineLimit) {
    const size_t space = text.rfind(' ', start + kLineLimit);
    if (space == std::string::npos || space <= start) break;
    text[space] = '\n';
    start = space + 1;
  }
  std::string out;
  for (char c : text) {
    const bool starts = out.empty() || out.back() == '\n';
    out += starts && (c == '.' || c == '\'') ? "\\&" : "";
    out += c == '\\' ? "\\e" : c == '-' ? "\\-" : std::string(1, c);
  }
  return out;
}

std::string Item(const std::string& tag, const std::string& text) {
  return ".TP\n.B " + tag + "\n" + Escaped(text) + "\n";
}

std::string OptionItems(const std::string& command) {
  std::string out;
  for (const OptionRow& option : OptionsOf(command)) {
    const std::string names = IsPositional(option) ? "" : Escaped(Joined(NamesOf(option), ", "));
    const std::string value = ValueOf(option);
    std::string tag = names;
    if (!value.empty()) tag += (names.empty() ? "\\fI" : " \\fI") + Escaped(value) + "\\fR";
    out += Item(tag, option.help + (IsRequired(option) ? " (required)" : ""));
  }
  return out;
}

std::string CommandSection(const CommandRow& command) {
  std::string out = ".SS " + Escaped(command.name) + "\n" + Escaped(command.summary) + ".\n";
  if (!command.note.empty()) out += Escaped(command.note) + "\n";
  out += OptionItems(command.name) + ".PP\n.EX\n";
  for (const std::string& line : command.examples) {
    out += Escaped("keymasterctl " + line) + "\n";
  }
  return out + ".EE\n";
}

std::string Items(const char* title, const NamedTexts& rows) {
  std::string out = std::string(".SH ") + title + "\n";
  for (const auto& [name, text] : rows) {
    out += Item(Escaped(name), text);
  }
  return out;
}

}  // namespace

void RunManual(const Args&) {
  std::string out = ".TH KEYMASTERCTL 1 " KEYMASTERCTL_DATE " \"keymasterctl " KEYMASTERCTL_VERSION
                    "\"\n.SH NAME\nkeymasterctl \\- use the keymaster from the command line\n"
                    ".SH SYNOPSIS\n.B keymasterctl\n.RI [ OPTION ...]\n.I COMMAND\n"
                    ".RI [ OPTION ...]\n.SH DESCRIPTION\n";
  out += Escaped(kProgramSummary) + "\n" + Escaped(kKeyFiles) + "\n";
  out += ".SH OPTIONS\nEvery command takes these.\n" + OptionItems("*") + ".SH COMMANDS\n";
  for (const CommandRow& command : Commands()) {
    out += CommandSection(command);
  }
  out +=
      Items("EXIT STATUS", TextsOf("exit statuses")) + Items("ENVIRONMENT", TextsOf("environment"));
  fputs(out.c_str(), stdout);
}
