// Sweeps over every request: each call that can fail fails in turn, the TA fails, the TA's replies
// come truncated, corrupted and with lying lengths. Whatever happens, the result and the messages
// are among those that the request documents, its outputs are as its contract says, nothing leaks,
// no secret is left behind, and the next request is served.
#include <gtest/gtest.h>
#include <keymaster_ts.h>

#include <algorithm>
#include <iostream>

#include "tests/requests/commands.h"
#include "tests/requests/wire.h"
#include "tests/sweep/scenario.h"
#include "wire/little_endian.h"

namespace test {

inline void PrintTo(const Request& request, std::ostream* out) { *out << request.name; }

inline void PrintTo(const Outcome& outcome, std::ostream* out) {
  *out << outcome.result;
  for (int i = 0; i < kOutputs; ++i) {
    *out << " " << kOutputNames[i] << "=" << int{outcome.observed.states[i]};
  }
}

namespace {

// The calls that can be made to fail, in the order of Call.
constexpr const char* kCalls[] = {"crypto",      "malloc",     "memcpy_s",  "memset_s",
                                  "init",        "open",       "invoke",    "create_event",
                                  "set_integer", "set_string", "set_param", "send_event"};
static_assert(std::size(kCalls) == static_cast<size_t>(Call::kEnd));

using Column = States Contract::*;
constexpr Column kColumns[] = {&Contract::success,     &Contract::preparing,    &Contract::tee,
                               &Contract::first_reply, &Contract::second_reply, &Contract::copying};

class Sweep : public TrackedTest, public ::testing::WithParamInterface<Request> {
 protected:
  void SetUp() override {
    KeymasterTest::SetUp();
    InstallTa();
    for (const auto& [label, secret] : fixture().secrets) {
      WatchFor(label, secret);
    }
    ta() = TaScript();
    baseline_ = RunTidily();
    baseline_log_ = log_;
    ASSERT_EQ(0, baseline_.result);
  }
  void TearDown() override {
    ForgetSecrets();
    KeymasterTest::TearDown();
    EXPECT_EQ(0u, LiveBlocks());
  }

  Outcome RunTidily() {
    const Outcome outcome = Perform(GetParam());
    CheckRun();
    return outcome;
  }

  // Looks for what no run may leave, and keeps its log.
  void CheckRun() {
    // The library keeps nothing but its TEE context.
    EXPECT_EQ(platform().live_contexts, LiveBlocks()) << "leaked";
    EXPECT_EQ(Lines(), Unwiped()) << "freed with a secret in it";
    log_ = Logged(&LogLine::format);
    ExpectTidy();
  }

  void ExpectServesNext() {
    // Only a failed replacement of the context may leave none.
    if (platform().live_contexts == 0 && GetParam().name == std::string("Initialize")) {
      EXPECT_EQ(0u, Ts_Initcontext());
    }
    EXPECT_EQ(baseline_, RunTidily());
  }

  // The column of the contract that the last run belongs to.
  Column ColumnOf(int32_t result) {
    const size_t needed = GetParam().commands.size();
    const auto& answers = ta().answers;
    if (result == 0) return &Contract::success;
    if (result == static_cast<int32_t>(kTaError) ||
        result == static_cast<int32_t>(kInjectedTeeError)) {
      return &Contract::tee;
    }
    if (answers.size() < needed || (needed > 0 && answers[needed - 1].reply.result != 0)) {
      return &Contract::preparing;
    }
    if (ta().corrupted < 0) return &Contract::copying;
    const bool first = corrupted_param_ == answers[needed - 1].reply.outputs.begin()->first;
    return first ? &Contract::first_reply : &Contract::second_reply;
  }

  // Compares what follows where the log leaves that of the request when all is well.
  void ExpectDocumented(int32_t result, const Kinds& kinds) {
    const auto from =
        std::mismatch(log_.begin(), log_.end(), baseline_log_.begin(), baseline_log_.end()).first;
    EXPECT_EQ("", Documented(GetParam().name, kinds, result, Lines(from, log_.end())));
  }

  void ExpectOutcome(const Outcome& outcome, const Kinds& kinds) {
    if (outcome.result != 0 || kinds.count("reply") == 0) ExpectDocumented(outcome.result, kinds);
    const Column column = ColumnOf(outcome.result);
    const std::string_view method = GetParam().method;
    for (int i = 0; i < kOutputs; ++i) {
      const auto output = static_cast<Output>(i);
      const States state = outcome.observed.states[i], allowed = Allowed(method, output, column);
      EXPECT_NE(0, state & allowed)
          << kOutputNames[i] << " left as " << int{state} << ", may be one of " << int{allowed};
      SeenOf(method, output).*column |= state;
    }
  }

  // What was seen of an output, as a row of the contract.
  static Contract& SeenOf(std::string_view method, Output output) {
    static std::map<std::pair<std::string_view, Output>, Contract> seen;
    return seen[{method, output}];
  }

  // Fails each kind of call, first its first, then its second and so on, while the rest of the
  // scenario stays the same. Returns how many failures it met.
  int FailEachCall(const Kinds& also) {
    int hits = 0;
    for (size_t i = 0; i < 2 * std::size(kCalls); ++i) {
      for (int nth = 1; FailCallOnce(i / 2, nth, i % 2 != 0, also); ++nth) {
        ++hits;
        if (HasFailure()) return hits;
      }
    }
    return hits;
  }

  // Returns false when there is no such call any more.
  bool FailCallOnce(size_t which, int nth, bool and_later, Kinds kinds) {
    const std::string kind = kCalls[which];
    const auto call = static_cast<Call>(which);
    SCOPED_TRACE(kind + " " + std::to_string(nth) + (and_later ? " and later" : ""));
    FailCall(call, nth, and_later);
    const Outcome outcome = RunTidily();
    const bool hit = CallCount(call) >= nth;
    kinds.insert(call == Call::kCrypto ? FailedCrypto() : kind);
    FailCall(call, 0);
    if (!hit) return false;
    ++Counts()[kind];
    ExpectOutcome(outcome, kinds);
    const int failing = std::exchange(ta().failing, -1);
    ExpectServesNext();
    ta().failing = failing;
    return true;
  }

  // Runs once with one of the TA's answers corrupted.
  void Corrupt(size_t answer, const Kinds& kinds, const std::string& how,
               const std::function<void(Reply*)>& corrupt) {
    SCOPED_TRACE(how);
    ++Counts()["corrupted reply"];
    ta().corrupted = static_cast<int>(answer);
    ta().corrupt = corrupt;
    ExpectOutcome(RunTidily(), kinds);
    ta().corrupted = -1;
  }

  void CorruptAnswer(size_t answer, const Answered& answered, Kinds kinds) {
    Kinds longer = kinds;
    longer.insert("longer");
    kinds.insert("reply");
    for (const auto& [param, bytes] : answered.reply.outputs) {
      SCOPED_TRACE(std::string(FindCommand(answered.to.command)->name) + ", params[" +
                   std::to_string(param) + "]");
      corrupted_param_ = param;
      const auto write = [index = param](const Bytes& changed) {
        return [=](Reply* reply) { reply->Out(index, changed); };
      };
      const auto full = static_cast<uint32_t>(bytes.size());
      for (uint32_t length = 0; length <= full; ++length) {
        Corrupt(answer, kinds, "truncated to " + std::to_string(length),
                write(Bytes(bytes.begin(), bytes.begin() + length)));
      }
      Corrupt(answer, kinds, "all zero", write(Bytes(full)));
      for (size_t at = 0; at + 4 <= full; at += 4) {
        const uint32_t old = km41::GetU32(&bytes[at]);
        for (const uint32_t value :
             {0u, 1u, old - 1, old + 1, full - 1, full + 1, 1u << 31, 0xFFFFFFFFu}) {
          Bytes changed = bytes;
          km41::PutU32(&changed[at], value);
          Corrupt(answer, kinds, std::to_string(value) + " at " + std::to_string(at),
                  write(changed));
        }
      }
      // A TA may also write more than it reports, and what it wrote must be wiped.
      const uint32_t room = answered.to.params[param].size;
      for (const uint32_t size : {0u, full / 2, room + 1, 1u << 31, 0xFFFFFFFFu}) {
        Corrupt(answer, size > room ? longer : kinds, "reported length " + std::to_string(size),
                [index = param, size](Reply* reply) { reply->Size(index, size); });
      }
    }
  }

  // How much of what failed, in all tests of the request.
  static std::map<std::string, int>& Counts() {
    static std::map<std::string, std::map<std::string, int>> counts;
    return counts[GetParam().name];
  }

  Outcome baseline_;
  Lines baseline_log_, log_;  // of the baseline and of the last run
  unsigned corrupted_param_ = 0;
};

TEST_P(Sweep, JudgesItsArguments) {
  for (const ArgumentCase& each : ArgumentCases()) {
    if (GetParam().name != std::string(each.request)) continue;
    SCOPED_TRACE(each.what);
    const Outcome outcome = Perform(GetParam(), &each);
    EXPECT_EQ(each.result, outcome.result);
    EXPECT_EQ(each.commands, platform().invocations.size());
    CheckRun();
    if (each.result == 0) continue;
    ExpectDocumented(outcome.result, {kArgument});
    for (int i = 0; i < kOutputs; ++i) {
      const bool emptied = std::count(each.emptied.begin(), each.emptied.end(), i) != 0;
      EXPECT_EQ(emptied ? kEmpty : kUntouched, outcome.observed.states[i]) << kOutputNames[i];
    }
  }
}

// What each command declares of its parameters is the table's, or nothing for one that is left out.
TEST_P(Sweep, SendsItsCommands) {
  Perform(GetParam());
  EXPECT_EQ("", Documented(GetParam().name, {kSuccess}, 0, Logged(&LogLine::text)));
  EXPECT_EQ(GetParam().commands, Commands());
  for (const Invocation& invocation : platform().invocations) {
    const Command& command = *FindCommand(invocation.command);
    for (unsigned i = 0; i < 4; ++i) {
      const uint32_t type = TEEC_PARAM_TYPE_GET(invocation.param_types, i);
      EXPECT_TRUE(type == command.types[i] || type == kNone) << command.name << " " << i;
    }
  }
}

TEST_P(Sweep, EveryCallFails) { EXPECT_LT(0, FailEachCall({})) << "nothing ever failed"; }

TEST_P(Sweep, TheTaFailsAndThenEveryCall) {
  const size_t count = ta().answers.size();
  for (size_t i = 0; i < count && !HasFailure(); ++i) {
    SCOPED_TRACE("the TA fails answer " + std::to_string(i));
    ta().failing = static_cast<int>(i);
    ExpectOutcome(RunTidily(), {"ta"});
    const auto answers = ta().answers;
    for (size_t record = i + 1; record < answers.size(); ++record) {
      CorruptAnswer(record, answers[record], {"ta"});  // the TA's error record
    }
    FailEachCall({"ta"});
    ta().failing = -1;
    ExpectServesNext();
  }
}

TEST_P(Sweep, EveryReplyIsCorrupted) {
  const auto answers = ta().answers;
  for (size_t i = 0; i < answers.size(); ++i) {
    CorruptAnswer(i, answers[i], {});
  }
  ExpectServesNext();
}

// What stands behind a decoded list must not count.
TEST_F(TrackedTest, AKeyWithoutThePurposeDoesNotWrap) {
  InstallTa();
  GuardWithPurpose(true);
  ta() = TaScript();
  ta().corrupted = 0;
  ta().corrupt = [](Reply* reply) {
    reply->Out(2, TwoLists({{KM_TAG_PURPOSE, KM_PURPOSE_SIGN}}, {{KM_TAG_PURPOSE, 1}}));
  };
  EXPECT_EQ(KM_ERROR_INCOMPATIBLE_PURPOSE, Perform(FindRequest("UnwrappedKey")).result);
  ta() = TaScript();
  GuardWithPurpose(false);
}

// Comes last of a request's tests, so that nothing is documented that was not seen.
TEST_P(Sweep, WhatIsDocumentedWasSeen) {
  if (::testing::UnitTest::GetInstance()->test_to_run_count() !=
      ::testing::UnitTest::GetInstance()->total_test_count()) {
    GTEST_SKIP() << "needs all tests";
  }
  EXPECT_EQ(Lines(), NeverSeen(GetParam().name));
  const bool last = GetParam().name == std::string(Requests().back().name);
  for (const Contract& row : Contracts()) {
    for (const Column column : kColumns) {
      const int unseen = row.*column & ~(SeenOf(row.method, row.output).*column);
      EXPECT_TRUE(!last || unseen == 0)
          << row.method << " " << kOutputNames[row.output] << " "
          << std::find(kColumns, std::end(kColumns), column) - kColumns << " never " << unseen;
    }
  }
  EXPECT_EQ(Lines(), NeverSeen(kDiagnostics));
  std::cout << GetParam().name << ":";
  for (const auto& [kind, count] : Counts()) {
    std::cout << " " << kind << " " << count;
  }
  std::cout << "\n";
}

INSTANTIATE_TEST_SUITE_P(Requests, Sweep, ::testing::ValuesIn(Requests()),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace test
