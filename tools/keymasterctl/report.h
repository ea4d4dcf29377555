// What a command has to tell: aligned lines for people, one JSON object for programs.
#ifndef KEYMASTERCTL_REPORT_H
#define KEYMASTERCTL_REPORT_H

#include <stdint.h>

#include <string>
#include <type_traits>
#include <utility>
#include <vector>

// JsonText returns text as a JSON string.
std::string JsonText(const std::string& text);
// JsonObject returns the pairs of a name and a JSON value as an object that is indented so deep.
std::string JsonObject(const std::vector<std::pair<std::string, std::string>>& members,
                       size_t indent);
// JsonList returns JSON values as an array.
std::string JsonList(const std::vector<std::string>& values, size_t indent);

// Report collects what is told; Print puts it out. In JSON a label is in small letters,
// with underscores for spaces and hyphens.
class Report {
 public:
  // A line for people alone.
  Report& Say(const std::string& line);
  // A row of both; unit follows the value where people read it.
  Report& Row(const std::string& label, const std::string& value);
  Report& Row(const std::string& label, const char* value) {
    return Row(label, std::string(value));
  }
  template <typename Number, typename = std::enable_if_t<std::is_integral_v<Number>>>
  Report& Row(const std::string& label, Number value, const char* unit = "") {
    if constexpr (std::is_same_v<Number, bool>) {
      return AddRow(label, value ? "yes" : "no", value ? "true" : "false");
    } else {
      return AddRow(label, std::to_string(value) + unit, std::to_string(value));
    }
  }
  // A member for programs alone, as JSON or as the text that becomes a JSON string.
  Report& Member(const std::string& label, const std::string& json);
  Report& Text(const std::string& label, const std::string& text) {
    return Member(label, JsonText(text));
  }
  void Print() const;

 private:
  Report& AddRow(const std::string& label, const std::string& text, const std::string& json);

  struct Entry {
    std::string label;
    std::string text;
    std::string json;
  };
  std::vector<std::string> lines_;
  std::vector<Entry> entries_;
};

// TellWritten reports a file that holds what its label says; for programs alone.
void TellWritten(const std::string& label, const std::string& path, uint64_t bytes);

// NeedFileForJson throws a UsageFailure when JSON and another output would share standard output.
void NeedFileForJson(const std::string& out);

#endif  // KEYMASTERCTL_REPORT_H
