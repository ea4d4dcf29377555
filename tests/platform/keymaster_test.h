// The base of all tests of the library.
#ifndef TESTS_PLATFORM_KEYMASTER_TEST_H
#define TESTS_PLATFORM_KEYMASTER_TEST_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/platform/bytes.h"
#include "tests/platform/doubles.h"
#include "tests/platform/library_hooks.h"

namespace test {

using Lines = std::vector<std::string>;

// KeymasterTest gives each test fresh doubles and a TEE context whose making is not on record. At
// its end every session but first ones must be closed, every watchdog bracket ended, every event
// destroyed, and no double misused.
class KeymasterTest : public ::testing::Test {
 protected:
  KeymasterTest() { HookLibrary(); }
  void SetUp() override;
  void TearDown() override;
};

// ExpectTidy expects of what was recorded what KeymasterTest says of its end, and forgets it.
void ExpectTidy();
// Log is the messages since the last ClearRecords as "E KeyMaster: text"; a null tag is "-".
Lines Log();
// Journal is the TEE and watchdog calls in order, joined by ", "; "[label" and "label]" stand for
// a bracket's ends: "zubrel_init, [OpenKmSession, open, OpenKmSession], ...".
std::string Journal();
// Commands is the TA commands sent, in order.
std::vector<uint32_t> Commands();
// Events is the events as "940102001 RET=7 CMD_ID=4 ... sent".
Lines Events();

}  // namespace test

#endif  // TESTS_PLATFORM_KEYMASTER_TEST_H
