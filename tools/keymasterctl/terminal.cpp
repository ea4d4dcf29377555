#include "terminal.h"

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

namespace {

const char* Code(Color color) {
  switch (color) {
    case Color::kBold:
      return "\x1b[1m";
    case Color::kRed:
      return "\x1b[1;31m";
    case Color::kGreen:
      return "\x1b[32m";
    default:
      return "\x1b[33m";
  }
}

}  // namespace

OutputStyle& Style() {
  static OutputStyle style;
  return style;
}

bool UsesColor(FILE* stream) {
  if (Style().color != "auto") return Style().color == "always";
  const char* refused = getenv("NO_COLOR");
  const char* terminal = getenv("TERM");
  return (refused == nullptr || *refused == '\0') &&
         (terminal == nullptr || strcmp(terminal, "dumb") != 0) && isatty(fileno(stream)) == 1;
}

std::string Paint(FILE* stream, Color color, const std::string& text) {
  return UsesColor(stream) ? Code(color) + text + "\x1b[0m" : text;
}
