// Fault events: what is sent for which failure.
#include <keymaster_ts.h>
#include <string.h>

#include <algorithm>
#include <set>

#include "tests/platform/keymaster_test.h"
#include "tests/requests/wire.h"

namespace test {
namespace {

using FaultEvent = KeymasterTest;

constexpr char kRest[] = " TAINFO= CAINFO=KEYMASTER_TS sent";

// Reported is the event of a call of QavixKeyMaster with a record that may not be read beyond its
// end, without its usual end.
std::string Reported(uint32_t command, uint32_t result, const Bytes& record) {
  platform().ClearRecords();
  const uint32_t call[2] = {command, result};
  const Fenced block(record);
  QavixKeyMaster(call, block.data(), static_cast<uint32_t>(record.size()));
  EXPECT_EQ(Lines{"I -: KeyMaster Dfx uploadBigdata success."}, Log());
  EXPECT_EQ(1u, Events().size());
  const std::string event = Events().at(0);
  const size_t rest = event.size() - strlen(kRest);
  EXPECT_EQ(kRest, event.substr(rest));
  return event.substr(0, rest);
}

TEST_F(FaultEvent, CarriesTheRecordOrTheTeeResult) {
  const Bytes name = Text("generate"),
              longest = Cat({ErrorRecord(1, 2, 8, Text("ge")), Bytes(1010)});
  const struct {
    uint32_t command, result;
    Bytes record;
    std::string event;
  } kRows[] = {
      {4, 0xFFFF000C, {}, "940003100 RET=-65524 CMD_ID=4 LINE=0 FUNC="},
      {2, ~0u, ErrorRecord(7, 120, 8, name), "940102001 RET=7 CMD_ID=2 LINE=120 FUNC=generate"},
      {2, 0x1234, ErrorRecord(0, 12, 8, name), "940102001 RET=4660 CMD_ID=2 LINE=12 FUNC=generate"},
      {~0u, 7, ErrorRecord(1, ~0u, 3, name), "940102001 RET=1 CMD_ID=-1 LINE=4294967295 FUNC=gen"},
      {2, 7, longest, "940102001 RET=1 CMD_ID=2 LINE=2 FUNC=ge"},
      // What a short record lacks counts as zero.
      {2, 7, ErrorRecord(1, 2, 8, Text("gen")), "940102001 RET=1 CMD_ID=2 LINE=2 FUNC=gen"},
      {2, 7, Cat({Le32(1), Le32(2)}), "940102001 RET=1 CMD_ID=2 LINE=2 FUNC="},
      {2, 7, {1, 0, 0, 0, 1, 2, 3}, "940102001 RET=1 CMD_ID=2 LINE=197121 FUNC="},
  };
  for (const auto& row : kRows) {
    EXPECT_EQ(row.event, Reported(row.command, row.result, row.record));
  }
  // A length without a record, and a record without a length, are no record.
  platform().ClearRecords();
  const uint32_t call[2] = {3, 5};
  QavixKeyMaster(call, nullptr, 12);
  QavixKeyMaster(call, ErrorRecord(7, 7, 0, {}).data(), 0);
  EXPECT_EQ(Lines(2, std::string("940102001 RET=5 CMD_ID=3 LINE=0 FUNC=") + kRest), Events());
}

// 31 of them, or all 32 that the field holds.
TEST_F(FaultEvent, KeepsANameWithin32Bytes) {
  for (const uint32_t length : {30u, 31u, 32u, 33u, 1012u, 0x80000000u, 0xFFFFFFFFu}) {
    const std::string event =
        Reported(2, 7, ErrorRecord(1, 2, length, Bytes(std::min(length, 1012u), 'n')));
    const std::string name = event.substr(event.find("FUNC=") + 5);
    EXPECT_TRUE(name == std::string(std::min(length, 31u), 'n') ||
                name == std::string(std::min(length, 32u), 'n'))
        << event;
  }
}

TEST_F(FaultEvent, TextsNeedNoTerminator) {
  CaDfxInfo info{};
  memset(&info, 'x', sizeof(info));
  EXPECT_EQ(0, ReportDfxServer(&info));
  const std::string event = Events().at(0);
  for (const char* name : {"FUNC=", "TAINFO=", "CAINFO="}) {
    const size_t begin = event.find(name) + strlen(name), length = event.find(' ', begin) - begin;
    EXPECT_TRUE(length == 31 || length == 32) << name;
  }
  FailCall(Call::kSetString, 1);
  EXPECT_EQ(-1, ReportDfxServer(&info));
  EXPECT_LE(Log()[Log().size() - 2].size(), strlen("E -: set errFunc failed! errFunc = ") + 32);
}

TEST_F(FaultEvent, ServerReturnsTheResultOfTheSend) {
  const CaDfxInfo info{};
  FailCall(Call::kSendEvent, 1);
  EXPECT_EQ(-5, ReportDfxServer(&info));
  FailCall(Call::kCreateEvent, 1);
  EXPECT_EQ(-1, ReportDfxServer(&info));
  EXPECT_EQ(-1, ReportDfxServer(nullptr));
  EXPECT_EQ("E -: reportDfxServerc info is NULL", Log().back());
}

TEST_F(FaultEvent, ThirtyOneCodesHaveAnEventOfTheirOwn) {
  std::set<uint32_t> reported = {0xF0100001, 0xF0100002, 0xF0100003, 0xF0100004, 0xFFFF2000,
                                 0xFFFF3001, 0xFFFF300F, 0xFFFF3024, 0xFFFF3041, 0xFFFF3071,
                                 0xFFFF3072, 0xFFFF5000, 0xFFFF5001};
  for (uint32_t code = 0xFFFF0000; code <= 0xFFFF0011; ++code) {
    reported.insert(code);
  }
  for (uint32_t low = 0; low <= 0xFFFF; ++low) {
    for (const uint32_t high : {0u, 0xF0100000u, 0xF0110000u, 0xFFFE0000u, 0xFFFF0000u}) {
      const uint32_t code = high | low;
      ASSERT_EQ(reported.count(code), static_cast<size_t>(CheckReportedErrCode(code))) << code;
    }
  }
  // The record's code decides, and the TEE result where it has none.
  for (const uint32_t code : reported) {
    EXPECT_EQ("940003100", Reported(2, code, ErrorRecord(0, 0, 0, {})).substr(0, 9)) << code;
    EXPECT_EQ("940003100", Reported(2, 0x77, ErrorRecord(code, 0, 0, {})).substr(0, 9)) << code;
    EXPECT_EQ("940102001", Reported(2, code, ErrorRecord(0x77, 0, 0, {})).substr(0, 9)) << code;
  }
}

TEST_F(FaultEvent, WatchdogCallbackArchivesTheTeeLog) {
  const std::tuple<Call, int, std::string, Lines> kRows[] = {
      {Call::kSendEvent, 0, "teeos log is uploaded!\n", {"901002003 #0=teeos sent"}},
      {Call::kCreateEvent, 1, "create teeos eventobj failed\n", {}},
      {Call::kSetParam, 1, "qavix_set_param failed\n", {"901002003 dropped"}},
      {Call::kSendEvent, 1, "qavix send event failed\n", {"901002003 #0=teeos dropped"}}};
  for (const auto& [failing, nth, message, events] : kRows) {
    platform().ClearRecords();
    ClearFaults();
    FailCall(failing, nth);
    TeeosLogExceptionArchive(nullptr);
    EXPECT_EQ(Lines{"E KeyMaster: " + message}, Log());
    EXPECT_EQ(events, Events());
  }
}

}  // namespace
}  // namespace test
