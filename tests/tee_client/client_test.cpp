// The TEE client as a border: what passes it, in which direction, and when; with the TA in a
// process of its own, and in the caller's.
#include <gtest/gtest.h>

#include <future>

#include "tests/tee_client/tee_client_test.h"

namespace {

struct InEitherHost : TeeClientTest, testing::WithParamInterface<const char*> {
  void SetUp() override {
    TeeClientTest::SetUp();
    UseHost(GetParam());
  }
};
INSTANTIATE_TEST_SUITE_P(Hosts, InEitherHost, testing::Values("process", "caller"),
                         [](const auto& host) { return Str(host.param); });

TEST_P(InEitherHost, MemoryPassesByDirectionCapacityAndResult) {
  constexpr uint32_t kIn = TEEC_MEMREF_TEMP_INPUT, kOut = TEEC_MEMREF_TEMP_OUTPUT,
                     kInOut = TEEC_MEMREF_TEMP_INOUT, kTaError = 0x8000BEEF, kTee = TEEC_ORIGIN_TEE,
                     kTa = TEEC_ORIGIN_TRUSTED_APP;
  struct {
    uint32_t type, ta_result, ta_size;
    uint8_t seen;  // by the TA
    uint32_t result, origin, size, copied;
  } const kCases[] = {
      {kIn, 0, 3, 0x11, 0, kTa, 8, 0},
      {kOut, 0, 3, 0, 0, kTa, 3, 3},
      {kOut, 0, 8, 0, 0, kTa, 8, 8},
      {kInOut, 0, 0, 0x11, 0, kTa, 0, 0},
      {kInOut, 0, 9, 0x11, kShort, kTee, 9, 0},
      {kOut, kShort, 99, 0, kShort, kTa, 99, 0},
      {kOut, kTaError, 3, 0, kTaError, kTa, 8, 0},
  };
  Client client;
  for (const auto& row : kCases) {
    SCOPED_TRACE(&row - kCases);
    EXPECT_EQ(
        client.Run(kPass,
                   {{row.type, Str(8, 0x11)}, Value(row.seen, row.ta_size), Value(row.ta_result)}),
        row.result);
    EXPECT_EQ(client.origin, row.origin);
    EXPECT_EQ(client.slots[0].capacity, row.size);
    EXPECT_EQ(client.slots[0].out, Str(row.copied, 0x22) + Str(8 - row.copied, 0x11));
  }
}

TEST_P(InEitherHost, RejectsWhatIsNoCommandAndHandlesThatAreNotAlive) {
  Client client;
  TEEC_Operation bad = {1, 0, {{{nullptr, 1}}}, nullptr, 0};
  for (const uint32_t types : {0x5u, 0x6u, 0x7u, 0x8u, 0x40u, 0xC000u, 0x10000u}) {
    bad.paramTypes = types;
    EXPECT_EQ(TEEC_InvokeCommand(&client.session, kFill, &bad, nullptr), TEEC_ERROR_BAD_PARAMETERS)
        << types;
  }
  TEEC_Session closed = client.session;
  TEEC_CloseSession(&client.session);
  client.session = closed;
  TEEC_CloseSession(&closed);
  EXPECT_EQ(client.Run(kFill), TEEC_ERROR_BAD_STATE);

  TEEC_UUID unknown = kTestApp;
  unknown.clockSeqAndNode[7] ^= 1;
  EXPECT_EQ(client.Open(&client.session, unknown), TEEC_ERROR_ITEM_NOT_FOUND);
  // Sessions are open up to a bound, to which those that the TA rejects do not count.
  TEEC_Operation rejected = {1, TEEC_VALUE_INPUT << 4, {{}, {{nullptr, 0}}}, nullptr, 0};
  rejected.params[1].value.a = 0x8000BEEF;
  TEEC_Session session = {}, beyond = {};
  for (int open = 0; open < 64; ++open) {
    EXPECT_EQ(client.Open(&beyond, kTestApp, &rejected), 0x8000BEEF);
    EXPECT_EQ(client.Open(&session), 0u);
  }
  EXPECT_EQ(client.Open(&beyond), TEEC_ERROR_BUSY);
  TEEC_CloseSession(&session);
  EXPECT_EQ(client.Open(&client.session), 0u);

  const TEEC_Context finished = client.context;
  TEEC_FinalizeContext(&client.context);
  client.context = finished;
  EXPECT_EQ(client.Run(kFill), TEEC_ERROR_BAD_STATE);
  EXPECT_EQ(client.Open(&session), TEEC_ERROR_BAD_STATE);
}

TEST_P(InEitherHost, ATaThatThrowsIsDead) {
  Client client;
  EXPECT_EQ(client.Run(kThrow), kDead);
  EXPECT_EQ(client.Run(kFill), kDead);
}

// Sessions of all sizes on more threads than connections are kept for, failing and not; and one
// that all of them use.
TEST_P(InEitherHost, NoSessionMeetsTheBytesOfAnotherAndTheCallsOfOneTakeTurns) {
  Client shared;
  std::vector<std::future<void>> threads;
  for (uint32_t thread = 0; thread < 12; ++thread) {
    threads.push_back(std::async(std::launch::async, [thread, &shared] {
      for (uint32_t size = 2 + thread; size < (3u << 20); size = 16 * size + thread) {
        Client client;
        const Str text(size, static_cast<char>('a' + thread));
        EXPECT_EQ(client.Run(kEcho, {In(text), Out(size - 1)}), TEEC_ERROR_GENERIC);
        EXPECT_EQ(client.Run(kEcho, {In(text), Out(size + thread)}), 0u);
        EXPECT_TRUE(client.slots[1].out == text + Str(thread, '?') && client.slots[0].out == text);
        for (int call = 0; call < 5; ++call) {
          EXPECT_EQ(client.Run(kFill, {Out(8)}, &shared.session), 0u);
        }
      }
    }));
  }
  threads.clear();  // waits for them
  EXPECT_EQ(Children().size(), GetParam() == Str("process") ? 1u : 0u);
}

TEST_F(TeeClientTest, FaultPlansChangeWhatTheCallerSees) {
  constexpr uint32_t kOom = TEEC_ERROR_OUT_OF_MEMORY;
  struct {
    const char* plan;
    uint32_t first, size, second, third;  // results, and the size after the first call
  } const kCases[] = {
      {"cmd=1,code=0xFFFF000C", kOom, 8, 0, 0},
      {"cmd=2,code=0xFFFF000C", 0, 5, 0, 0},
      {"cmd=1,times=2,nth=2,code=0xFFFF000C", 0, 5, kOom, kOom},
      {"cmd=1,length=7", 0, 7, 0, 0},
      {"cmd=1,length=9", kShort, 9, 0, 0},
      {"cmd=1,length=9999,lie=1", 0, 9999, 0, 0},
      {"cmd=1,garbage=1,times=3", 0, 8, 0, 0},
      {"cmd=1,crash=1", kDead, 8, kDead, kDead},
  };
  for (const auto& row : kCases) {
    SCOPED_TRACE(row.plan);
    Client client;
    setenv("TEE_FAULT", row.plan, 1);
    EXPECT_EQ(client.Run(kFill, {Out(8)}), row.first);
    EXPECT_EQ(client.slots[0].capacity, row.size);
    EXPECT_TRUE(row.first != 0 || row.size != 8 || client.slots[0].out != Str(8, 0)) << "garbage";
    EXPECT_EQ(client.Run(kFill, {Out(8)}), row.second);
    EXPECT_EQ(client.Run(kFill, {Out(8)}), row.third);
  }
}

TEST_F(TeeClientTest, AWordThatIsNotUnderstoodEndsTheProcess) {
  UseHost("caller");
  const std::pair<const char*, const char*> kCases[] = {
      {"TEE_FAULT", "cmd=1;code=1"}, {"TEE_FAULT", "cmd=4294967297,code=1"},
      {"TEE_FAULT", "code=1,cmd=1"}, {"TEE_FAULT", "cmd=1"},
      {"TEE_TRACE", "secret"},       {"TEE_HOST", "proces"}};
  for (const auto& row : kCases) {
    setenv(row.first, row.second, 1);
    EXPECT_EXIT(Client().Run(kFill), testing::ExitedWithCode(2), Str("tee: ") + row.first)
        << row.second;
    unsetenv(row.first);
  }
}

TEST_F(TeeClientTest, TheTraceShowsWhatItsLevelAllowsAndFollowsNoBrokenList) {
  Client client;
  const auto trace = [&client](const char* level, const std::vector<Slot>& slots) {
    setenv("TEE_TRACE", level, 1);
    testing::internal::CaptureStderr();
    client.Run(kCmdImportKey, slots);
    unsetenv("TEE_TRACE");
    return testing::internal::GetCapturedStderr();
  };
  const Str key = Wire({{KM_TAG_APPLICATION_ID, Str("app")}, {KM_TAG_KEY_SIZE, 256}});
  const Str id = "tee:   params[0] list 2: APPLICATION_ID (0x90000259) = 3 bytes";
  struct {
    const char* level;
    Str shown, hidden;
  } const kCases[] = {
      {"0", "", "tee:"},
      {"1", "tee: command 4 ImportKey (MEMREF_TEMP_INPUT 43 0000000002000000", "4141"},
      {"params", id + "\ntee:   params[0] list 2: KEY_SIZE (0x30000003) = 256\n", "617070"},
      {"secrets", id + " 617070\n", "4141"},
      {"full", "4141\ntee:   params[1] in 0020: 41\ntee: command 4 ", "out 0000"}};
  for (const auto& row : kCases) {
    const Str shown = trace(row.level, {In(key), In(Str(33, 'A'))});
    EXPECT_NE(shown.find(row.shown), Str::npos) << shown;
    EXPECT_EQ(shown.find(row.hidden), Str::npos) << shown;
  }
  // Every way of cutting a list short, or of pointing out of it, is said and not followed.
  for (size_t size = 1; size < key.size(); ++size) {
    const Str shown = trace("secrets", {In(key.substr(0, size))});
    EXPECT_NE(shown.find(size < 40 ? "no list" : "outside"), Str::npos) << shown;
  }
}

}  // namespace
