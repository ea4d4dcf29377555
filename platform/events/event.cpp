#include <errno.h>
#include <fcntl.h>
#include <qavix.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <exception>
#include <nlohmann/json.hpp>
#include <string>

namespace {

constexpr int kFailed = -1;

// The parameters in the order in which they were first set.
struct Event {
  unsigned id;
  nlohmann::ordered_json params = nlohmann::ordered_json::object();
};

// Bytes that are no UTF-8 become U+FFFD, so that every line is JSON.
std::string ToLine(const Event& event) {
  using Json = nlohmann::ordered_json;
  const Json line = {{"id", event.id}, {"params", event.params}};
  return line.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

// One write a line at the end of the file keeps the lines of several threads, or processes, apart.
int Append(const char* path, const std::string& line) {
  const bool is_file = strcmp(path, "-") != 0;
  const int descriptor =
      is_file ? open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600) : STDERR_FILENO;
  if (descriptor < 0) return kFailed;
  const ssize_t written = TEMP_FAILURE_RETRY(write(descriptor, line.data(), line.size()));
  if (is_file) close(descriptor);
  return written == static_cast<ssize_t>(line.size()) ? 0 : kFailed;
}

// A parameter that is set twice keeps its place and takes the later value.
template <typename Value>
int Set(void* event, const char* name, Value value) try {
  if (event == nullptr || name == nullptr) return kFailed;
  static_cast<Event*>(event)->params[name] = value;
  return 0;
} catch (const std::exception&) {
  return kFailed;
}

}  // namespace

// An exception, which can only be a lack of memory, stays on this side of the C face.
void* qavix_create_eventobj(unsigned id) try {
  return new Event{id};
} catch (const std::exception&) {
  return nullptr;
}

int qavix_send_event(void* event) try {
  if (event == nullptr) return kFailed;
  const char* sink = getenv("QAVIX_EVENTS");
  if (sink == nullptr || *sink == '\0') return 0;
  return Append(sink, ToLine(*static_cast<Event*>(event)));
} catch (const std::exception&) {
  return kFailed;
}

void qavix_destroy_eventobj(void* event) { delete static_cast<Event*>(event); }

int qavix_set_param_integer_v2(void* event, const char* name, long value) {
  return Set(event, name, value);
}

int qavix_set_param_string_v2(void* event, const char* name, const char* value) {
  return value == nullptr ? kFailed : Set(event, name, value);
}

int qavix_set_param(void* event, unsigned short index, const void* value) {
  return qavix_set_param_string_v2(event, std::to_string(index).c_str(),
                                   static_cast<const char*>(value));
}
