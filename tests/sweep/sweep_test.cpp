// Sweeps over every request: each call that can fail fails in turn, the TA fails, the TA's replies
// come cut, bent and with lying lengths. Whatever happens, the result is one that the request may
// have, its outputs are in order, nothing leaks, no secret is left behind, and the next request
// is served.
#include <gtest/gtest.h>
#include <keymaster_ts.h>

#include <ostream>
#include <string>
#include <vector>

#include "tests/platform/faults.h"
#include "tests/platform/keymaster_test.h"
#include "tests/sweep/library_hooks.h"
#include "tests/sweep/requests.h"

// Present in builds with the leak sanitizer only.
extern "C" __attribute__((weak)) int __lsan_do_recoverable_leak_check();

namespace test {

// For GoogleTest's messages.
void PrintTo(const Request& request, std::ostream* out) { *out << request.name; }

namespace {

struct Result {
  int32_t code;
  State state;
};

// Kind is a call that can be made to fail, and what a request may then return.
struct Kind {
  std::string name;
  std::function<void(int nth, bool and_later)> fail;
  std::function<int()> count;
  std::function<Codes(const Request&)> codes;
};

Kind PlatformKind(const char* name, Call call, std::function<Codes(const Request&)> codes) {
  return {name, [call](int nth, bool and_later) { FailCall(call, nth, and_later); },
          [call] { return CallCount(call); }, std::move(codes)};
}

std::vector<Kind> Kinds() {
  const auto allocation = [](const Request& r) { return r.outcomes.allocation; };
  const auto copy = [](const Request& r) { return r.outcomes.copy; };
  const auto clear = [](const Request& r) { return r.outcomes.clear; };
  const auto crypto = [](const Request& r) { return r.outcomes.crypto; };
  const auto event = [](const Request& r) { return r.event; };
  const auto tee = [](const Request& r) {
    return r.tee.empty() ? Codes{static_cast<int32_t>(kInjectedTeeError)} : r.tee;
  };
  std::vector<Kind> kinds = {
      PlatformKind("malloc", Call::kMalloc, allocation),
      PlatformKind("memcpy_s", Call::kMemcpyS, copy),
      PlatformKind("memset_s", Call::kMemsetS, clear),
      PlatformKind("TEEC_InitializeContext", Call::kInitContext, tee),
      PlatformKind("TEEC_OpenSession", Call::kOpenSession, tee),
      PlatformKind("TEEC_InvokeCommand", Call::kInvoke, tee),
      PlatformKind("qavix_create_eventobj", Call::kCreateEvent, event),
      PlatformKind("qavix_set_param_integer_v2", Call::kSetInteger, event),
      PlatformKind("qavix_set_param_string_v2", Call::kSetString, event),
      PlatformKind("qavix_set_param", Call::kSetParam, event),
      PlatformKind("qavix_send_event", Call::kSendEvent, event),
  };
  for (size_t i = 0; i < CryptoCalls().size(); ++i) {
    kinds.push_back({CryptoCalls()[i],
                     [i](int nth, bool and_later) { FailCrypto(i, nth, and_later); },
                     [i] { return CryptoCount(i); }, crypto});
  }
  return kinds;
}

class Sweep : public ::testing::TestWithParam<Request> {
 protected:
  void SetUp() override {
    HookLibrary();
    platform().Reset();
    InstallTa();
    ta() = TaScript();
    ASSERT_EQ(0u, Ts_Initcontext());
    WatchFixtureSecrets();
    ta().record = &answers_;
    baseline_ = Run();
    ta().record = nullptr;
    ASSERT_EQ(0, baseline_.code);
  }
  void TearDown() override {
    ForgetSecrets();
    if (platform().live_contexts > 0) Ts_Finishcontext();
    EXPECT_EQ(0u, LiveBlocks());
    platform().Reset();
    if (__lsan_do_recoverable_leak_check != nullptr) {
      EXPECT_EQ(0, __lsan_do_recoverable_leak_check());
    }
  }

  Result Run() {
    Outputs outputs;
    ta().answers = 0;
    const int32_t code = GetParam().run(&outputs);
    const Result result = {code, Describe(outputs)};
    Release(&outputs);
    ExpectTidy();
    return result;
  }

  void ExpectTidy() {
    EXPECT_EQ(Lines(), platform().problems);
    for (const Opened& opened : platform().opens) EXPECT_FALSE(opened.open);
    for (const Bracket& bracket : platform().brackets) EXPECT_TRUE(bracket.ended) << bracket.label;
    for (const Event& event : platform().events) EXPECT_TRUE(event.destroyed) << event.params;
    // The library keeps nothing but its TEE context.
    EXPECT_EQ(platform().live_contexts, LiveBlocks()) << "leaked";
    EXPECT_EQ(Lines(), Unwiped()) << "freed with a secret in it";
    platform().ClearRecords();
  }

  void ExpectServesNext() {
    if (platform().live_contexts == 0) {
      EXPECT_EQ(0u, Ts_Initcontext());
    }
    const Result next = Run();
    EXPECT_EQ(baseline_.code, next.code);
    EXPECT_EQ(baseline_.state, next.state);
  }

  void ExpectOutcome(const Result& result, const Codes& codes) {
    EXPECT_TRUE(codes.count(result.code) != 0)
        << "returned " << result.code << " = 0x" << std::hex << result.code;
    const std::string& left = GetParam().left;
    for (const auto& [letter, state] : result.state) {
      const size_t at = left.find(std::string{letter, ':'});
      const std::string allowed =
          at == std::string::npos ? "u" : left.substr(at + 2, left.find(' ', at) - at - 2);
      EXPECT_NE("x", state) << "output " << letter;
      if (result.code != 0) {
        EXPECT_TRUE(allowed.find(state[0]) != std::string::npos)
            << "output " << letter << " left as " << state << ", may be " << allowed;
      }
    }
  }

  // Fails one kind of call, first its first, then its second and so on, while the rest of the
  // scenario stays the same. Returns how many failures it met.
  int FailEach(const Kind& kind, bool and_later, Codes also) {
    Codes codes = kind.codes(GetParam());
    codes.merge(also);
    for (int nth = 1;; ++nth) {
      SCOPED_TRACE(kind.name + " " + std::to_string(nth) + (and_later ? " and later" : ""));
      kind.fail(nth, and_later);
      const int failing = ta().failing;
      const Result result = Run();
      const bool hit = kind.count() >= nth;
      kind.fail(0, false);
      if (!hit) return nth - 1;
      ExpectOutcome(result, codes);
      ta().failing = -1;
      ExpectServesNext();
      ta().failing = failing;
      if (HasFailure()) return nth;
    }
  }

  int FailEachKind(const Codes& also) {
    int hits = 0;
    for (const Kind& kind : Kinds()) {
      for (const bool and_later : {false, true}) hits += FailEach(kind, and_later, also);
    }
    return hits;
  }

  // Runs once with each way in which the TA may bend its answer.
  void Bend(int answer, const std::function<void(Reply*)>& bend) {
    ta().bent = answer;
    ta().bend = bend;
    Codes codes = GetParam().outcomes.reply;
    codes.insert(baseline_.code);
    ExpectOutcome(Run(), codes);
    ta().bent = -1;
  }

  Result baseline_;
  std::vector<Answer> answers_;
};

TEST_P(Sweep, EveryCallFails) {
  const int hits = FailEachKind({});
  EXPECT_TRUE(hits > 0 || GetParam().name == "WithoutTheTa") << "nothing ever failed";
}

TEST_P(Sweep, TheTaFailsAndThenEveryCall) {
  const Codes ta_error =
      GetParam().tee.empty() ? Codes{static_cast<int32_t>(kTaError)} : GetParam().tee;
  for (size_t i = 0; i < answers_.size(); ++i) {
    SCOPED_TRACE("the TA fails command " + std::to_string(answers_[i].command));
    ta().failing = static_cast<int>(i);
    ExpectOutcome(Run(), ta_error);
    if (HasFailure()) return;
    FailEachKind(ta_error);
    ta().failing = -1;
    ExpectServesNext();
  }
}

TEST_P(Sweep, RepliesAreCutBentAndMismeasured) {
  for (size_t i = 0; i < answers_.size(); ++i) {
    for (const auto& [param, bytes] : answers_[i].written) {
      SCOPED_TRACE("command " + std::to_string(answers_[i].command) + ", params[" +
                   std::to_string(param) + "]");
      const int answer = static_cast<int>(i);
      const int index = param;
      const auto full = static_cast<uint32_t>(bytes.size());
      for (uint32_t length = 0; length <= full; ++length) {
        SCOPED_TRACE("cut at " + std::to_string(length));
        const Bytes cut(bytes.begin(), bytes.begin() + length);
        Bend(answer, [&](Reply* reply) { reply->Out(index, cut); });
      }
      for (size_t at = 0; at + 4 <= full; at += 4) {
        for (const uint32_t value : {0u, 1u, full - 1, full + 1, 1u << 31, 0xFFFFFFFFu}) {
          SCOPED_TRACE("value " + std::to_string(value) + " at " + std::to_string(at));
          Bytes changed = bytes;
          for (size_t b = 0; b < 4; ++b) changed[at + b] = static_cast<uint8_t>(value >> (8 * b));
          Bend(answer, [&](Reply* reply) { reply->Out(index, changed); });
        }
      }
      for (const uint32_t size : {answers_[i].capacity[param] + 1, 1u << 31, 0xFFFFFFFFu}) {
        SCOPED_TRACE("reported length " + std::to_string(size));
        Bend(answer, [&](Reply* reply) { reply->Size(index, size); });
      }
    }
  }
  ExpectServesNext();
}

INSTANTIATE_TEST_SUITE_P(Requests, Sweep, ::testing::ValuesIn(Requests()),
                         [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace test
