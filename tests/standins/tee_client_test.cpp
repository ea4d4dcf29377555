// The TEE client as a border: what passes it, in which direction, and when.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>

#include "platform/tee_client/built_in_apps.h"

namespace {

constexpr TEEC_UUID kApp = {0x01020304, 0x0506, 0x0708, {1, 2, 3, 4, 5, 6, 7, 8}};
constexpr uint32_t kTaError = 0x8000BEEF;

// The hosted TA does as the test says. Its sessions are heap blocks, so a lost one is a leak.
std::function<TEEC_Result(TaParam* params)> g_ta;

const TrustedApp kTestApp = {
    kApp,
    [](uint32_t, uint32_t, TaParam params[4], void** session) -> TEEC_Result {
      if (params[1].a != 0) return kTaError;
      *session = new std::atomic<int>(0);
      return TEEC_SUCCESS;
    },
    [](void* session) { delete static_cast<std::atomic<int>*>(session); },
    [](void* session, uint32_t, uint32_t, TaParam params[4]) -> TEEC_Result {
      auto* calls = static_cast<std::atomic<int>*>(session);
      EXPECT_EQ(++*calls, 1) << "two calls at once on one session";
      const TEEC_Result result = g_ta(params);
      --*calls;
      return result;
    }};

TEEC_Operation OperationOf(uint32_t types, void* buffer, uint32_t size) {
  TEEC_Operation operation = {};
  operation.started = 1;
  operation.paramTypes = types;
  operation.params[0].tmpref = {buffer, size};
  return operation;
}

class TeeClientTest : public testing::Test {
 protected:
  TeeClientTest() {
    g_ta = [](TaParam*) { return TEEC_SUCCESS; };
    EXPECT_EQ(TEEC_InitializeContext(nullptr, &context_), TEEC_SUCCESS);
    EXPECT_EQ(Open(&session_), TEEC_SUCCESS);
  }
  // Sessions stay open here: finalising has to reclaim them.
  ~TeeClientTest() override { TEEC_FinalizeContext(&context_); }

  TEEC_Result Open(TEEC_Session* session, uint32_t login = 7, TEEC_Operation* operation = nullptr,
                   const TEEC_UUID& app = kApp) {
    return TEEC_OpenSession(&context_, session, &app, login, nullptr, operation, &origin_);
  }
  TEEC_Result Invoke(TEEC_Operation* operation, uint32_t command = 2) {
    return TEEC_InvokeCommand(&session_, command, operation, &origin_);
  }

  TEEC_Context context_ = {};
  TEEC_Session session_ = {};
  uint32_t origin_ = 0;
};

TEST_F(TeeClientTest, MemoryPassesByDirectionCapacityAndResult) {
  constexpr uint32_t kIn = TEEC_MEMREF_TEMP_INPUT, kOut = TEEC_MEMREF_TEMP_OUTPUT,
                     kInOut = TEEC_MEMREF_TEMP_INOUT, kShort = TEEC_ERROR_SHORT_BUFFER,
                     kTee = TEEC_ORIGIN_TEE, kTa = TEEC_ORIGIN_TRUSTED_APP;
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
  for (const auto& row : kCases) {
    SCOPED_TRACE(&row - kCases);
    std::string buffer(8, 0x11);
    g_ta = [&](TaParam* params) {
      EXPECT_EQ(std::count(params[0].buffer, params[0].buffer + params[0].size, row.seen), 8);
      std::fill_n(params[0].buffer, 8, uint8_t{0x22});
      params[0].size = row.ta_size;
      return row.ta_result;
    };
    TEEC_Operation operation = OperationOf(row.type, buffer.data(), 8);
    EXPECT_EQ(Invoke(&operation), row.result);
    EXPECT_EQ(origin_, row.origin);
    EXPECT_EQ(operation.params[0].tmpref.size, row.size);
    EXPECT_EQ(buffer, std::string(row.copied, 0x22) + std::string(8 - row.copied, 0x11));
  }
}

TEST_F(TeeClientTest, ValuesPassByDirection) {
  for (const uint32_t type : {TEEC_VALUE_INPUT, TEEC_VALUE_OUTPUT, TEEC_VALUE_INOUT}) {
    g_ta = [&](TaParam* params) {
      EXPECT_EQ(params[0].a, type == TEEC_VALUE_OUTPUT ? 0u : 5u);
      params[0].b = 77;
      return TEEC_SUCCESS;
    };
    TEEC_Operation operation = OperationOf(type, nullptr, 0);
    operation.params[0].value = {5, 6};
    EXPECT_EQ(Invoke(&operation), TEEC_SUCCESS);
    EXPECT_EQ(operation.params[0].value.b, type == TEEC_VALUE_INPUT ? 6u : 77u);
  }
}

TEST_F(TeeClientTest, RefusesWhatIsNoCommandAndHandlesThatAreNotAlive) {
  for (const uint32_t types : {0x4u, 0x8u, 0xC000u, 0x10000u, 0x5u, 0x6u, 0x7u}) {
    TEEC_Operation operation = OperationOf(types, nullptr, types > 4 && types < 8 ? 1 : 0);
    EXPECT_EQ(Invoke(&operation), TEEC_ERROR_BAD_PARAMETERS) << types;
    EXPECT_EQ(origin_, TEEC_ORIGIN_API);
  }
  TEEC_Operation empty = OperationOf(0x0765, nullptr, 0);
  EXPECT_EQ(Invoke(&empty), TEEC_SUCCESS);
  empty.started = 0;
  EXPECT_EQ(Invoke(&empty), TEEC_ERROR_BAD_PARAMETERS);

  TEEC_Session stale = session_;
  TEEC_CloseSession(&session_);
  session_ = stale;
  TEEC_CloseSession(&stale);
  EXPECT_EQ(Invoke(nullptr), TEEC_ERROR_BAD_STATE);

  TEEC_UUID unknown = kApp;
  unknown.clockSeqAndNode[7] ^= 1;
  EXPECT_EQ(Open(&session_, 7, nullptr, unknown), TEEC_ERROR_ITEM_NOT_FOUND);
  EXPECT_EQ(origin_, TEEC_ORIGIN_TEE);
  EXPECT_EQ(Open(&session_, 3), TEEC_ERROR_NOT_SUPPORTED);
  EXPECT_EQ(Open(nullptr), TEEC_ERROR_BAD_PARAMETERS);
  TEEC_Operation refused = OperationOf(0x12, nullptr, 0);
  refused.params[1].value.a = 1;
  EXPECT_EQ(Open(&session_, 0, &refused), kTaError);
  EXPECT_EQ(origin_, TEEC_ORIGIN_TRUSTED_APP);

  EXPECT_EQ(Open(&session_), TEEC_SUCCESS);
  const TEEC_Context finished = context_;
  TEEC_FinalizeContext(&context_);
  context_ = finished;
  EXPECT_EQ(Invoke(nullptr), TEEC_ERROR_BAD_STATE);
  EXPECT_EQ(Open(&session_), TEEC_ERROR_BAD_STATE);
}

TEST_F(TeeClientTest, ATaThatThrowsIsDead) {
  g_ta = [](TaParam*) -> TEEC_Result { throw std::runtime_error("crash"); };
  EXPECT_EQ(Invoke(nullptr), TEEC_ERROR_TARGET_DEAD);
  g_ta = [](TaParam*) { return TEEC_SUCCESS; };
  EXPECT_EQ(Invoke(nullptr), TEEC_ERROR_TARGET_DEAD);
}

TEST_F(TeeClientTest, AFullTraceHasAllInputsBeforeTheCommandAndAllOutputsAfterIt) {
  std::string buffer(33, 'A');
  TEEC_Operation operation = OperationOf(TEEC_MEMREF_TEMP_INOUT, buffer.data(), 33);
  g_ta = [](TaParam* params) {
    (void)fputs("TA\n", stderr);
    std::fill_n(params[0].buffer, 3, uint8_t{0xFE});
    return params[0].size = 3, TEEC_SUCCESS;
  };
  setenv("TEE_TRACE", "full", 1);
  testing::internal::CaptureStderr();
  EXPECT_EQ(Invoke(&operation, 4), TEEC_SUCCESS);
  unsetenv("TEE_TRACE");
  const std::string trace = testing::internal::GetCapturedStderr();
  std::string line(64, '4');
  for (size_t i = 1; i < line.size(); i += 2) {
    line[i] = '1';
  }
  EXPECT_EQ(trace.find("tee: command 4 ImportKey\ntee:   params[0] in 0000: " + line +
                       "\ntee:   params[0] in 0020: 41\nTA\ntee: command 4 ImportKey (MEMREF_"),
            0u)
      << trace;
  EXPECT_NE(trace.find(" us\n"), std::string::npos);
  const std::string end = "\ntee:   params[0] out 0000: fefefe\n";
  EXPECT_EQ(trace.substr(trace.size() - end.size()), end) << trace;
}

using TeeClientDeathTest = TeeClientTest;

TEST_F(TeeClientDeathTest, AWordThatIsNotUnderstoodEndsTheProcess) {
  const struct {
    const char *variable, *text, *word;
  } rows[] = {
      {"TEE_FAULT", "cmd=2;code=1", "cmd=2;code=1"},
      {"TEE_FAULT", "cmd=2,lenght=1", "lenght=1"},
      {"TEE_FAULT", "cmd=2,code=-1", "code=-1"},
      {"TEE_FAULT", "cmd=2,code=4294967296", "code=4294967296"},
      {"TEE_FAULT", "code=1,cmd=2", "code=1"},
      {"TEE_FAULT", "cmd=2", "cmd=2"},
      {"TEE_TRACE", "secret", "secret"},
      {"TEE_HOST", "proces", "proces"},
  };
  for (const auto& row : rows) {
    const auto use = [&] {
      setenv(row.variable, row.text, 1);
      Invoke(nullptr);
      Open(&session_);
    };
    EXPECT_EXIT(use(), testing::ExitedWithCode(2),
                "^tee: " + std::string(row.variable) + ": \"" + row.word + "\" is not understood");
  }
  setenv("TEE_HOST", "caller", 1);
  EXPECT_EQ(Open(&session_), TEEC_SUCCESS);
  unsetenv("TEE_HOST");
}

TEST_F(TeeClientTest, SessionsRunSideBySideAndEachOneInTurn) {
  constexpr std::chrono::microseconds kShort(20);
  std::atomic<int> inside{0};
  g_ta = [&](TaParam* params) {
    if (params[0].a == 0) return std::this_thread::sleep_for(kShort), TEEC_SUCCESS;
    ++inside;
    // Sessions that kept each other out would never meet here.
    for (int wait = 0; inside < 4 && wait < 5000; ++wait) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return inside < 4 ? TEEC_ERROR_BUSY : TEEC_SUCCESS;
  };
  const auto run = [&] {
    TEEC_Session own = {};
    EXPECT_EQ(TEEC_OpenSession(&context_, &own, &kApp, 7, nullptr, nullptr, nullptr), 0u);
    TEEC_Operation operation = OperationOf(TEEC_VALUE_INPUT, nullptr, 0);
    operation.params[0].value.a = 1;
    EXPECT_EQ(TEEC_InvokeCommand(&own, 2, &operation, nullptr), TEEC_SUCCESS);
    for (int call = 0; call < 50; ++call) {
      EXPECT_EQ(TEEC_InvokeCommand(&session_, 2, nullptr, nullptr), TEEC_SUCCESS);
    }
    TEEC_CloseSession(&own);
  };
  std::array<std::thread, 4> threads;
  for (std::thread& thread : threads) {
    thread = std::thread(run);
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

}  // namespace

const TrustedApp* FindBuiltInApp(const TEEC_UUID& uuid) {
  return std::memcmp(&uuid, &kApp, sizeof(uuid)) == 0 ? &kTestApp : nullptr;
}
