// The TEE context, the open of a session, the TA's error record, and commands on several threads.
// The TEE client's header first: only behind it is ObtainTaErrorCode declared.
// clang-format off
#include <tee_client_api.h>
#include <keymaster_ts.h>
// clang-format on
#include <string.h>

#include <thread>

#include "tests/platform/keymaster_test.h"

namespace test {
namespace {

using Session = KeymasterTest;
using ErrorRecord = KeymasterTest;
using Context = KeymasterTest;

TEST_F(Session, OpensToTheKeymasterTa) {
  EXPECT_EQ(0u, TeeAbort(1));
  ASSERT_EQ(1u, platform().opens.size());
  const Opened& opened = platform().opens[0];
  TEEC_UUID uuid;
  memset(&uuid, 7, sizeof(uuid));
  EXPECT_EQ(0, memcmp(&uuid, &opened.uuid, sizeof(uuid)));
  EXPECT_EQ(7u, opened.method);
  EXPECT_EQ(nullptr, opened.connection_data);
  TEEC_Operation operation;
  memset(&operation, 0, sizeof(operation));
  operation.started = 1;
  operation.paramTypes = 0x5512;
  EXPECT_EQ(0, memcmp(&operation, &opened.operation, sizeof(operation)));
}

TEST_F(Session, AnOverrunIsArchivedAndTheCommandGoesOn) {
  platform().On(11, [](const Invocation&) {
    const Bracket bracket = platform().brackets.back();
    bracket.callback(bracket.arg);
    return Reply::Fail(0xFFFF0005);
  });
  EXPECT_EQ(0xFFFF0005, TeeAbort(1));
  EXPECT_EQ(Lines{"35b43313 #0=teeos sent"}, Events());
}

TEST_F(Session, EachThreadHasItsOwn) {
  platform().On(
      8, [](const Invocation& seen) { return Reply::Ok().Value(3, seen.params[3].value.a, 1); });
  const auto work = [](uint32_t first) {
    const uint8_t key[4] = {};
    for (uint32_t i = first; i < first + 50; ++i) {
      uint8_t out[16];
      uint32_t out_len = sizeof(out);
      uint64_t handle = 0;
      EXPECT_EQ(0u, TeeBegin(i, nullptr, 0, key, 4, out, &out_len, &handle));
      EXPECT_EQ((uint64_t{1} << 32) + i, handle);
    }
  };
  std::vector<std::thread> threads;
  for (uint32_t i = 0; i < 4; ++i) threads.emplace_back(work, 1000 * i);
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(200u, platform().opens.size());
}

TEST_F(ErrorRecord, IsReportedOnlyWhenTheTaGaveOne) {
  const std::string begin = "I KeyMaster: ObtainTaErrorCode begin!!!";
  const std::string sent = "I -: KeyMaster Dfx uploadBigdata success.";
  const Bytes longest = Cat({Le32(7), Le32(8), Le32(2), Text("fn"), Bytes(1010)});
  const std::string event =
      "3808d171 RET=7 CMD_ID=6 LINE=8 FUNC=fn TAINFO= CAINFO=KEYMASTER_TS sent";
  const struct {
    uint32_t result;
    Reply reply;
    Call failing;
    int nth;
    bool asked;
    Lines log, events;
  } cases[] = {
      {5, Reply::Ok().Out(0, longest), Call::kMalloc, 0, true, {sent}, {event}},
      {5,
       Reply::Ok().Out(0, Bytes(longest.begin(), longest.begin() + 14)),
       Call::kMalloc,
       0,
       true,
       {sent},
       {event}},
      {5, Reply::Ok(), Call::kMalloc, 0, true, {}, {}},
      {5, Reply::Ok().Out(0, longest).Size(0, 0), Call::kMalloc, 0, true, {}, {}},
      {5,
       Reply::Ok().Out(0, longest).Size(0, 1025),
       Call::kMalloc,
       0,
       true,
       {"E -:  error_len is to long -- len = 1025 ", "E -: TaErrDataAnalyze is falied"},
       {}},
      {5,
       Reply::Fail(0xFFFF0008).Out(0, longest),
       Call::kMalloc,
       0,
       true,
       {"E KeyMaster: ObtainTaErrorCode return failed error code = -65528"},
       {}},
      {0xFFFF3024,
       Reply::Ok().Out(0, longest),
       Call::kMalloc,
       0,
       false,
       {sent},
       {"38074f1c RET=-53212 CMD_ID=6 LINE=0 FUNC= TAINFO= CAINFO=KEYMASTER_TS sent"}},
      {5, Reply::Ok(), Call::kMalloc, 1, false, {"E KeyMaster: taErrInfo malloc failed!!!"}, {}},
      {5, Reply::Ok(), Call::kMemsetS, 1, false, {"E KeyMaster: taErrInfo memset_s failed!!!"}, {}},
      {5,
       Reply::Ok(),
       Call::kMemsetS,
       2,
       false,
       {"E KeyMaster: ObtainTaErrorCode memset_s operation failed!!!"},
       {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    platform().ClearRecords();
    const uint8_t bytes[4] = {};
    uint8_t out[8];
    uint32_t out_len = 8;
    // The faults count from the failed command on, past its own session and operation.
    platform().On(6, [&](const Invocation&) {
      FailCall(c.failing, c.nth);
      return Reply::Fail(c.result);
    });
    platform().On(66, [&](const Invocation& seen) {
      const SeenParam& p = seen.params[0];
      const uint8_t* buffer = static_cast<const uint8_t*>(p.buffer);
      EXPECT_EQ(6u, seen.param_types);
      EXPECT_EQ(1024u, p.size);
      EXPECT_EQ(Bytes(1024), Bytes(buffer, buffer + 1024));
      EXPECT_EQ(0u, seen.session);
      return c.reply;
    });
    EXPECT_EQ(c.result, TeeAttestKey(bytes, 4, bytes, 4, out, &out_len));
    ClearFaults();
    EXPECT_EQ(c.asked ? 2u : 1u, Commands().size());
    EXPECT_EQ(c.events, Events());
    Lines log = Log();
    ASSERT_GE(log.size(), 4u);
    EXPECT_EQ(begin, log[3]);
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
  std::string text = CaptureStdout([] { EXPECT_EQ(0u, Ts_Finishcontext()); });
  EXPECT_EQ("", text);
  text = CaptureStdout([] { EXPECT_EQ(0xFFFF0006, Ts_Finishcontext()); });
  EXPECT_EQ("unexpected NULL!\n", text);
  EXPECT_EQ("finalize, init, finalize", Journal());
  EXPECT_EQ(Lines(), Log());
}

TEST_F(Context, AFailedInitLeavesNone) {
  const struct {
    Call call;
    uint32_t result;
    const char *journal, *log;
  } cases[] = {{Call::kMalloc, 0xFFFF000C, "finalize", "E KeyMaster: memory allocation failed!\n"},
               {Call::kInitContext, kInjectedTeeError, "finalize, init",
                "E KeyMaster: Initialize TEE context failed, ret=0xffff000e\n"}};
  for (const auto& c : cases) {
    EXPECT_EQ(0u, Ts_Initcontext());
    platform().ClearRecords();
    FailCall(c.call, 1);
    EXPECT_EQ(c.result, Ts_Initcontext());
    EXPECT_EQ(c.journal, Journal());
    EXPECT_EQ(0u, platform().live_contexts);
    EXPECT_EQ(0xFFFF0006, TeeAbort(1));
    EXPECT_EQ((Lines{c.log, "E KeyMaster: [error] : invalid parameters"}), Log());
    EXPECT_EQ(0xFFFF0006, Ts_Finishcontext());
  }
}

}  // namespace
}  // namespace test
