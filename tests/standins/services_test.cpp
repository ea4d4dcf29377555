// The log, the watchdog and the events.
#include <android/log.h>
#include <gtest/gtest.h>
#include <qavix.h>
#include <unistd.h>
#include <zubrel.h>

#include <atomic>
#include <chrono>
#include <fstream>
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
      {"KeyMaster:I *:S", ANDROID_LOG_INFO, "KeyMaster", "one\n", "I/KeyMaster: one\n"},
      {"KeyMaster:I *:S", ANDROID_LOG_DEBUG, "KeyMaster", "two", ""},
      {"KeyMaster:I *:S", ANDROID_LOG_FATAL, "KeyMaster_Ts", "three", ""},
      {" *:w \t KeyMaster ", ANDROID_LOG_VERBOSE, "KeyMaster", "five", "V/KeyMaster: five\n"},
      {"*:W", ANDROID_LOG_WARN, nullptr, "six", "W/: six\n"},
      {"*:E", ANDROID_LOG_ERROR, "A", "x\nE/B: y\n", "E/A: x\nE/A: E/B: y\n"},
  };
  for (const auto& row : kCases) {
    SCOPED_TRACE(row.text);
    setenv("ANDROID_LOG_TAGS", row.filter, 1);
    testing::internal::CaptureStderr();
    __android_log_print(row.priority, row.tag, "%s", row.text);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), row.shown);
  }
}

struct Callback {
  milliseconds length{0};
  std::atomic<int> started{0}, returned{0};

  static void Run(void* arg) {
    auto* self = static_cast<Callback*>(arg);
    ++self->started;
    std::this_thread::sleep_for(self->length);
    ++self->returned;
  }
  int Start(unsigned timeout) { return __zubrel_start_ex("guarded", timeout, Run, this, 3); }
  bool Starts() const {
    for (int wait = 0; started == 0 && wait < 5000; ++wait) {
      std::this_thread::sleep_for(milliseconds(1));
    }
    return started != 0;
  }
};

TEST(Watchdog, CallsBackOnceForEachBracketThatOverruns) {
  setenv("ZUBREL_UNIT_MS", "20", 1);
  ASSERT_EQ(zubrel_init(), 0);
  Callback kept, late, slow;
  const int in_time = kept.Start(4000000000u);
  const int overrun = late.Start(1);
  for (int call = 0; call < 1000; ++call) {
    EXPECT_EQ(zubrel_end(kept.Start(10)), 0);
  }
  EXPECT_TRUE(late.Starts());
  slow.length = milliseconds(100);
  // Its time is up only after that of each bracket that ended.
  const int running = slow.Start(10);
  EXPECT_TRUE(slow.Starts());
  EXPECT_EQ(zubrel_end(running), 0);
  EXPECT_EQ(slow.returned, 1) << "the end must wait for the callback";
  EXPECT_EQ(zubrel_end(overrun), 0);
  EXPECT_EQ(zubrel_end(in_time), 0);
  EXPECT_EQ(late.started, 1);
  EXPECT_EQ(kept.started, 0);
}

TEST(Events, EverySentEventIsOneLineOfJson) {
  const std::string path = testing::TempDir() + "events." + std::to_string(getpid());
  setenv("QAVIX_EVENTS", path.c_str(), 1);
  for (const int result : {-65524, -65525}) {
    void* event = qavix_create_eventobj(3000000000u);
    EXPECT_EQ(qavix_set_param_integer_v2(event, "RET", result), 0);
    EXPECT_EQ(qavix_set_param_string_v2(event, "F", "\"\n\xc3\xa4\xff"), 0);
    EXPECT_EQ(qavix_set_param(event, 0, "teeos"), 0);
    EXPECT_EQ(qavix_send_event(event), 0);
    qavix_destroy_eventobj(event);
  }
  std::ifstream file(path);
  const std::string lines{std::istreambuf_iterator<char>(file), {}};
  unlink(path.c_str());
  const std::string head = "{\"id\":3000000000,\"params\":{\"RET\":",
                    rest = ",\"F\":\"\\\"\\n\xc3\xa4\ufffd\",\"0\":\"teeos\"}}\n";
  EXPECT_EQ(lines, head + "-65524" + rest + head + "-65525" + rest);
}

}  // namespace
