// The base of all tests of the library.
#ifndef TESTS_PLATFORM_KEYMASTER_TEST_H
#define TESTS_PLATFORM_KEYMASTER_TEST_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/platform/bytes.h"
#include "tests/platform/doubles.h"
#include "tests/platform/faults.h"

namespace test {

using Lines = std::vector<std::string>;

// KeymasterTest gives each test fresh doubles and a TEE context whose making is not on record. At
// its end every session but first ones must be closed, every watchdog bracket well formed and
// ended, and every event destroyed.
class KeymasterTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
};

// Log is the messages since the last ClearRecords as "E KeyMaster: text"; a null tag is
// "-".
Lines Log();
// Journal is the TEE and watchdog calls in order, joined by ", "; "[label" and "label]" stand for
// a bracket's ends: "zubrel_init, [OpenKmSession, open, OpenKmSession], ...".
std::string Journal();
// Commands is the TA commands sent, in order.
std::vector<uint32_t> Commands();
// Events is the events as "3808d171 RET=7 CMD_ID=4 ... sent".
Lines Events();
// One failing call of a sweep: it counts from Arm on, and Hit tells whether it came to fail.
struct Fault {
  Call call;
  int nth;
  void Arm() const { FailCall(call, nth); }
  bool Hit() const { return CallCount(call) >= nth; }
};
// ForEachFault runs body(fault), which arms the fault, with the first call failing, then the
// second, and so on, until a run meets no failure any more.
template <typename Body>
void ForEachFault(std::initializer_list<Call> calls, Body body) {
  for (const Call call : calls) {
    bool hit = true;
    for (int nth = 1; hit; ++nth) {
      SCOPED_TRACE("call " + std::to_string(static_cast<int>(call)) + ", " + std::to_string(nth));
      const Fault fault{call, nth};
      body(fault);
      hit = fault.Hit();
      EXPECT_TRUE(hit || nth > 1) << "never called";
    }
    FailCall(call, 0);
  }
}
// CaptureStdout runs body and returns what it wrote to standard output.
template <typename Body>
std::string CaptureStdout(Body body) {
  ::testing::internal::CaptureStdout();
  body();
  return ::testing::internal::GetCapturedStdout();
}

}  // namespace test

#endif  // TESTS_PLATFORM_KEYMASTER_TEST_H
