// Has Android's log library hand each line to the double that the tests read.
#include <android/log.h>
#include <dlfcn.h>
#include <errno.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

extern "C" int RecordLogLine(int priority, const char* tag, const char* format, ...);

namespace {

// What the library tells a logger beside the text.
struct LineData {
  size_t struct_size;
  int32_t buffer_id;
  int32_t priority;
  const char* tag;
  const char* file;
  uint32_t line;
};

using Logger = void (*)(const LineData*, const char* text);

// Android's library logs under the program's name what has no tag.
void Record(const LineData* line, const char* text) {
  const bool tagged = strcmp(line->tag, program_invocation_short_name) != 0;
  RecordLogLine(line->priority, tagged ? line->tag : nullptr, "%s", text);
}

// The stand-in has no such function: with that the program ends here.
const bool g_set = [] {
  void* const set = dlsym(RTLD_DEFAULT, "__android_log_set_logger");
  if (set == nullptr) abort();
  reinterpret_cast<void (*)(Logger)>(set)(Record);
  return true;
}();

}  // namespace
