// The TEE client as a border: what passes it, in which direction, and when; with the TA in a
// process of its own, and in the caller's.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
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
    EXPECT_EQ(client.Run(kPass, {row.type, Str(8, 0x11)}, Value(row.seen, row.ta_size),
                         Value(row.ta_result)),
              row.result);
    EXPECT_EQ(client.origin, row.origin);
    EXPECT_EQ(client.slots[0].capacity, row.size);
    EXPECT_EQ(client.whole[0], Str(row.copied, 0x22) + Str(8 - row.copied, 0x11));
  }
}

TEST_P(InEitherHost, ValuesPassByDirection) {
  Client client;
  const std::pair<uint32_t, uint32_t> kCases[] = {
      {TEEC_VALUE_INPUT, 5}, {TEEC_VALUE_OUTPUT, 1}, {TEEC_VALUE_INOUT, 6}};
  for (const auto& [type, after] : kCases) {
    EXPECT_EQ(client.Run(kPass, {}, {}, {}, Value(5, 9, type)), 0u);
    EXPECT_EQ(client.slots[3].a, after);
    EXPECT_EQ(client.slots[3].b, type == TEEC_VALUE_OUTPUT ? 0u : 9u);
  }
}

TEST_P(InEitherHost, RejectsWhatIsNoCommandAndHandlesThatAreNotAlive) {
  Client client;
  const auto invoke = [&client](uint32_t types, uint32_t size, uint32_t started = 1) {
    TEEC_Operation operation = {started, types, {}, nullptr, 0};
    operation.params[0].tmpref.size = size;
    return TEEC_InvokeCommand(&client.session, kFill, &operation, &client.origin);
  };
  for (const uint32_t types : {0x4u, 0x8u, 0xC000u, 0x10000u, 0x5u, 0x6u, 0x7u}) {
    EXPECT_EQ(invoke(types, types > 4 && types < 8 ? 1 : 0), TEEC_ERROR_BAD_PARAMETERS) << types;
    EXPECT_EQ(client.origin, TEEC_ORIGIN_API);
  }
  EXPECT_EQ(invoke(0x0765, 0), 0u);
  EXPECT_EQ(invoke(0x0765, 0, 0), TEEC_ERROR_BAD_PARAMETERS);

  TEEC_Session stale = client.session;
  TEEC_CloseSession(&client.session);
  client.session = stale;
  TEEC_CloseSession(&stale);
  EXPECT_EQ(client.Run(kFill), TEEC_ERROR_BAD_STATE);

  TEEC_Session session = {};
  TEEC_UUID unknown = kTestApp;
  unknown.clockSeqAndNode[7] ^= 1;
  EXPECT_EQ(client.Open(&session, unknown), TEEC_ERROR_ITEM_NOT_FOUND);
  EXPECT_EQ(client.origin, TEEC_ORIGIN_TEE);
  EXPECT_EQ(client.Open(&session, kTestApp, 3), TEEC_ERROR_NOT_SUPPORTED);
  EXPECT_EQ(client.Open(nullptr), TEEC_ERROR_BAD_PARAMETERS);
  TEEC_Operation refused = {1, TEEC_VALUE_INPUT << 4, {}, nullptr, 0};
  refused.params[1].value.a = 0x8000BEEF;
  for (int open = 0; open < 65; ++open) {  // a refused one takes no place
    EXPECT_EQ(client.Open(&session, kTestApp, 7, &refused), 0x8000BEEF);
  }
  EXPECT_EQ(client.origin, TEEC_ORIGIN_TRUSTED_APP);

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

// Sessions of all sizes on more threads than connections are kept for, failing and not.
TEST_P(InEitherHost, NoSessionMeetsTheBytesOfAnother) {
  Client keeps_the_worker;
  std::vector<std::future<void>> threads;
  for (uint32_t thread = 0; thread < 12; ++thread) {
    threads.push_back(std::async(std::launch::async, [thread] {
      for (uint32_t size = 2 + thread; size < (3u << 20); size = 16 * size + thread) {
        Client client;
        const Str text(size, static_cast<char>('a' + thread));
        EXPECT_EQ(client.Run(kEcho, In(text), Out(size - 1)), TEEC_ERROR_GENERIC);
        EXPECT_EQ(client.Run(kEcho, In(text), Out(size + thread)), 0u);
        EXPECT_TRUE(client.slots[1].out == text && client.slots[0].out == text);
      }
    }));
  }
  for (auto& thread : threads) {
    thread.get();
  }
}

TEST_P(InEitherHost, SessionsMeetUpToABoundAndTheCallsOfOneTakeTurns) {
  constexpr uint32_t kThreads = 16;
  Client client;
  std::vector<std::future<void>> threads;
  for (uint32_t i = 0; i < kThreads; ++i) {
    threads.push_back(std::async(std::launch::async, [&client] {
      Client own;
      EXPECT_EQ(own.Run(kMeet, {}, Value(kThreads)), 0u);
      for (int call = 0; call < 20; ++call) {
        EXPECT_EQ(own.RunOn(&client.session, kFill, {Out(8)}), 0u);
      }
    }));
  }
  for (auto& thread : threads) {
    thread.get();
  }
  EXPECT_EQ(Children().size(), GetParam() == Str("process") ? 1u : 0u);
  TEEC_Session session = {};
  for (int open = 1; open < 64; ++open) {
    ASSERT_EQ(client.Open(&session), 0u);
  }
  TEEC_Session refused = {};
  EXPECT_EQ(client.Open(&refused), TEEC_ERROR_BUSY);
  TEEC_CloseSession(&session);
  EXPECT_EQ(client.Open(&session), 0u);
}

TEST_F(TeeClientTest, FaultPlansBendWhatTheCallerSees) {
  constexpr uint32_t kOom = TEEC_ERROR_OUT_OF_MEMORY;
  struct {
    const char* plan;
    uint32_t results[3], size;  // the size after the first call
    int least_ms;
  } const kCases[] = {
      {"cmd=1,code=0xFFFF000C", {kOom, 0, 0}, 8, 0},
      {"cmd=2,code=0xFFFF000C", {0, 0, 0}, 5, 0},
      {"cmd=1,times=2,nth=2,code=0xFFFF000C", {0, kOom, kOom}, 5, 0},
      {"cmd=1,delay=60", {0, 0, 0}, 5, 60},
      {"cmd=1,length=7", {0, 0, 0}, 7, 0},
      {"cmd=1,length=9", {kShort, 0, 0}, 9, 0},
      {"cmd=1,length=9,lie=1", {0, 0, 0}, 9, 0},
      {"cmd=1,garbage=1,times=3", {0, 0, 0}, 8, 0},
      {"cmd=1,crash=1", {kDead, kDead, kDead}, 8, 0},
  };
  for (const auto& row : kCases) {
    SCOPED_TRACE(row.plan);
    Client client;
    setenv("TEE_FAULT", row.plan, 1);
    const auto start = std::chrono::steady_clock::now();
    for (const uint32_t& result : row.results) {
      EXPECT_EQ(client.Run(kFill, Out(8)), result);
      EXPECT_TRUE(&result != row.results || client.slots[0].capacity == row.size);
      const bool is_random = client.slots[0].out.compare(0, 5, Str(5, 0x22)) != 0;
      EXPECT_EQ(is_random && result == 0, strstr(row.plan, "garbage") != nullptr);
    }
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(row.least_ms));
  }
}

TEST_F(TeeClientTest, AWordThatIsNotUnderstoodEndsTheProcess) {
  Client client;
  UseHost("caller");
  const struct {
    const char *variable, *text, *word;
  } kCases[] = {
      {"TEE_FAULT", "cmd=1;code=1", "cmd=1;code=1"},
      {"TEE_FAULT", "cmd=1,code=4294967296", "code=4294967296"},
      {"TEE_FAULT", "code=1,cmd=1", "code=1"},
      {"TEE_FAULT", "cmd=1", "cmd=1"},
      {"TEE_TRACE", "secret", "secret"},
      {"TEE_HOST", "proces", "proces"},
  };
  for (const auto& row : kCases) {
    const auto use = [&] {
      setenv(row.variable, row.text, 1);
      client.Open(&client.session);
      client.Run(kFill);
    };
    EXPECT_EXIT(use(), testing::ExitedWithCode(2),
                "^tee: " + Str(row.variable) + ": \"" + row.word + "\" is not understood");
  }
}

// What the client says on standard error of a command, without its duration.
Str TraceOf(Client* client, const char* level, uint32_t command, const std::vector<Slot>& slots) {
  setenv("TEE_TRACE", level, 1);
  testing::internal::CaptureStderr();
  client->RunOn(&client->session, command, slots);
  unsetenv("TEE_TRACE");
  Str shown = testing::internal::GetCapturedStderr();
  const size_t time = shown.find(", ", shown.find(") result"));
  return time == Str::npos ? shown : shown.erase(time, shown.find(" us", time) + 3 - time);
}

TEST_F(TeeClientTest, TraceNamesWhatItMayShow) {
  Client client;
  const Str key = Wire({{KM_TAG_APPLICATION_ID, Str("app")},
                        {KM_TAG_ATTESTATION_CHALLENGE, Str("c")},
                        {KM_TAG_KEY_SIZE, 256}});
  const Str command =
      "tee: command 4 ImportKey (MEMREF_TEMP_INPUT 60 00000000030000005902009000000000.., "
      "MEMREF_TEMP_INPUT 33, MEMREF_TEMP_OUTPUT 9->9, VALUE_INOUT 0x1,0x2->0x1,0x2) "
      "result 0xffff000a from TA\n";
  const Str label = "tee:   params[0] list 2: ";
  const Str id = label + "APPLICATION_ID (0x90000259) = 3 bytes";
  const Str rest = "\n" + label + "ATTESTATION_CHALLENGE (0x900002c4) = 1 bytes 63\n" + label +
                   "KEY_SIZE (0x30000003) = 256\n";
  const std::vector<Slot> slots = {In(key), In(Str(33, 'A')), Out(9),
                                   Value(1, 2, TEEC_VALUE_INOUT)};
  const std::pair<const char*, Str> kCases[] = {{"0", ""},
                                                {"1", command},
                                                {"params", command + id + rest},
                                                {"secrets", command + id + " 617070" + rest}};
  for (const auto& [level, shown] : kCases) {
    EXPECT_EQ(TraceOf(&client, level, kCmdImportKey, slots), shown);
  }
  // A full one has all inputs before the command, and all outputs after it.
  Str line(64, '4');
  for (size_t i = 1; i < line.size(); i += 2) {
    line[i] = '1';
  }
  const Str full = TraceOf(&client, "full", kCmdImportKey, slots);
  EXPECT_EQ(full.find("tee: command 4 ImportKey\ntee:   params[0] in 0000: 0000000003"), 0u)
      << full;
  const Str end =
      "\ntee:   params[1] in 0000: " + line + "\ntee:   params[1] in 0020: 41\n" + command;
  EXPECT_NE(full.find(end), Str::npos) << full;
  EXPECT_NE(
      TraceOf(&client, "full", kFill, {Out(8)}).find("\ntee:   params[0] out 0000: 2222222222\n"),
      Str::npos);
  // Every way of cutting a list short, or of pointing out of it, is said and not followed.
  for (size_t size = 1; size < key.size(); ++size) {
    const Str shown = TraceOf(&client, "secrets", kCmdImportKey, {In(key.substr(0, size))});
    EXPECT_NE(shown.find(size < 56 ? "no list" : "outside"), Str::npos) << shown;
  }
}

}  // namespace
