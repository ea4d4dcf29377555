// The log, the watchdog, the events and the bounded memory functions.
#include <android/log.h>
#include <gtest/gtest.h>
#include <qavix.h>
#include <securec.h>
#include <unistd.h>
#include <zubrel.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <map>
#include <string>
#include <thread>

namespace {

using std::chrono::milliseconds;

TEST(Log, ShowsWhatTheFilterLetsThrough) {
  struct {
    const char* filter;
    int priority;
    const char *tag, *text, *shown;
  } const kCases[] = {
      {"", ANDROID_LOG_ERROR, "KeyMaster", "bad", "E/KeyMaster: bad\n"},
      {"", ANDROID_LOG_WARN, "KeyMaster", "odd", ""},
      {"KeyMaster:I *:S", ANDROID_LOG_INFO, "KeyMaster", "one\n", "I/KeyMaster: one\n"},
      {"KeyMaster:I *:S", ANDROID_LOG_DEBUG, "KeyMaster", "two", ""},
      {"KeyMaster:I *:S", ANDROID_LOG_FATAL, "KeyMaster_Ts", "three", ""},
      {" *:w \t KeyMaster ", ANDROID_LOG_VERBOSE, "KeyMaster", "five", "V/KeyMaster: five\n"},
      {"*:W", ANDROID_LOG_WARN, nullptr, "six", "W/: six\n"},
      {"*", ANDROID_LOG_DEBUG, "Other", "eight", "D/Other: eight\n"},
      {"KeyMaster:S KeyMaster:E", ANDROID_LOG_ERROR, "KeyMaster", "ten", "E/KeyMaster: ten\n"},
      {"KeyMaster:Warn KeyMaster:? *:E", ANDROID_LOG_WARN, "KeyMaster", "eleven", ""},
      {"*:E", ANDROID_LOG_ERROR, "A", "x\nE/B: y\n", "E/A: x\nE/A: E/B: y\n"},
      {"*:E", ANDROID_LOG_ERROR, "A", "", "E/A: \n"},
  };
  for (const auto& row : kCases) {
    SCOPED_TRACE(row.text);
    setenv("ANDROID_LOG_TAGS", row.filter, 1);
    testing::internal::CaptureStderr();
    const int written = __android_log_print(row.priority, row.tag, "%s", row.text);
    const std::string shown = testing::internal::GetCapturedStderr();
    EXPECT_EQ(shown, row.shown);
    EXPECT_EQ(written, static_cast<int>(shown.size()));
  }
  unsetenv("ANDROID_LOG_TAGS");
  const std::string longer(5000, 'x');
  testing::internal::CaptureStderr();
  __android_log_print(ANDROID_LOG_ERROR, "A", "%s %d", longer.c_str(), 7);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "E/A: " + longer + " 7\n");
}

struct Callback {
  milliseconds length{0};
  std::atomic<int> own_id{-1};  // closed from inside unless negative
  std::atomic<int> started{0};
  std::atomic<int> returned{0};

  static void Run(void* arg) {
    auto* self = static_cast<Callback*>(arg);
    ++self->started;
    std::this_thread::sleep_for(self->length);
    EXPECT_EQ(zubrel_end(self->own_id) == 0, self->own_id > 0);
    ++self->returned;
  }
  int Start(unsigned timeout) { return __zubrel_start_ex("guarded", timeout, Run, this, 3); }
};

bool Happens(const std::atomic<int>& count) {
  for (int wait = 0; count == 0 && wait < 5000; ++wait) {
    std::this_thread::sleep_for(milliseconds(1));
  }
  return count != 0;
}

TEST(Watchdog, CallsBackOnceForEachBracketThatOverruns) {
  setenv("ZUBREL_UNIT_MS", "20", 1);
  ASSERT_EQ(zubrel_init(), 0);
  Callback kept, late, slow, closes_itself;
  const int in_time = kept.Start(4000000000u);
  const int overrun = late.Start(1);
  for (int call = 0; call < 1000; ++call) {
    EXPECT_EQ(zubrel_end(kept.Start(50)), 0);
  }
  EXPECT_TRUE(Happens(late.returned));

  slow.length = milliseconds(100);
  const int running = slow.Start(1);
  EXPECT_TRUE(Happens(slow.started));
  EXPECT_EQ(zubrel_end(running), 0);
  EXPECT_EQ(slow.returned, 1) << "the end must wait for the callback";

  closes_itself.length = milliseconds(50);
  closes_itself.own_id = closes_itself.Start(0);
  EXPECT_TRUE(Happens(closes_itself.returned));

  EXPECT_EQ(zubrel_end(overrun), 0);
  EXPECT_EQ(zubrel_end(in_time), 0);
  for (const int id : {overrun, in_time, running, closes_itself.own_id.load(), 0, -1}) {
    EXPECT_LT(zubrel_end(id), 0) << id;
  }
  EXPECT_EQ(late.started, 1);
  EXPECT_EQ(kept.started, 0);
}

TEST(Events, EverySentEventIsOneLineOfJson) {
  const std::string path = testing::TempDir() + "events." + std::to_string(getpid());
  setenv("QAVIX_EVENTS", path.c_str(), 1);
  constexpr int kEvents = 200;
  const auto send = [](int thread) {
    for (int index = 0; index < kEvents; ++index) {
      void* event = qavix_create_eventobj(3000000000u);
      EXPECT_EQ(qavix_set_param_integer_v2(event, "RET", 0), 0);
      EXPECT_EQ(qavix_set_param_integer_v2(event, "RET", -65524 - thread), 0);
      EXPECT_EQ(qavix_set_param_string_v2(event, "F\"", "a\\\n\x7f\xc3\xa4\xff\xed\xa0\x80"), 0);
      EXPECT_EQ(qavix_set_param(event, 0, "teeos"), 0);
      EXPECT_EQ(qavix_send_event(event), 0);
      qavix_destroy_eventobj(event);
    }
  };
  std::thread other(send, 1);
  send(0);
  other.join();

  std::map<std::string, int> lines;
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    ++lines[line];
  }
  unlink(path.c_str());
  const std::string rest =
      ",\"F\\\"\":\"a\\\\\\n\x7f\xc3\xa4\ufffd\ufffd\ufffd\ufffd\",\"0\":\"teeos\"}}";
  const std::string head = "{\"id\":3000000000,\"params\":{\"RET\":";
  EXPECT_EQ(lines, (std::map<std::string, int>{{head + "-65524" + rest, kEvents},
                                               {head + "-65525" + rest, kEvents}}));

  void* event = qavix_create_eventobj(1);
  setenv("QAVIX_EVENTS", "/dev/null/none", 1);
  EXPECT_LT(qavix_send_event(event), 0);
  unsetenv("QAVIX_EVENTS");
  EXPECT_EQ(qavix_send_event(event), 0);
  qavix_destroy_eventobj(event);
}

TEST(BoundedMemory, WritesWithinTheBoundOrNotAtAll) {
  struct {
    long dest, src;  // offsets, -1 for null
    size_t max, count;
    const char *copied, *set;  // null: refused
  } const kCases[] = {
      {0, 4, 4, 4, "efghefgh", "....efgh"}, {0, 4, 2, 3, nullptr, nullptr},
      {0, 4, 0, 0, "abcdefgh", "abcdefgh"}, {-1, 4, 8, 0, nullptr, nullptr},
      {0, -1, 8, 0, nullptr, "abcdefgh"},   {2, 0, 6, 6, "ababcdef", "ab......"},
  };
  for (const auto& row : kCases) {
    SCOPED_TRACE(&row - kCases);
    std::string copied = "abcdefgh", set = copied;
    const auto at = [](std::string* text, long offset) {
      return offset < 0 ? nullptr : text->data() + offset;
    };
    EXPECT_EQ(memcpy_s(at(&copied, row.dest), row.max, at(&copied, row.src), row.count) == 0,
              row.copied != nullptr);
    EXPECT_EQ(memset_s(at(&set, row.dest), row.max, '.', row.count) == 0, row.set != nullptr);
    EXPECT_EQ(copied, row.copied == nullptr ? "abcdefgh" : row.copied);
    EXPECT_EQ(set, row.set == nullptr ? "abcdefgh" : row.set);
  }
}

}  // namespace
