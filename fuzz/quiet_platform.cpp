// A log, a watchdog and an event sink that say nothing, but do read what they are given.
#include <android/log.h>
#include <qavix.h>
#include <stdarg.h>
#include <string.h>
#include <zubrel.h>

#include "fuzz/input.h"

extern "C" {

int __android_log_print(int, const char* tag, const char* format, ...) {
  char line[1024];
  if (tag != nullptr && strlen(tag) > 64) abort();
  va_list arguments;
  va_start(arguments, format);
  const int length = vsnprintf(line, sizeof(line), format, arguments);
  va_end(arguments);
  return length;
}

int zubrel_init(void) { return 0; }
int __zubrel_start_ex(const char*, unsigned, void (*)(void*), void*, unsigned) { return 1; }
int zubrel_end(int) { return 0; }

// An event is a block of its own, so that one that is not destroyed is a leak.
void* qavix_create_eventobj(unsigned) { return malloc(1); }
void qavix_destroy_eventobj(void* event) { free(event); }
int qavix_send_event(void*) { return 0; }
int qavix_set_param_integer_v2(void*, const char*, long) { return 0; }
int qavix_set_param_string_v2(void*, const char*, const char* value) {
  return strlen(value) > 32 ? -1 : 0;
}
int qavix_set_param(void*, unsigned short, const void*) { return 0; }

}  // extern "C"
