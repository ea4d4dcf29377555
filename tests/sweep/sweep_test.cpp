// Sweeps over every request: each call that can fail fails in turn, the TA fails, the TA's replies
// come cut, bent and with lying lengths. Whatever happens, the result is one that the request may
// have, its outputs are in order, nothing leaks, no secret is left behind, and the next request
// is served.
#include <gtest/gtest.h>
#include <keymaster_ts.h>

#include "tests/platform/keymaster_test.h"
#include "tests/sweep/library_hooks.h"
#include "tests/sweep/requests.h"

namespace test {
namespace {

// Kind is a call that can be made to fail, and what a request may then return.
struct Kind {
  Codes Outcomes::*codes;
  std::function<void(int nth, bool and_later)> fail;
  std::function<int()> count;
};

const std::vector<Kind>& Kinds() {
  // In the order of Call.
  static constexpr Codes Outcomes::*kCodes[] = {
      &Outcomes::allocation, &Outcomes::copy,  &Outcomes::clear, &Outcomes::tee,
      &Outcomes::tee,        &Outcomes::tee,   &Outcomes::event, &Outcomes::event,
      &Outcomes::event,      &Outcomes::event, &Outcomes::event};
  static_assert(std::size(kCodes) == static_cast<size_t>(Call::kEnd));
  static const std::vector<Kind> kinds = [] {
    std::vector<Kind> all = {{&Outcomes::crypto, FailCrypto, CryptoCount}};
    for (size_t i = 0; i < std::size(kCodes); ++i) {
      const Call call = static_cast<Call>(i);
      all.push_back({kCodes[i], [call](int nth, bool and_later) { FailCall(call, nth, and_later); },
                     [call] { return CallCount(call); }});
    }
    return all;
  }();
  return kinds;
}

const Codes kTaFails = {static_cast<int32_t>(kTaError)};

class Sweep : public KeymasterTest, public ::testing::WithParamInterface<Request> {
 protected:
  void SetUp() override {
    HookLibrary();
    KeymasterTest::SetUp();
    InstallTa();
    for (const auto& [label, secret] : fixture().secrets) WatchFor(label, secret);
    ta() = TaScript();
    baseline_ = RunTidily();
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
    platform().ClearRecords();
    return state;
  }

  void ExpectServesNext() {
    if (platform().live_contexts == 0) {
      EXPECT_EQ(0u, Ts_Initcontext());
    }
    EXPECT_EQ(baseline_, RunTidily());
  }

  void ExpectOutcome(const State& result, const Codes& codes) {
    const int32_t code = std::stoi(result.at('r'));
    EXPECT_EQ(1u, codes.count(code)) << "returned " << code << " = 0x" << std::hex << code;
    const std::string& left = GetParam().left;
    for (const auto& [letter, state] : result) {
      EXPECT_EQ(std::string::npos, state.find('x')) << "output " << letter << ": " << state;
      if (code == 0 || letter == 'r') continue;
      const size_t at = left.find(std::string{letter, ':'});
      const std::string allowed =
          at == std::string::npos ? "u" : left.substr(at + 2, left.find(' ', at) - at - 2);
      EXPECT_NE(std::string::npos, allowed.find(state[0]))
          << "output " << letter << " left as " << state << ", may be " << allowed;
    }
  }

  // Fails each kind of call, first its first, then its second and so on, while the rest of the
  // scenario stays the same. Returns how many failures it met.
  int FailEachCall(const Codes& also) {
    int hits = 0;
    for (size_t i = 0; i < 2 * Kinds().size(); ++i) {
      const Kind& kind = Kinds()[i / 2];
      const bool and_later = i % 2 != 0;
      Codes codes = GetParam().outcomes.*kind.codes;
      codes.insert(also.begin(), also.end());
      for (int nth = 1;; ++nth, ++hits) {
        SCOPED_TRACE("kind " + std::to_string(i / 2) + ", call " + std::to_string(nth) +
                     (and_later ? " and later" : ""));
        kind.fail(nth, and_later);
        const State result = RunTidily();
        const bool hit = kind.count() >= nth;
        kind.fail(0, false);
        if (!hit) break;
        ExpectOutcome(result, codes);
        const int failing = std::exchange(ta().failing, -1);
        ExpectServesNext();
        ta().failing = failing;
        if (HasFailure()) return hits;
      }
    }
    return hits;
  }

  // Runs once with one of the TA's answers bent.
  void Bend(size_t answer, const Codes& codes, const std::string& how,
            const std::function<void(Reply*)>& bend) {
    SCOPED_TRACE(how);
    ta().bent = static_cast<int>(answer);
    ta().bend = bend;
    ExpectOutcome(RunTidily(), codes);
    ta().bent = -1;
  }

  void BendAnswer(size_t answer, const Answered& answered, const Codes& codes) {
    for (const auto& [index, bytes] : answered.written) {
      SCOPED_TRACE("command " + std::to_string(answered.command) + ", params[" +
                   std::to_string(index) + "]");
      const auto write = [index = index](const Bytes& changed) {
        return [=](Reply* reply) { reply->Out(index, changed); };
      };
      const auto full = static_cast<uint32_t>(bytes.size());
      for (uint32_t length = 0; length <= full; ++length) {
        Bend(answer, codes, "cut at " + std::to_string(length),
             write(Bytes(bytes.begin(), bytes.begin() + length)));
      }
      for (size_t at = 0; at + 4 <= full; at += 4) {
        for (const uint32_t value : {0u, 1u, full - 1, full + 1, 1u << 31, 0xFFFFFFFFu}) {
          Bytes changed = bytes;
          for (size_t b = 0; b < 4; ++b) changed[at + b] = static_cast<uint8_t>(value >> (8 * b));
          Bend(answer, codes, std::to_string(value) + " at " + std::to_string(at), write(changed));
        }
      }
      for (const uint32_t size : {answered.capacity[index] + 1, 1u << 31, 0xFFFFFFFFu}) {
        Bend(answer, codes, "reported length " + std::to_string(size),
             [index = index, size](Reply* reply) { reply->Size(index, size); });
      }
    }
  }

  State baseline_;
};

TEST_P(Sweep, EveryCallFails) { EXPECT_LT(0, FailEachCall({})) << "nothing ever failed"; }

TEST_P(Sweep, TheTaFailsAndThenEveryCall) {
  const size_t count = ta().answers.size();
  for (size_t i = 0; i < count && !HasFailure(); ++i) {
    SCOPED_TRACE("the TA fails answer " + std::to_string(i));
    ta().failing = static_cast<int>(i);
    ExpectOutcome(RunTidily(), kTaFails);
    const auto answers = ta().answers;
    for (size_t bent = i + 1; bent < answers.size(); ++bent) {
      BendAnswer(bent, answers[bent], kTaFails);  // the TA's error record
    }
    FailEachCall(kTaFails);
    ta().failing = -1;
    ExpectServesNext();
  }
}

TEST_P(Sweep, RepliesAreCutBentAndMismeasured) {
  const auto answers = ta().answers;
  Codes codes = GetParam().outcomes.reply;
  codes.insert(0);
  for (size_t i = 0; i < answers.size(); ++i) BendAnswer(i, answers[i], codes);
  ExpectServesNext();
}

INSTANTIATE_TEST_SUITE_P(Requests, Sweep, ::testing::ValuesIn(Requests()),
                         [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace test
