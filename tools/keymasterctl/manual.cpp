#include <stdlib.h>
#include <time.h>

#include <algorithm>

#include "command_info.h"
#include "command_table.h"

namespace {

constexpr size_t kLineLimit = 66;  // before escapes make lines longer; 80 is what tools expect

// Breaks long lines, which are filled anew when the page is shown.
std::string Folded(std::string text) {
  size_t start = 0;
  while (text.size() - start > kLineLimit) {
    const size_t space = text.rfind(' ', start + kLineLimit);
    if (space == std::string::npos || space <= start) break;
    text[space] = '\n';
    start = space + 1;
  }
  return text;
}

std::string OneLine(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  return text;
}

// Text of which no character is a request.
std::string Escaped(const std::string& text) {
  std::string out;
  bool starts = true;
  for (char c : text) {
    if (starts && (c == '.' || c == '\'')) out += "\\&";
    if (c == '\\') {
      out += "\\e";
    } else {
      out += c == '-' ? "\\-" : std::string(1, c);
    }
    starts = c == '\n';
  }
  return out;
}

std::string Date() {
  const char* given = getenv("SOURCE_DATE_EPOCH");
  const time_t now = given != nullptr ? static_cast<time_t>(atoll(given)) : time(nullptr);
  tm fields = {};
  char text[16] = "";
  if (gmtime_r(&now, &fields) != nullptr) strftime(text, sizeof(text), "%Y-%m-%d", &fields);
  return text;
}

std::string Tagged(const std::string& tag, const std::string& text) {
  return ".TP\n.B " + tag + "\n" + Escaped(Folded(text)) + "\n";
}

std::string OptionItem(const OptionInfo& option) {
  std::string tag;
  for (const std::string& name : option.names) tag += (tag.empty() ? "" : ", ") + Escaped(name);
  if (!option.value.empty()) tag += " \\fI" + Escaped(option.value) + "\\fR";
  return Tagged(tag, option.help + (option.required ? " (required)" : ""));
}

std::string CommandSection(const CommandInfo& command) {
  const CommandText& text = TextOf(command.name);
  std::string out =
      ".SS " + Escaped(command.name) + "\n" + Escaped(Folded(command.summary)) + ".\n";
  if (*text.note != '\0') out += Escaped(Folded(OneLine(text.note))) + "\n";
  for (const OptionInfo& option : command.options) out += OptionItem(option);
  return out + ".PP\n.EX\n" + Escaped(TypedExamples(text)) + ".EE\n";
}

std::string Items(const char* title, const std::vector<NamedText>& rows) {
  std::string out = std::string(".SH ") + title + "\n";
  for (const NamedText& row : rows) out += Tagged(Escaped(row.name), row.text);
  return out;
}

}  // namespace

std::string Manual(const std::vector<CommandInfo>& commands) {
  std::string out = ".TH KEYMASTERCTL 1 " + Date() +
                    " \"keymasterctl " KEYMASTERCTL_VERSION
                    "\"\n.SH NAME\nkeymasterctl \\- use the keymaster from the command line\n"
                    ".SH SYNOPSIS\n.B keymasterctl\n.RI [ OPTION ...]\n.I COMMAND\n"
                    ".RI [ OPTION ...]\n.SH DESCRIPTION\n";
  out += Escaped(Folded(kProgramSummary)) + "\n" + Escaped(Folded(kKeyFiles)) + "\n";
  for (const CommandInfo& command : commands) {
    if (!command.name.empty()) {
      out += CommandSection(command);
      continue;
    }
    out += ".SH OPTIONS\nEvery command takes these.\n";
    for (const OptionInfo& option : command.options) out += OptionItem(option);
    out += ".SH COMMANDS\n";
  }
  return out + Items("EXIT STATUS", ExitStatuses()) + Items("ENVIRONMENT", Environment());
}
