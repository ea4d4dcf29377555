// What a command has to tell, and how it looks: aligned lines and colours for people, one JSON
// object for programs.
#ifndef KEYMASTERCTL_REPORT_H
#define KEYMASTERCTL_REPORT_H

#include <hardware/keymaster_defs.h>
#include <stdint.h>
#include <stdio.h>

#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "tools/keymasterctl/files.h"
#include "tools/keymasterctl/params.h"

// Objects keep the order in which they are told.
using Json = nlohmann::ordered_json;

// The data files of this program, as they are: texts.json, and completion.bash.in, whose parts
// between @ are for the commands to fill in.
extern const char kTexts[];
extern const char kCompletionScript[];
// Texts returns the first one parsed: the commands with their options, hints by the name of a
// result, exit statuses and variables of the environment.
const Json& Texts();

// What the command line said of the output, and of what it is called with.
struct OutputStyle {
  std::string color = "auto";  // or always, never
  bool json = false;
  std::string state;  // --state; empty when it was not given
};

// Style returns the program's one OutputStyle.
OutputStyle& Style();

enum class Color { kBold, kRed, kGreen, kYellow };

// Paint returns the text in that colour for the stream, or as it is: --color decides, else whether
// the stream is a terminal and NO_COLOR is not set.
std::string Paint(FILE* stream, Color color, const std::string& text);

// Report collects what is told; Print puts it out. In JSON a label is in small letters,
// with underscores for spaces and hyphens, and text that is not UTF-8 has replacement characters.
class Report {
 public:
  // A line for people alone.
  Report& Say(const std::string& line);
  // A member for programs alone.
  Report& Member(const std::string& label, Json value);
  // A row of both; unit follows the value where people read it.
  Report& Row(const std::string& label, const Json& value, const std::string& unit = "");
  void Print() const;

 private:
  std::vector<std::pair<std::string, std::string>> rows_;
  std::vector<std::string> lines_;
  Json members_ = Json::object();
};

// TextOf returns a value as people read it.
std::string TextOf(const Json& value);
// JsonName returns a label as a JSON member's name.
std::string JsonName(const std::string& label);

// ResultFile is what --out names: standard output unless it is given.
class ResultFile : public Output {
 public:
  // With --json it must not be standard output, which takes the JSON.
  ResultFile(const Args& args, Content content);
  // Commits, and tells of a file that holds what its label says.
  void CommitAs(const std::string& label);

 private:
  std::string name_;
};

// SetJson returns an object in which repeatable parameters are arrays, byte values hexadecimal,
// dates milliseconds since 1970; SetText the same as indented lines.
Json SetJson(const keymaster_key_param_set_t& set);
std::string SetText(const keymaster_key_param_set_t& set);

// NeedFileForJson throws a UsageFailure when JSON and another output would share standard output.
void NeedFileForJson(const std::string& out);

#endif  // KEYMASTERCTL_REPORT_H
