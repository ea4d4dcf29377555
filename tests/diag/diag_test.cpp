// Fault events: what is sent for which failure, and what is logged when that fails.
#include <keymaster_ts.h>
#include <string.h>

#include <algorithm>
#include <set>

#include "tests/platform/keymaster_test.h"

namespace test {
namespace {

using FaultEvent = KeymasterTest;

constexpr char kSent[] = "I -: KeyMaster Dfx uploadBigdata success.";

Bytes ErrorRecord(uint32_t code, uint32_t line, uint32_t name_length, const Bytes& name) {
  return Cat({Le32(code), Le32(line), Le32(name_length), name});
}

// Report calls QavixKeyMaster with a block of exactly the record's size, so that a sanitizer sees
// any read beyond it.
void Report(uint32_t command, uint32_t result, const Bytes& record) {
  const uint32_t call[2] = {command, result};
  uint8_t* block = nullptr;
  if (!record.empty()) {
    block = static_cast<uint8_t*>(malloc(record.size()));
    memcpy(block, record.data(), record.size());
  }
  QavixKeyMaster(call, block, static_cast<uint32_t>(record.size()));
  free(block);
}

std::string EventText(const std::string& id_ret_cmd_line_func) {
  return id_ret_cmd_line_func + " TAINFO= CAINFO=KEYMASTER_TS sent";
}

TEST_F(FaultEvent, CarriesTheRecordOrTheTeeResult) {
  const Bytes name = Text("generate");
  const struct {
    uint32_t command, result;
    Bytes record;
    const char* event;
  } cases[] = {
      {4, 0xFFFF000C, {}, "38074f1c RET=-65524 CMD_ID=4 LINE=0 FUNC="},
      {2, 0xFFFF000C, ErrorRecord(7, 120, 8, name),
       "3808d171 RET=7 CMD_ID=2 LINE=120 FUNC=generate"},
      {2, 0x1234, ErrorRecord(0, 120, 8, name),
       "3808d171 RET=4660 CMD_ID=2 LINE=120 FUNC=generate"},
      {2, 0xFFFF0005, ErrorRecord(0, 9, 8, name),
       "38074f1c RET=-65531 CMD_ID=2 LINE=9 FUNC=generate"},
      {2, 7, ErrorRecord(0xF0100001, 9, 8, name),
       "38074f1c RET=-267386879 CMD_ID=2 LINE=9 FUNC=generate"},
      {0xFFFFFFFF, 7, ErrorRecord(1, 0xFFFFFFFF, 3, name),
       "3808d171 RET=1 CMD_ID=-1 LINE=4294967295 FUNC=gen"},
      {2, 7, ErrorRecord(1, 2, 8, Cat({Text("ge"), Bytes(1010)})),
       "3808d171 RET=1 CMD_ID=2 LINE=2 FUNC=ge"},  // 1024 bytes, the longest
      // What a short record lacks counts as zero.
      {2, 7, ErrorRecord(1, 2, 0, {}), "3808d171 RET=1 CMD_ID=2 LINE=2 FUNC="},
      {2, 7, ErrorRecord(1, 2, 8, Text("gen")), "3808d171 RET=1 CMD_ID=2 LINE=2 FUNC=gen"},
      {2, 7, Cat({Le32(1), Le32(2)}), "3808d171 RET=1 CMD_ID=2 LINE=2 FUNC="},
      {2, 7, Le32(9), "3808d171 RET=9 CMD_ID=2 LINE=0 FUNC="},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.event);
    platform().ClearRecords();
    Report(c.command, c.result, c.record);
    EXPECT_EQ(Lines{EventText(c.event)}, Events());
    EXPECT_EQ(Lines{kSent}, Log());
  }
  // A length without a record, and a record without a length, are no record.
  platform().ClearRecords();
  const uint32_t call[2] = {3, 5};
  QavixKeyMaster(call, nullptr, 12);
  QavixKeyMaster(call, ErrorRecord(7, 7, 0, {}).data(), 0);
  const std::string bare = EventText("3808d171 RET=5 CMD_ID=3 LINE=0 FUNC=");
  EXPECT_EQ((Lines{bare, bare}), Events());
}

TEST_F(FaultEvent, KeepsANameWithin32Bytes) {
  for (const uint32_t length : {30u, 31u, 32u, 33u, 1012u, 0x80000000u, 0xFFFFFFFFu}) {
    SCOPED_TRACE(length);
    const std::string name(std::min(length, 1012u), 'n');
    platform().ClearRecords();
    Report(2, 7, ErrorRecord(1, 2, length, Text(name)));
    ASSERT_EQ(1u, Events().size());
    const std::string event = Events()[0];
    const size_t begin = event.find("FUNC=") + 5;
    const size_t kept = event.find(" TAINFO= CAINFO=KEYMASTER_TS sent") - begin;
    EXPECT_EQ(name.substr(0, kept), event.substr(begin, kept));
    EXPECT_GE(kept, std::min<size_t>(length, 31));
    EXPECT_LE(kept, 32u);
  }
}

TEST_F(FaultEvent, IsDroppedOrGoesOnWhenAStepFails) {
  const Bytes record = ErrorRecord(7, 120, 3, Text("gen"));
  const char kStart[] = "3808d171 ", kNoSend[] = "E -: reportDfxServer is falied";
  const std::string set = "E -: setTaDfxInfo failed!";
  const std::string whole = "RET=7 CMD_ID=2 LINE=120 FUNC=gen TAINFO= CAINFO=KEYMASTER_TS ";
  const auto before = [&](const char* param) {
    return kStart + whole.substr(0, whole.find(param)) + "dropped";
  };
  const struct {
    Call call;
    int nth;
    Lines log, events;
  } cases[] = {
      {Call::kMemsetS, 1, {"I -: QavixPvod memset_s CaDfxInfo failed !!!"}, {}},
      {Call::kMemcpyS, 1, {"E -: memcpy_s errFunc faild", "E -: TaErrDataAnalyze is falied"}, {}},
      {Call::kMemcpyS,
       2,
       {"E -: memcpy_s taInfo faild", kSent},
       {"3808d171 RET=7 CMD_ID=2 LINE=120 FUNC=gen TAINFO= CAINFO= sent"}},
      {Call::kCreateEvent, 1, {"E -: create EVENT:940102001 failed", kNoSend}, {}},
      {Call::kSetInteger,
       1,
       {"E -: set errCode failed! errCode = 7", set, kNoSend},
       {before("RET")}},
      {Call::kSetInteger, 2, {"E -: set cmdId failed! cmdId = 2", set, kNoSend}, {before("CMD")}},
      {Call::kSetInteger,
       3,
       {"E -: set errLine failed! errLine = 120", set, kNoSend},
       {before("LI")}},
      {Call::kSetString,
       1,
       {"E -: set errFunc failed! errFunc = gen", set, kNoSend},
       {before("FU")}},
      {Call::kSetString, 2, {"E -: set extInfo failed! extInfo = ", set, kNoSend}, {before("TA")}},
      {Call::kSetString,
       3,
       {"E -: set caInfo failed! caInfo = KEYMASTER_TS", set, kNoSend},
       {before("CA")}},
      {Call::kSendEvent, 1, {"E -: send event failed", kNoSend}, {before("none")}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.log[0]);
    platform().ClearRecords();
    ClearFaults();
    FailCall(c.call, c.nth);
    Report(2, 5, record);
    EXPECT_EQ(c.log, Log());
    EXPECT_EQ(c.events, Events());
  }
  ClearFaults();
  platform().ClearRecords();
  Report(2, 5, Bytes(1025, 1));
  EXPECT_EQ((Lines{"E -:  error_len is to long -- len = 1025 ", "E -: TaErrDataAnalyze is falied"}),
            Log());
  EXPECT_EQ(Lines(), Events());
}

TEST_F(FaultEvent, ServerTakesUnterminatedTextAndReturnsTheSendResult) {
  EXPECT_EQ(-1, ReportDfxServer(nullptr));
  EXPECT_EQ(Lines{"E -: reportDfxServerc info is NULL"}, Log());
  CaDfxInfo info{};
  memset(&info, 'x', sizeof(info));
  info.eventId = 5;
  EXPECT_EQ(0, ReportDfxServer(&info));
  for (const char* name : {"FUNC=", "TAINFO=", "CAINFO="}) {
    const std::string event = Events()[0];
    const std::string value = event.substr(event.find(name) + strlen(name));
    EXPECT_GE(value.find(' '), 31u) << name;
    EXPECT_LE(value.find(' '), 32u) << name;
  }
  FailCall(Call::kSendEvent, 1);
  EXPECT_EQ(-5, ReportDfxServer(&info));
  FailCall(Call::kCreateEvent, 1);
  EXPECT_EQ(-1, ReportDfxServer(&info));
  FailCall(Call::kSetString, 1);
  EXPECT_EQ(-1, ReportDfxServer(&info));
  EXPECT_LE(Log()[Log().size() - 2].size(), strlen("E -: set errFunc failed! errFunc = ") + 32);
}

TEST_F(FaultEvent, ExactlyThe31ReportedCodesSelectTheSecondEvent) {
  std::set<uint32_t> reported = {0xF0100001, 0xF0100002, 0xF0100003, 0xF0100004, 0xFFFF2000,
                                 0xFFFF3001, 0xFFFF300F, 0xFFFF3024, 0xFFFF3041, 0xFFFF3071,
                                 0xFFFF3072, 0xFFFF5000, 0xFFFF5001};
  for (uint32_t code = 0xFFFF0000; code <= 0xFFFF0011; ++code) reported.insert(code);
  ASSERT_EQ(31u, reported.size());
  const auto check = [&](uint32_t code) {
    ASSERT_EQ(reported.count(code), static_cast<size_t>(CheckReportedErrCode(code))) << code;
  };
  for (uint32_t low = 0; low <= 0xFFFF; ++low) {
    for (const uint32_t high : {0u, 0xF0100000u, 0xF0110000u, 0xFFFE0000u, 0xFFFF0000u}) {
      check(high | low);
    }
  }
  for (const uint32_t code : reported) {
    platform().ClearRecords();
    Report(2, code, {});
    Report(2, 0x77, ErrorRecord(code, 0, 0, {}));
    Report(2, code, ErrorRecord(0x77, 0, 0, {}));
    EXPECT_EQ(0u, Events()[0].find("38074f1c ")) << code;
    EXPECT_EQ(0u, Events()[1].find("38074f1c ")) << code;
    EXPECT_EQ(0u, Events()[2].find("3808d171 ")) << code;
  }
}

TEST_F(FaultEvent, WatchdogCallbackArchivesTheTeeLog) {
  const struct {
    Call call;
    int nth;
    const char* log;
    Lines events;
  } cases[] = {
      {Call::kSendEvent, 0, "E KeyMaster: teeos log is uploaded!\n", {"35b43313 #0=teeos sent"}},
      {Call::kCreateEvent, 1, "E KeyMaster: create teeos eventobj failed\n", {}},
      {Call::kSetParam, 1, "E KeyMaster: qavix_set_param failed\n", {"35b43313 dropped"}},
      {Call::kSendEvent,
       1,
       "E KeyMaster: qavix send event failed\n",
       {"35b43313 #0=teeos dropped"}},
  };
  for (const auto& c : cases) {
    platform().ClearRecords();
    ClearFaults();
    FailCall(c.call, c.nth);
    TeeosLogExceptionArchive(nullptr);
    EXPECT_EQ(Lines{c.log}, Log());
    EXPECT_EQ(c.events, Events());
  }
}

}  // namespace
}  // namespace test
