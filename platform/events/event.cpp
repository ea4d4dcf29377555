#include <errno.h>
#include <fcntl.h>
#include <qavix.h>
#include <stdlib.h>
#include <unistd.h>

#include <exception>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "json_text.h"

namespace {

constexpr int kFailed = -1;

struct Event {
  unsigned id;
  std::vector<std::pair<std::string, std::string>> params;  // name, value as JSON
};

// Set stores a parameter; one that is set twice keeps its place and takes the later value.
int Set(void* object, std::string name, std::string json) {
  auto* event = static_cast<Event*>(object);
  for (auto& param : event->params) {
    if (param.first != name) continue;
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
  if (descriptor < 0) return kFailed;
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
  if (event == nullptr) return kFailed;
  const char* sink = getenv("QAVIX_EVENTS");
  if (sink == nullptr || *sink == '\0') return 0;
  return Guarded([&] {
    const std::string line = ToLine(*static_cast<Event*>(event));
    return std::string_view(sink) == "-" ? WriteLine(STDERR_FILENO, line) : Append(sink, line);
  });
}

void qavix_destroy_eventobj(void* event) { delete static_cast<Event*>(event); }

int qavix_set_param_integer_v2(void* event, const char* name, long value) {
  if (event == nullptr || name == nullptr) return kFailed;
  return Guarded([&] { return Set(event, name, std::to_string(value)); });
}

int qavix_set_param_string_v2(void* event, const char* name, const char* value) {
  if (event == nullptr || name == nullptr || value == nullptr) return kFailed;
  return Guarded([&] { return Set(event, name, JsonString(value)); });
}

int qavix_set_param(void* event, unsigned short index, const void* value) {
  if (event == nullptr || value == nullptr) return kFailed;
  return Guarded([&] {
    return Set(event, std::to_string(index), JsonString(static_cast<const char*>(value)));
  });
}
