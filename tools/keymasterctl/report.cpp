#include "report.h"

#include <ctype.h>
#include <stdio.h>

#include <algorithm>

#include "errors.h"
#include "terminal.h"

std::string JsonText(const std::string& text) {
  std::string out = "\"";
  for (char c : text) {
    if (c == '"' || c == '\\') {
      out += std::string("\\") + c;
    } else if (static_cast<unsigned char>(c) < 0x20) {
      char escape[8];
      snprintf(escape, sizeof(escape), "\\u%04x", static_cast<unsigned>(c));
      out += escape;
    } else {
      out += c;
    }
  }
  return out + "\"";
}

std::string JsonObject(const std::vector<std::pair<std::string, std::string>>& members,
                       size_t indent) {
  std::string out;
  for (const auto& [label, value] : members) {
    std::string name;
    for (char c : label) {
      const bool between = c == ' ' || c == '-';
      name += between ? '_' : static_cast<char>(tolower(static_cast<unsigned char>(c)));
    }
    out +=
        (out.empty() ? "\n" : ",\n") + std::string(indent + 2, ' ') + JsonText(name) + ": " + value;
  }
  return out.empty() ? "{}" : "{" + out + "\n" + std::string(indent, ' ') + "}";
}

std::string JsonList(const std::vector<std::string>& values, size_t indent) {
  std::string out;
  for (const std::string& value : values) {
    out += (out.empty() ? "\n" : ",\n") + std::string(indent + 2, ' ') + value;
  }
  return out.empty() ? "[]" : "[" + out + "\n" + std::string(indent, ' ') + "]";
}

Report& Report::Say(const std::string& line) {
  lines_.push_back(line);
  return *this;
}

Report& Report::Row(const std::string& label, const std::string& value) {
  return AddRow(label, value, JsonText(value));
}

Report& Report::Member(const std::string& label, const std::string& json) {
  entries_.push_back({label, "", json});
  return *this;
}

Report& Report::AddRow(const std::string& label, const std::string& text, const std::string& json) {
  entries_.push_back({label, text, json});
  return *this;
}

void Report::Print() const {
  if (Style().json) {
    std::vector<std::pair<std::string, std::string>> members;
    for (const Entry& entry : entries_) members.emplace_back(entry.label, entry.json);
    printf("%s\n", JsonObject(members, 0).c_str());
    return;
  }
  size_t width = 0;
  for (const Entry& entry : entries_) {
    if (!entry.text.empty()) width = std::max(width, entry.label.size());
  }
  for (const Entry& entry : entries_) {
    if (entry.text.empty()) continue;
    const std::string gap(width + 2 - entry.label.size(), ' ');
    printf("%s%s%s\n", Paint(stdout, Color::kBold, entry.label).c_str(), gap.c_str(),
           entry.text.c_str());
  }
  for (const std::string& line : lines_) printf("%s\n", line.c_str());
}

void TellWritten(const std::string& label, const std::string& path, uint64_t bytes) {
  if (Style().json) Report().Text(label, path).Member("bytes", std::to_string(bytes)).Print();
}

void NeedFileForJson(const std::string& out) {
  if (Style().json && out == "-") {
    throw UsageFailure("with --json name a file, not -: standard output takes the JSON");
  }
}
