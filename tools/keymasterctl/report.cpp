#include "tools/keymasterctl/report.h"

#include <ctype.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include "tools/keymasterctl/errors.h"
#include "tools/keymasterctl/names.h"
#include "tools/keymasterctl/params.h"
#include "tools/keymasterctl/session.h"

namespace {

bool UsesColor(FILE* stream) {
  if (Style().color != "auto") return Style().color == "always";
  const char* const unwanted = getenv("NO_COLOR");
  const char* const terminal = getenv("TERM");
  return (unwanted == nullptr || *unwanted == '\0') &&
         (terminal == nullptr || strcmp(terminal, "dumb") != 0) && isatty(fileno(stream)) == 1;
}

std::string Dump(const Json& value, int indent) {
  return value.dump(indent, ' ', false, Json::error_handler_t::replace);
}

Json ValueJson(const keymaster_key_param_t& param) {
  if (IsBytes(param.tag)) return ToHex(Copy(param.blob));
  if (IsEnumerated(param.tag)) return ValueName(param.tag, param.enumerated);
  if (keymaster_tag_get_type(param.tag) == KM_BOOL) return param.boolean;
  return NumberOf(param);
}

std::string ValueText(const keymaster_key_param_t& param) {
  if (IsBytes(param.tag)) return "0x" + ToHex(Copy(param.blob));
  const bool is_date = keymaster_tag_get_type(param.tag) == KM_DATE;
  return is_date ? DateText(param.date_time) : TextOf(ValueJson(param));
}

}  // namespace

std::string TextOf(const Json& value) {
  if (value.is_boolean()) return value.get<bool>() ? "yes" : "no";
  return value.is_string() ? value.get<std::string>() : Dump(value, -1);
}

const Json& Texts() {
  static const Json texts = Json::parse(kTexts);
  return texts;
}

OutputStyle& Style() {
  static OutputStyle style;
  return style;
}

std::string Paint(FILE* stream, Color color, const std::string& text) {
  constexpr const char* kCodes[] = {"\x1b[1m", "\x1b[1;31m", "\x1b[32m", "\x1b[33m"};
  return UsesColor(stream) ? kCodes[static_cast<int>(color)] + text + "\x1b[0m" : text;
}

std::string JsonName(const std::string& label) {
  std::string name;
  for (char c : label) {
    const bool between = c == ' ' || c == '-';
    name += between ? '_' : static_cast<char>(tolower(static_cast<unsigned char>(c)));
  }
  return name;
}

Report& Report::Say(const std::string& line) {
  lines_.push_back(line);
  return *this;
}

Report& Report::Member(const std::string& label, Json value) {
  members_[JsonName(label)] = std::move(value);
  return *this;
}

Report& Report::Row(const std::string& label, const Json& value, const std::string& unit) {
  rows_.emplace_back(label, TextOf(value) + unit);
  return Member(label, value);
}

void Report::Print() const {
  if (Style().json) {
    printf("%s\n", Dump(members_, 2).c_str());
    return;
  }
  size_t width = 0;
  for (const auto& [label, text] : rows_) {
    width = std::max(width, label.size() + 2);
  }
  for (const auto& [label, text] : rows_) {
    printf("%s%*s%s\n", Paint(stdout, Color::kBold, label).c_str(),
           static_cast<int>(width - label.size()), "", text.c_str());
  }
  for (const std::string& line : lines_) {
    printf("%s\n", line.c_str());
  }
}

ResultFile::ResultFile(const Args& args, Content content)
    : Output(args.Text("out", "-"), content), name_(args.Text("out", "-")) {
  NeedFileForJson(name_);
}

void ResultFile::CommitAs(const std::string& label) {
  Commit();
  if (Style().json) Report().Member(label, name_).Member("bytes", bytes()).Print();
}

void NeedFileForJson(const std::string& out) {
  RequireUsage(!Style().json || out != "-",
               "with --json name a file, not -: standard output takes the JSON");
}

Json SetJson(const keymaster_key_param_set_t& set) {
  Json members = Json::object();
  for (size_t i = 0; i < set.length; ++i) {
    const keymaster_tag_t tag = set.params[i].tag;
    if (IsRepeatable(tag)) {
      members[JsonName(TagName(tag))].push_back(ValueJson(set.params[i]));
    } else {
      members[JsonName(TagName(tag))] = ValueJson(set.params[i]);
    }
  }
  return members;
}

std::string SetText(const keymaster_key_param_set_t& set) {
  std::vector<std::pair<std::string, std::string>> rows;
  for (size_t i = 0; i < set.length; ++i) {
    const std::string name = TagName(set.params[i].tag);
    const auto row = std::find_if(rows.begin(), rows.end(),
                                  [&name](const auto& entry) { return entry.first == name; });
    if (row == rows.end()) {
      rows.emplace_back(name, ValueText(set.params[i]));
    } else {
      row->second += ", " + ValueText(set.params[i]);
    }
  }
  std::string out;
  for (auto& [name, values] : rows) {
    name.resize(std::max<size_t>(name.size() + 1, 28), ' ');
    out += "  " + Paint(stdout, Color::kBold, name) + values + "\n";
  }
  return out.empty() ? "  (nothing)\n" : out;
}
