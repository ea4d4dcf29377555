#include <android/log.h>

#include <fstream>
#include <map>
#include <sstream>

#include "tests/sweep/scenario.h"

namespace test {
namespace {

// The kinds of a row by its result and messages, joined as in the file.
struct Row {
  Kinds kinds, seen;
};
using Rows = std::map<std::pair<int32_t, std::string>, Row>;

int32_t ResultOf(const std::string& word) {
  if (word == "TEE") return static_cast<int32_t>(kInjectedTeeError);
  if (word == "TA") return static_cast<int32_t>(kTaError);
  return static_cast<int32_t>(std::stoll(word, nullptr, 0));
}

std::string Join(const std::string& some, const std::string& more) {
  return some.empty() || more.empty() ? some + more : some + " > " + more;
}

std::map<std::string, Rows> ReadFile() {
  std::map<std::string, Rows> all;
  Rows* rows = nullptr;
  std::ifstream file(FAILURES);
  for (std::string line; std::getline(file, line);) {
    if (line.empty() || line[0] == '#') continue;
    const size_t colon = line.find(" : ");
    const std::string head = line.substr(0, colon);
    const std::string messages = colon == std::string::npos ? "" : line.substr(colon + 3);
    if (line[0] == '[') {
      rows = &all[line.substr(1, line.size() - 2)];
    } else if (head.compare(0, 4, "use ") == 0) {
      for (const auto& [key, row] : all.at(head.substr(4))) {
        for (const std::string& kind : row.kinds) {
          if (kind != kArgument && key.first != 0) {
            (*rows)[{key.first, Join(key.second, messages)}].kinds.insert(kind);
          }
        }
      }
    } else {
      const size_t blank = head.find(' ');
      std::istringstream kinds(head.substr(0, blank));
      Row& row = (*rows)[{ResultOf(head.substr(blank + 1)), messages}];
      for (std::string kind; std::getline(kinds, kind, ',');) {
        row.kinds.insert(kind);
      }
    }
  }
  return all;
}

std::map<std::string, Rows>& All() {
  static std::map<std::string, Rows> all = ReadFile();
  return all;
}

bool Find(const std::string& request, const Kinds& kinds, int32_t result,
          const std::string& messages) {
  Rows& rows = All().at(request);
  const auto found = rows.find({result, messages});
  if (found == rows.end()) return false;
  bool documented = false;
  for (const std::string& kind : kinds) {
    if (found->second.kinds.count(kind) != 0) {
      found->second.seen.insert(kind);
      documented = true;
    }
  }
  return documented;
}

bool IsDiagnostic(const std::string& message) {
  if (message[0] == '-') return true;
  for (const auto& [key, row] : All().at(kDiagnostics)) {
    if (key.second.find(message) != std::string::npos) return true;
  }
  return false;
}

}  // namespace

Lines Logged(std::string LogLine::*what) {
  Lines out;
  for (const LogLine& line : platform().log) {
    std::string prefix = !line.tag ? "-" : *line.tag == "KeyMaster" ? "K" : "";
    if (line.tag && *line.tag != "KeyMaster" && *line.tag != "KeyMaster_Ts") prefix = *line.tag;
    if (line.level != ANDROID_LOG_ERROR) prefix += line.level == ANDROID_LOG_INFO ? "i" : "?";
    out.push_back(prefix.empty() ? "" : prefix + "/");
    for (const char c : line.*what) {
      out.back() += c == '\n' ? "\\n" : std::string(1, c);
    }
  }
  return out;
}

std::string Documented(const std::string& request, const Kinds& kinds, int32_t result,
                       const Lines& messages) {
  std::string said, diagnostics;
  for (const std::string& message : messages) {
    const bool diagnostic = IsDiagnostic(message);
    if (!diagnostic || diagnostics.empty()) said = Join(said, diagnostic ? "*" : message);
    if (diagnostic) diagnostics = Join(diagnostics, message);
  }
  if (!diagnostics.empty() && !Find(kDiagnostics, kinds, 0, diagnostics)) return diagnostics;
  return Find(request, kinds, result, said) ? "" : std::to_string(result) + " : " + said;
}

Lines NeverSeen(const std::string& request) {
  Lines out;
  for (const auto& [key, row] : All().at(request)) {
    for (const std::string& kind : row.kinds) {
      if (row.seen.count(kind) == 0) {
        out.push_back(kind + " " + std::to_string(key.first) + " : " + key.second);
      }
    }
  }
  return out;
}

}  // namespace test
