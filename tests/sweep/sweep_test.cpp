// Sweeps over every request: each call that can fail fails in turn, the TA fails, the TA's replies
// come cut, bent and with lying lengths. Whatever happens, the result is one that the request may
// have, its outputs are in order, nothing leaks, no secret is left behind, and the next request
// is served.
#include <gtest/gtest.h>
#include <keymaster_tivas_context.h>
#include <keymaster_ts.h>

#include <algorithm>
#include <iostream>

#include "tests/platform/keymaster_test.h"
#include "tests/sweep/failures.h"
#include "tests/sweep/library_hooks.h"
#include "tests/sweep/requests.h"
#include "wire/little_endian.h"

namespace test {
namespace {

// A call that can be made to fail.
struct FailingCall {
  std::string kind;
  std::function<void(int nth, bool and_later)> fail;
  std::function<int()> count;
};

const std::vector<FailingCall>& FailingCalls() {
  // In the order of Call.
  static constexpr const char* kKinds[] = {"malloc", "memcpy_s", "memset_s", "init",
                                           "open",   "invoke",   "event",    "event",
                                           "event",  "event",    "event"};
  static_assert(std::size(kKinds) == static_cast<size_t>(Call::kEnd));
  static const std::vector<FailingCall> calls = [] {
    std::vector<FailingCall> all = {{"crypto", FailCrypto, CryptoCount}};
    for (size_t i = 0; i < std::size(kKinds); ++i) {
      const Call call = static_cast<Call>(i);
      all.push_back({kKinds[i], [call](int nth, bool and_later) { FailCall(call, nth, and_later); },
                     [call] { return CallCount(call); }});
    }
    return all;
  }();
  return calls;
}

class Sweep : public KeymasterTest, public ::testing::WithParamInterface<Request> {
 protected:
  void SetUp() override {
    HookLibrary();
    KeymasterTest::SetUp();
    InstallTa();
    for (const auto& [label, secret] : fixture().secrets) WatchFor(label, secret);
    ta() = TaScript();
    baseline_ = RunTidily();
    baseline_log_ = log_;
    ASSERT_EQ("0", baseline_['r']);
  }
  void TearDown() override {
    ForgetSecrets();
    KeymasterTest::TearDown();
    EXPECT_EQ(0u, LiveBlocks());
  }

  State RunTidily() {
    const State state = Perform(GetParam());
    EXPECT_EQ(Lines(), platform().problems);
    for (const Opened& opened : platform().opens) EXPECT_FALSE(opened.open);
    for (const Bracket& bracket : platform().brackets) EXPECT_TRUE(bracket.ended) << bracket.label;
    for (const Event& event : platform().events) EXPECT_TRUE(event.destroyed) << event.params;
    // The library keeps nothing but its TEE context.
    EXPECT_EQ(platform().live_contexts, LiveBlocks()) << "leaked";
    EXPECT_EQ(Lines(), Unwiped()) << "freed with a secret in it";
    log_ = LoggedFormats();
    platform().ClearRecords();
    return state;
  }

  void ExpectServesNext() {
    // Only a failed replacement of the context may leave none.
    if (platform().live_contexts == 0 && GetParam().name == "Initialize") {
      EXPECT_EQ(0u, Ts_Initcontext());
    }
    EXPECT_EQ(baseline_, RunTidily());
  }

  void ExpectOutcome(const State& result, const Kinds& kinds) {
    const int32_t code = std::stoi(result.at('r'));
    if (code != 0 || kinds.count("reply") == 0) {
      // What follows where the log leaves that of the request when all is well.
      const auto from =
          std::mismatch(log_.begin(), log_.end(), baseline_log_.begin(), baseline_log_.end()).first;
      EXPECT_EQ("", Documented(GetParam().name, kinds, code, Lines(from, log_.end())));
    }
    const std::string& left = GetParam().left;
    for (const auto& [letter, state] : result) {
      EXPECT_EQ(std::string::npos, state.find('x')) << "output " << letter << ": " << state;
      if (letter == 'r') continue;
      // An empty reply to an upgrade means that none is needed.
      if (code == 0 && GetParam().name != "UpgradeKey") {
        EXPECT_EQ(baseline_.at(letter) == "u", state == "u")
            << "output " << letter << ": " << state;
      }
      if (code == 0) continue;
      const size_t at = left.find(std::string{letter, ':'});
      std::string allowed =
          at == std::string::npos ? "u" : left.substr(at + 2, left.find(' ', at) - at - 2);
      // What the TEE refuses comes back before anything was made of a reply; only operations clear
      // their outputs before they ask.
      const bool refused =
          code == static_cast<int32_t>(kTaError) || code == static_cast<int32_t>(kInjectedTeeError);
      if (refused && letter != 'p' && letter != 'd') allowed = "u";
      if (refused && letter == 'p' && allowed != "u") allowed = "e";
      EXPECT_NE(std::string::npos, allowed.find(state[0]))
          << "output " << letter << " left as " << state << ", may be " << allowed;
    }
  }

  // Fails each kind of call, first its first, then its second and so on, while the rest of the
  // scenario stays the same. Returns how many failures it met.
  int FailEachCall(const Kinds& also) {
    int hits = 0;
    for (size_t i = 0; i < 2 * FailingCalls().size(); ++i) {
      const FailingCall& call = FailingCalls()[i / 2];
      const bool and_later = i % 2 != 0;
      Kinds kinds = also;
      kinds.insert(call.kind);
      for (int nth = 1;; ++nth, ++hits) {
        SCOPED_TRACE(call.kind + " " + std::to_string(nth) + (and_later ? " and later" : ""));
        call.fail(nth, and_later);
        const State result = RunTidily();
        const bool hit = call.count() >= nth;
        call.fail(0, false);
        if (!hit) break;
        ++Counts()[call.kind];
        ExpectOutcome(result, kinds);
        const int failing = std::exchange(ta().failing, -1);
        ExpectServesNext();
        ta().failing = failing;
        if (HasFailure()) return hits;
      }
    }
    return hits;
  }

  // Runs once with one of the TA's answers bent.
  void Bend(size_t answer, const Kinds& kinds, const std::string& how,
            const std::function<void(Reply*)>& bend) {
    SCOPED_TRACE(how);
    ++Counts()["bent reply"];
    ta().bent = static_cast<int>(answer);
    ta().bend = bend;
    ExpectOutcome(RunTidily(), kinds);
    ta().bent = -1;
  }

  void BendAnswer(size_t answer, const Answered& answered, const Kinds& kinds) {
    for (const auto& [index, bytes] : answered.written) {
      SCOPED_TRACE("command " + std::to_string(answered.command) + ", params[" +
                   std::to_string(index) + "]");
      const auto write = [index = index](const Bytes& changed) {
        return [=](Reply* reply) { reply->Out(index, changed); };
      };
      const auto full = static_cast<uint32_t>(bytes.size());
      for (uint32_t length = 0; length <= full; ++length) {
        Bend(answer, kinds, "cut at " + std::to_string(length),
             write(Bytes(bytes.begin(), bytes.begin() + length)));
      }
      for (size_t at = 0; at + 4 <= full; at += 4) {
        const uint32_t old = km41::GetU32(&bytes[at]);
        for (const uint32_t value :
             {0u, 1u, old - 1, old + 1, full - 1, full + 1, 1u << 31, 0xFFFFFFFFu}) {
          Bytes changed = bytes;
          for (size_t b = 0; b < 4; ++b) changed[at + b] = static_cast<uint8_t>(value >> (8 * b));
          Bend(answer, kinds, std::to_string(value) + " at " + std::to_string(at), write(changed));
        }
      }
      for (const uint32_t size : {answered.capacity[index] + 1, 1u << 31, 0xFFFFFFFFu}) {
        Bend(answer, kinds, "reported length " + std::to_string(size),
             [index = index, size](Reply* reply) { reply->Size(index, size); });
      }
    }
  }

  // How much of what failed, in all tests of the request.
  static std::map<std::string, int>& Counts() {
    static std::map<std::string, std::map<std::string, int>> counts;
    return counts[GetParam().name];
  }

  State baseline_;
  Lines baseline_log_, log_;  // of the baseline and of the last run
};

TEST_P(Sweep, EveryCallFails) { EXPECT_LT(0, FailEachCall({})) << "nothing ever failed"; }

TEST_P(Sweep, TheTaFailsAndThenEveryCall) {
  const size_t count = ta().answers.size();
  for (size_t i = 0; i < count && !HasFailure(); ++i) {
    SCOPED_TRACE("the TA fails answer " + std::to_string(i));
    ta().failing = static_cast<int>(i);
    ExpectOutcome(RunTidily(), {"ta"});
    const auto answers = ta().answers;
    for (size_t bent = i + 1; bent < answers.size(); ++bent) {
      BendAnswer(bent, answers[bent], {"ta", "reply"});  // the TA's error record
    }
    FailEachCall({"ta"});
    ta().failing = -1;
    ExpectServesNext();
  }
}

TEST_P(Sweep, RepliesAreCutBentAndMismeasured) {
  const auto answers = ta().answers;
  for (size_t i = 0; i < answers.size(); ++i) BendAnswer(i, answers[i], {"reply"});
  ExpectServesNext();
}

// A TA may write more than it reports.
TEST_F(KeymasterTest, UnreportedOutputIsWiped) {
  HookLibrary();
  keymaster::KeymasterTivasContext km;
  const Bytes secret = fixture().transit, input(0x80001);
  WatchFor("unreported", secret);
  const keymaster_blob_t all = Blob(input), some = {input.data(), 4096};
  keymaster_blob_t output{};
  unsigned long consumed = 0;
  platform().Queue(9, Reply::Ok().Out(3, Cat({Bytes(16), secret})).Size(3, 0));
  platform().Queue(9, Reply::Fail(kTaError));
  EXPECT_EQ(static_cast<int32_t>(kTaError),
            km.TivasKmUpdate(7, nullptr, &all, &consumed, nullptr, &output));
  platform().Queue(9, Reply::Ok().Out(3, Cat({Bytes(16), secret})).Size(3, 1));
  platform().Queue(10, Reply::Ok());
  EXPECT_EQ(0, km.TivasKmFinishNew(7, nullptr, &some, nullptr, nullptr, &output));
  ReleaseOutput(output.data);
  EXPECT_EQ(Lines(), Unwiped());
  ForgetSecrets();
}

// Comes last of a request's tests, so that nothing is documented that was not seen.
TEST_P(Sweep, WhatIsDocumentedWasSeen) {
  if (::testing::UnitTest::GetInstance()->test_to_run_count() !=
      ::testing::UnitTest::GetInstance()->total_test_count()) {
    GTEST_SKIP() << "needs all tests";
  }
  EXPECT_EQ(Lines(), NeverSeen(GetParam().name));
  EXPECT_EQ(Lines(), NeverSeen(kDiagnostics));
  std::cout << GetParam().name << ":";
  for (const auto& [kind, count] : Counts()) std::cout << " " << kind << " " << count;
  std::cout << "\n";
}

INSTANTIATE_TEST_SUITE_P(Requests, Sweep, ::testing::ValuesIn(Requests()),
                         [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace test
