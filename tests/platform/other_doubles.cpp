// The doubles of log, watchdog, events, bounded memory and system version.
#include <android/log.h>
#include <keymaster/keymaster_configuration.h>
#include <keymaster_ts.h>
#include <qavix.h>
#include <securec.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <zubrel.h>

#include <algorithm>

#include "tests/platform/doubles.h"

namespace test {
namespace {

Event* Live(void* event) {
  Event* live = static_cast<Event*>(event);
  if (live->destroyed) platform().problems.push_back("event used after its end");
  return live;
}

int SetParam(Call call, void* event, const std::string& name, const std::string& value) {
  const auto lock = Note();
  if (TakeFault(call)) return -1;
  Live(event)->params += name + "=" + value + " ";
  return 0;
}

// Whether a line that the library says last comes while its session or its event is still there.
bool ComesTooEarly(const std::string& text) {
  if (text == "teeos log is uploaded!\n") {
    const auto lives = [](const Event& event) { return !event.destroyed; };
    return std::any_of(platform().events.begin(), platform().events.end(), lives);
  }
  const auto is_open = [](const Opened& session) {
    return session.open && !session.first && session.thread == std::this_thread::get_id();
  };
  return (text == "TEE_AttestKey success.\n" || text == "operation initialize failed") &&
         std::any_of(platform().opens.begin(), platform().opens.end(), is_open);
}

}  // namespace

extern "C" {

int __android_log_print(int priority, const char* tag, const char* format, ...) {
  char text[1024];
  va_list args;
  va_start(args, format);
  const int length = vsnprintf(text, sizeof(text), format, args);
  va_end(args);
  const auto lock = Note();
  if (ComesTooEarly(text)) platform().problems.push_back("said too early: " + std::string(text));
  platform().log.push_back({priority, std::nullopt, format, text});
  if (tag != nullptr) platform().log.back().tag = tag;
  return length;
}

// ---- Watchdog

int zubrel_init(void) {
  Note("zubrel_init");
  return 0;
}

int __zubrel_start_ex(const char* label, unsigned timeout, void (*callback)(void*), void* arg,
                      unsigned flags) {
  const auto lock = Note(std::string("[") + label);
  Platform& p = platform();
  if (timeout != 32 || flags != 3 || callback != TeeosLogExceptionArchive || arg != nullptr) {
    p.problems.push_back("not the usual bracket");
  }
  p.brackets[p.next_bracket] = label;
  return p.next_bracket++;
}

int zubrel_end(int id) {
  const auto lock = Note();
  Platform& p = platform();
  if (p.brackets.count(id) == 0) p.problems.push_back("end of a bracket that is not open");
  p.journal.push_back(p.brackets[id] + "]");
  p.brackets.erase(id);
  return 0;
}

// ---- Events

void* qavix_create_eventobj(unsigned id) {
  const auto lock = Note();
  if (TakeFault(Call::kCreateEvent)) return nullptr;
  platform().events.push_back({id, "", false, false, {}});
  return &platform().events.back();
}

int qavix_send_event(void* event) {
  const auto lock = Note();
  if (TakeFault(Call::kSendEvent)) return -5;
  platform().journal.push_back("event");
  for (const auto& [at, text] : Live(event)->texts) {
    if (text != at) platform().problems.push_back("text gone before the event was sent: " + text);
  }
  Live(event)->sent = true;
  return 0;
}

void qavix_destroy_eventobj(void* event) {
  const auto lock = Note();
  Live(event)->destroyed = true;
}

int qavix_set_param_integer_v2(void* event, const char* name, long value) {
  return SetParam(Call::kSetInteger, event, name, std::to_string(value));
}

int qavix_set_param_string_v2(void* event, const char* name, const char* value) {
  const int result = SetParam(Call::kSetString, event, name, value);
  if (result == 0) Live(event)->texts.emplace_back(value, value);
  return result;
}

int qavix_set_param(void* event, unsigned short index, const void* value) {
  return SetParam(Call::kSetParam, event, "#" + std::to_string(index),
                  static_cast<const char*>(value));
}

// ---- Bounded memory

int memcpy_s(void* dest, size_t dest_max, const void* src, size_t count) {
  platform().CheckBound(dest, dest_max);
  const bool failing = TakeFault(Call::kMemcpyS);
  if (failing || dest == nullptr || src == nullptr || count > dest_max) return 1;
  memcpy(dest, src, count);
  return 0;
}

int memset_s(void* dest, size_t dest_max, int value, size_t count) {
  platform().CheckBound(dest, dest_max);
  if (TakeFault(Call::kMemsetS) || dest == nullptr || count > dest_max) return 1;
  memset(dest, value, count);
  return 0;
}

}  // extern "C"
}  // namespace test

// ---- System version

namespace keymaster {
uint32_t GetOsVersion() { return test::platform().os_version; }
uint32_t GetOsPatchlevel() { return test::platform().os_patchlevel; }
}  // namespace keymaster
