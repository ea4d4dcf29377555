#include "tests/platform/keymaster_test.h"

#include <android/log.h>
#include <keymaster_ts.h>

#include <iomanip>
#include <sstream>

namespace test {
namespace {

std::string Hex(uint64_t value, int width = 0) {
  std::ostringstream out;
  out << std::hex << std::setfill('0') << std::setw(width) << value;
  return out.str();
}

std::string Level(int level) {
  if (level == ANDROID_LOG_INFO) return "I ";
  return level == ANDROID_LOG_ERROR ? "E " : std::to_string(level) + " ";
}

}  // namespace

void KeymasterTest::SetUp() {
  platform().Reset();
  ASSERT_EQ(0u, Ts_Initcontext());
  platform().ClearRecords();
}

void KeymasterTest::TearDown() {
  ClearFaults();
  if (platform().live_contexts > 0) (void)Ts_Finishcontext();
  EXPECT_EQ(0u, platform().live_contexts);
  ExpectTidy();
}

void ExpectTidy() {
  EXPECT_EQ(Lines(), platform().problems);
  for (const Opened& opened : platform().opens) {
    EXPECT_EQ(opened.first, opened.open) << "a session was left open";
    if (opened.first && opened.open) free(opened.block);
  }
  for (const auto& [id, label] : platform().brackets) {
    ADD_FAILURE() << label << " did not end";
  }
  for (const Event& event : platform().events) {
    EXPECT_TRUE(event.destroyed) << event.params;
  }
  platform().ClearRecords();
}

Lines Log() {
  Lines out;
  for (const LogLine& line : platform().log) {
    out.push_back(Level(line.level) + line.tag.value_or("-") + ": " + line.text);
  }
  return out;
}

std::string Journal() {
  std::string out;
  for (const std::string& entry : platform().journal) {
    out += (out.empty() ? "" : ", ") + entry;
  }
  return out;
}

std::vector<uint32_t> Commands() {
  std::vector<uint32_t> out;
  for (const Invocation& invocation : platform().invocations) {
    out.push_back(invocation.command);
  }
  return out;
}

Lines Events() {
  Lines out;
  for (const Event& event : platform().events) {
    out.push_back(std::to_string(event.id) + " " + event.params +
                  (event.sent ? "sent" : "dropped"));
  }
  return out;
}

std::string Describe(const keymaster_key_param_set_t& set) {
  std::string out;
  for (size_t i = 0; i < set.length; ++i) {
    const keymaster_key_param_t& param = set.params[i];
    const auto tag = static_cast<uint32_t>(param.tag);
    out += (out.empty() ? "" : " ") + Hex(tag) + (IsByteValued(tag) ? ":" : "=");
    if (!IsByteValued(tag)) {
      out += Hex(NumberOf(param));
      continue;
    }
    for (const uint8_t byte : BlobBytes(param.blob)) {
      out += Hex(byte, 2);
    }
  }
  return out;
}

}  // namespace test
