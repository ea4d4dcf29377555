// The doubles of log, watchdog, events, bounded memory and system version.
#include <android/log.h>
#include <keymaster/keymaster_configuration.h>
#include <qavix.h>
#include <securec.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <zubrel.h>

#include "tests/platform/doubles.h"
#include "tests/platform/faults.h"

using test::platform;

extern "C" int __android_log_print(int priority, const char* tag, const char* format, ...) {
  char text[1024];
  va_list args;
  va_start(args, format);
  const int length = vsnprintf(text, sizeof(text), format, args);
  va_end(args);
  const std::lock_guard<std::mutex> lock(platform().mutex);
  test::LogLine line{priority, std::nullopt, format, text};
  if (tag != nullptr) line.tag = tag;
  platform().log.push_back(line);
  return length;
}

// ---- Watchdog

namespace {
constexpr int kFirstBracketId = 40;
}

extern "C" int zubrel_init(void) {
  const std::lock_guard<std::mutex> lock(platform().mutex);
  platform().journal.push_back("zubrel_init");
  return 0;
}

extern "C" int __zubrel_start_ex(const char* label, unsigned timeout, void (*callback)(void*),
                                 void* arg, unsigned flags) {
  test::Platform& p = platform();
  const std::lock_guard<std::mutex> lock(p.mutex);
  p.journal.push_back(std::string("[") + label);
  p.brackets.push_back({label, timeout, callback, arg, flags, false});
  return kFirstBracketId + static_cast<int>(p.brackets.size()) - 1;
}

extern "C" int zubrel_end(int id) {
  test::Platform& p = platform();
  const std::lock_guard<std::mutex> lock(p.mutex);
  const size_t index = static_cast<size_t>(id - kFirstBracketId);
  if (index >= p.brackets.size() || p.brackets[index].ended) {
    p.problems.push_back("end of a bracket that is not open");
    return -1;
  }
  p.brackets[index].ended = true;
  p.journal.push_back(p.brackets[index].label + "]");
  return 0;
}

// ---- Events

namespace {

test::Event* Live(void* event) {
  test::Event* live = static_cast<test::Event*>(event);
  if (live->destroyed) platform().problems.push_back("event used after its end");
  return live;
}

int SetParam(test::Call call, void* event, const std::string& param) {
  const std::lock_guard<std::mutex> lock(platform().mutex);
  if (test::TakeFault(call)) return -1;
  Live(event)->params += param + " ";
  return 0;
}

}  // namespace

extern "C" void* qavix_create_eventobj(unsigned id) {
  const std::lock_guard<std::mutex> lock(platform().mutex);
  if (test::TakeFault(test::Call::kCreateEvent)) return nullptr;
  platform().events.push_back({id, "", false, false});
  return &platform().events.back();
}

extern "C" int qavix_send_event(void* event) {
  const std::lock_guard<std::mutex> lock(platform().mutex);
  if (test::TakeFault(test::Call::kSendEvent)) return -5;
  platform().journal.push_back("event");
  Live(event)->sent = true;
  return 0;
}

extern "C" void qavix_destroy_eventobj(void* event) {
  const std::lock_guard<std::mutex> lock(platform().mutex);
  Live(event)->destroyed = true;
}

extern "C" int qavix_set_param_integer_v2(void* event, const char* name, long value) {
  return SetParam(test::Call::kSetInteger, event, std::string(name) + "=" + std::to_string(value));
}

extern "C" int qavix_set_param_string_v2(void* event, const char* name, const char* value) {
  return SetParam(test::Call::kSetString, event, std::string(name) + "=" + value);
}

extern "C" int qavix_set_param(void* event, unsigned short index, const void* value) {
  return SetParam(test::Call::kSetParam, event,
                  "#" + std::to_string(index) + "=" + static_cast<const char*>(value));
}

// ---- Bounded memory

extern "C" int memcpy_s(void* dest, size_t dest_max, const void* src, size_t count) {
  if (test::TakeFault(test::Call::kMemcpyS)) return 1;
  if (dest == nullptr || src == nullptr || count > dest_max) return 1;
  memcpy(dest, src, count);
  return 0;
}

extern "C" int memset_s(void* dest, size_t dest_max, int value, size_t count) {
  if (test::TakeFault(test::Call::kMemsetS)) return 1;
  if (dest == nullptr || count > dest_max) return 1;
  memset(dest, value, count);
  return 0;
}

// ---- System version

namespace keymaster {
uint32_t GetOsVersion() { return platform().os_version; }
uint32_t GetOsPatchlevel() { return platform().os_patchlevel; }
}  // namespace keymaster
