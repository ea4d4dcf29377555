#include <android/log.h>
#include <ctype.h>
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <exception>
#include <memory>
#include <new>
#include <sstream>
#include <string>
#include <string_view>

namespace {

constexpr std::string_view kLetters = "??VDIWEFS";

char LetterOf(int priority) {
  const auto at = static_cast<size_t>(priority);  // beyond all letters if negative
  return at < kLetters.size() ? kLetters[at] : '?';
}

// PriorityOf returns the priority a filter's letter names, ANDROID_LOG_UNKNOWN for none.
int PriorityOf(char letter) {
  const size_t at = kLetters.find(static_cast<char>(toupper(letter)));
  return letter == '?' || at == std::string_view::npos ? ANDROID_LOG_UNKNOWN : static_cast<int>(at);
}

// ThresholdFor returns the lowest priority that a filter of "tag:letter" items lets through for a
// tag. As logcat does, a bare tag stands for all its messages, a bare * for those from debug on; a
// tag's own item beats *, a later item beats an earlier one, and what no item names is shown.
int ThresholdFor(const char* filter, std::string_view tag) {
  int any = ANDROID_LOG_VERBOSE;
  int own = ANDROID_LOG_UNKNOWN;
  std::istringstream items(filter);
  for (std::string item; items >> item;) {
    const size_t colon = item.rfind(':');
    const std::string item_tag = item.substr(0, colon);
    int priority = item_tag == "*" ? ANDROID_LOG_DEBUG : ANDROID_LOG_VERBOSE;
    if (colon != std::string::npos) {
      priority = item.size() == colon + 2 ? PriorityOf(item.back()) : ANDROID_LOG_UNKNOWN;
    }
    if (priority == ANDROID_LOG_UNKNOWN) continue;
    if (item_tag == "*") {
      any = priority;
    } else if (item_tag == tag) {
      own = priority;
    }
  }
  return own == ANDROID_LOG_UNKNOWN ? any : own;
}

// The environment is read anew for each message: a process may change its mind, and a scan of a
// few bytes is nothing beside the write.
bool IsShown(int priority, const char* tag) {
  const char* filter = getenv("ANDROID_LOG_TAGS");
  const int threshold = filter == nullptr || *filter == '\0'
                            ? static_cast<int>(ANDROID_LOG_ERROR)
                            : ThresholdFor(filter, tag == nullptr ? "" : tag);
  return threshold != ANDROID_LOG_SILENT && priority >= threshold;
}

// Format throws when the message cannot be formatted.
__attribute__((format(printf, 1, 0))) std::string Format(const char* format, va_list args) {
  char* text = nullptr;
  if (vasprintf(&text, format, args) < 0) throw std::bad_alloc();
  const std::unique_ptr<char, decltype(&free)> owner(text, free);
  return text;
}

// Every line of a message carries the prefix, so that no message can pass for two.
std::string ToLines(int priority, const char* tag, std::string_view text) {
  const std::string prefix = std::string(1, LetterOf(priority)) + "/" + (tag ? tag : "") + ": ";
  if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
  std::string lines;
  for (;;) {
    const size_t end = text.find('\n');
    lines.append(prefix).append(text.substr(0, end)).append("\n");
    if (end == std::string_view::npos) return lines;
    text.remove_prefix(end + 1);
  }
}

}  // namespace

int __android_log_print(int priority, const char* tag, const char* format, ...) {
  if (format == nullptr) return -1;
  if (!IsShown(priority, tag)) return 0;
  const int caller_errno = errno;
  int written = -1;
  va_list args;
  va_start(args, format);
  try {
    const std::string lines = ToLines(priority, tag, Format(format, args));
    // In one write: the lines of a message stay together.
    written =
        static_cast<int>(TEMP_FAILURE_RETRY(write(STDERR_FILENO, lines.data(), lines.size())));
  } catch (const std::exception&) {
    // No memory for the line: the message is lost, and the result says so.
  }
  va_end(args);
  errno = caller_errno;
  return written;
}
