// How the output looks: colours on a terminal, JSON for programs.
#ifndef KEYMASTERCTL_TERMINAL_H
#define KEYMASTERCTL_TERMINAL_H

#include <stdio.h>

#include <string>

// What the command line said of the output.
struct OutputStyle {
  std::string color = "auto";  // or always, never
  bool json = false;
};

// Style returns the program's one OutputStyle.
OutputStyle& Style();

enum class Color { kBold, kRed, kGreen, kYellow };

// UsesColor tells whether text for that stream is coloured: --color says so, or it is a terminal
// and NO_COLOR is not set.
bool UsesColor(FILE* stream);

// Paint returns the text in that colour for the stream, or as it is.
std::string Paint(FILE* stream, Color color, const std::string& text);

#endif  // KEYMASTERCTL_TERMINAL_H
