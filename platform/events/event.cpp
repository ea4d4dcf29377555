#include <errno.h>
#include <fcntl.h>
#include <qavix.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <exception>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

constexpr int kFailed = -1;

// The lead bytes of well-formed UTF-8 and what may follow each: the second byte's range shuts out
// overlong forms, surrogates and what lies above U+10FFFF.
struct Lead {
  uint8_t first, last, length, second_min, second_max;
};
constexpr Lead kLeads[] = {
    {0x00, 0x7F, 1, 0, 0},       {0xC2, 0xDF, 2, 0x80, 0xBF}, {0xE0, 0xE0, 3, 0xA0, 0xBF},
    {0xE1, 0xEC, 3, 0x80, 0xBF}, {0xED, 0xED, 3, 0x80, 0x9F}, {0xEE, 0xEF, 3, 0x80, 0xBF},
    {0xF0, 0xF0, 4, 0x90, 0xBF}, {0xF1, 0xF3, 4, 0x80, 0xBF}, {0xF4, 0xF4, 4, 0x80, 0x8F},
};

uint8_t ByteAt(std::string_view text, size_t at) { return static_cast<uint8_t>(text[at]); }

// CharacterLength returns the bytes of the UTF-8 character that text begins with, 0 for none.
size_t CharacterLength(std::string_view text) {
  for (const Lead& lead : kLeads) {
    if (ByteAt(text, 0) < lead.first || ByteAt(text, 0) > lead.last) {
      continue;
    }
    if (text.size() < lead.length) {
      return 0;
    }
    for (size_t at = 1; at < lead.length; ++at) {
      const uint8_t min = at == 1 ? lead.second_min : 0x80;
      const uint8_t max = at == 1 ? lead.second_max : 0xBF;
      if (ByteAt(text, at) < min || ByteAt(text, at) > max) {
        return 0;
      }
    }
    return lead.length;
  }
  return 0;
}

// JsonString returns text quoted and escaped for JSON. Control bytes, and bytes that are no part of
// well-formed UTF-8, become \u00XX; all else stays as it is.
std::string JsonString(std::string_view text) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string json = "\"";
  while (!text.empty()) {
    const uint8_t byte = ByteAt(text, 0);
    const size_t length = CharacterLength(text);
    if (length == 0 || byte < 0x20) {
      json.append("\\u00").append(1, kDigits[byte >> 4]).append(1, kDigits[byte & 0xF]);
      text.remove_prefix(1);
      continue;
    }
    if (byte == '"' || byte == '\\') {
      json.push_back('\\');
    }
    json.append(text.substr(0, length));
    text.remove_prefix(length);
  }
  return json.append("\"");
}

struct Event {
  unsigned id;
  std::vector<std::pair<std::string, std::string>> params;  // name, value as JSON
};

// Set stores a parameter; one that is set twice keeps its place and takes the later value.
int Set(void* object, std::string name, std::string json) {
  auto* event = static_cast<Event*>(object);
  for (auto& param : event->params) {
    if (param.first != name) {
      continue;
    }
    param.second = std::move(json);
    return 0;
  }
  event->params.emplace_back(std::move(name), std::move(json));
  return 0;
}

std::string ToLine(const Event& event) {
  std::string line = "{\"id\":" + std::to_string(event.id) + ",\"params\":{";
  const char* separator = "";
  for (const auto& [name, json] : event.params) {
    line.append(separator).append(JsonString(name)).append(":").append(json);
    separator = ",";
  }
  return line.append("}}\n");
}

// One write a line at the end of the file keeps the lines of several threads, or processes, apart.
int WriteLine(int descriptor, std::string_view line) {
  const ssize_t written = TEMP_FAILURE_RETRY(write(descriptor, line.data(), line.size()));
  return written == static_cast<ssize_t>(line.size()) ? 0 : kFailed;
}

int Append(const char* path, std::string_view line) {
  const int descriptor = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  if (descriptor < 0) {
    return kFailed;
  }
  const int result = WriteLine(descriptor, line);
  close(descriptor);
  return result;
}

// Guarded keeps exceptions, which can only be a lack of memory here, on this side of the C face.
template <typename Body>
int Guarded(Body body) {
  try {
    return body();
  } catch (const std::exception&) {
    return kFailed;
  }
}

}  // namespace

void* qavix_create_eventobj(unsigned id) { return new (std::nothrow) Event{id, {}}; }

int qavix_send_event(void* event) {
  if (event == nullptr) {
    return kFailed;
  }
  const char* sink = getenv("QAVIX_EVENTS");
  if (sink == nullptr || *sink == '\0') {
    return 0;
  }
  return Guarded([&] {
    const std::string line = ToLine(*static_cast<Event*>(event));
    return std::string_view(sink) == "-" ? WriteLine(STDERR_FILENO, line) : Append(sink, line);
  });
}

void qavix_destroy_eventobj(void* event) { delete static_cast<Event*>(event); }

int qavix_set_param_integer_v2(void* event, const char* name, long value) {
  if (event == nullptr || name == nullptr) {
    return kFailed;
  }
  return Guarded([&] { return Set(event, name, std::to_string(value)); });
}

int qavix_set_param_string_v2(void* event, const char* name, const char* value) {
  if (event == nullptr || name == nullptr || value == nullptr) {
    return kFailed;
  }
  return Guarded([&] { return Set(event, name, JsonString(value)); });
}

int qavix_set_param(void* event, unsigned short index, const void* value) {
  if (event == nullptr || value == nullptr) {
    return kFailed;
  }
  return Guarded([&] {
    return Set(event, std::to_string(index), JsonString(static_cast<const char*>(value)));
  });
}
