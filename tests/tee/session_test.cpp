// The TEE context, the open of a session, and the TA's error record.
// The TEE client's header first: only behind it is ObtainTaErrorCode declared.
// clang-format off
#include <tee_client_api.h>
#include <keymaster_ts.h>
// clang-format on
#include <string.h>

#include "tests/platform/keymaster_test.h"

namespace test {
namespace {

using Session = KeymasterTest;
using ErrorRecord = KeymasterTest;
using Context = KeymasterTest;

TEST_F(Session, OpensToTheKeymasterTaAndOutlastsAnOverrun) {
  platform().On(11, [](const Invocation&) {
    const Bracket bracket = platform().brackets.back();
    bracket.callback(bracket.arg);
    return Reply::Fail(0xFFFF0005);
  });
  EXPECT_EQ(0xFFFF0005, TeeAbort(1));
  EXPECT_EQ(Lines{"35b43313 #0=teeos sent"}, Events());
  const Opened& opened = platform().opens.at(0);
  const Bytes uuid(16, 7);
  EXPECT_EQ(0, memcmp(uuid.data(), &opened.uuid, 16));
  EXPECT_EQ(7u, opened.method);
  EXPECT_EQ(nullptr, opened.connection_data);
  TEEC_Operation operation;
  memset(&operation, 0, sizeof(operation));
  operation.started = 1;
  operation.paramTypes = 0x5512;
  EXPECT_EQ(0, memcmp(&operation, &opened.operation, sizeof(operation)));
}

TEST_F(ErrorRecord, IsReportedOnlyWhenTheTaGaveOne) {
  const std::string begin = "I KeyMaster: ObtainTaErrorCode begin!!!", tag = "E KeyMaster: ";
  const Lines sent = {"I -: KeyMaster Dfx uploadBigdata success."};
  const Lines too_long = {"E -:  error_len is to long -- len = 1025 ",
                          "E -: TaErrDataAnalyze is falied"};
  const std::string rest = " TAINFO= CAINFO=KEYMASTER_TS sent";
  const Reply longest =
      Reply::Ok().Out(0, Cat({Le32(7), Le32(8), Le32(2), Text("fn"), Bytes(1010)}));
  const Reply none = Reply(longest).Size(0, 0), refused = Reply::Fail(0xFFFF0008).Out(0, Bytes(14));
  const struct {
    uint32_t result;
    Reply reply;
    Lines log, events;
  } cases[] = {
      {5, longest, sent, {"3808d171 RET=7 CMD_ID=6 LINE=8 FUNC=fn" + rest}},
      {5, none, {}, {}},
      {5, Reply(longest).Size(0, 1025), too_long, {}},
      {5, refused, {tag + "ObtainTaErrorCode return failed error code = -65528"}, {}},
      {0xFFFF3024, none, sent, {"38074f1c RET=-53212 CMD_ID=6 LINE=0 FUNC=" + rest}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    platform().ClearRecords();
    platform().On(6, [&](const Invocation&) { return Reply::Fail(c.result); });
    platform().On(66, [&](const Invocation& seen) {
      const uint8_t* buffer = static_cast<const uint8_t*>(seen.params[0].buffer);
      EXPECT_EQ(6u, seen.param_types);
      EXPECT_EQ(1024u, seen.params[0].size);
      EXPECT_EQ(Bytes(1024), Bytes(buffer, buffer + 1024));
      EXPECT_EQ(0u, seen.session);
      return c.reply;
    });
    const uint8_t bytes[4] = {};
    uint8_t out[8];
    uint32_t out_len = 8;
    EXPECT_EQ(c.result, TeeAttestKey(bytes, 4, bytes, 4, out, &out_len));
    EXPECT_EQ(c.result == 5 ? 2u : 1u, Commands().size());
    EXPECT_EQ(c.events, Events());
    Lines log = Log();
    EXPECT_EQ(begin, log.at(3));
    EXPECT_EQ(c.log, Lines(log.begin() + 4, log.end()));
  }
  platform().ClearRecords();
  ObtainTaErrorCode(nullptr, 2, 5);
  EXPECT_EQ((Lines{begin, "I KeyMaster: ObtainTaErrorCode kmSession is NULL!!!"}), Log());
  EXPECT_EQ("", Journal());
}

TEST_F(Context, IsReplacedAndFinishedOnce) {
  EXPECT_EQ(0u, Ts_Initcontext());
  EXPECT_EQ("finalize, init", Journal());
  EXPECT_EQ(1u, platform().live_contexts);
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(0u, Ts_Finishcontext());
  EXPECT_EQ(0xFFFF0006, Ts_Finishcontext());
  EXPECT_EQ("unexpected NULL!\n", ::testing::internal::GetCapturedStdout());
  EXPECT_EQ("finalize, init, finalize", Journal());
  EXPECT_EQ(Lines(), Log());
}

TEST_F(Context, AFailedInitLeavesNone) {
  for (const Call call : {Call::kMalloc, Call::kInitContext}) {
    const bool early = call == Call::kMalloc;
    EXPECT_EQ(0u, Ts_Initcontext());
    platform().ClearRecords();
    FailCall(call, 1);
    EXPECT_EQ(early ? 0xFFFF000C : kInjectedTeeError, Ts_Initcontext());
    EXPECT_EQ(early ? "finalize" : "finalize, init", Journal());
    EXPECT_EQ(0u, platform().live_contexts);
    EXPECT_EQ(0xFFFF0006, TeeAbort(1));
    EXPECT_EQ((Lines{early ? "E KeyMaster: memory allocation failed!\n"
                           : "E KeyMaster: Initialize TEE context failed, ret=0xffff000e\n",
                     "E KeyMaster: [error] : invalid parameters"}),
              Log());
  }
}

}  // namespace
}  // namespace test
