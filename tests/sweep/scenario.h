// One request of the table against the scripted TA, one of whose answers may fail or be corrupted,
// and what may come of it.
#ifndef TESTS_SWEEP_SCENARIO_H
#define TESTS_SWEEP_SCENARIO_H

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "tests/platform/keymaster_test.h"
#include "tests/platform/library_hooks.h"
#include "tests/requests/requests.h"

namespace test {

constexpr uint32_t kTaError = 0xF00D0001;

// One answer of the TA, before it was corrupted, and what to.
struct Answered {
  Invocation to;
  Reply reply;
};

// Script of the TA for the requests of this thread. Answers are numbered from 0 in each.
struct TaScript {
  int failing = -1;    // the answer that is a failure, with its outputs written
  int corrupted = -1;  // the answer that corrupt changes
  std::function<void(Reply*)> corrupt;
  std::vector<Answered> answers;  // of the last request
};
TaScript& ta();
// InstallTa has the doubles ask this TA.
void InstallTa();

// TrackedTest has the library's blocks tracked from the first on.
struct TrackedTest : KeymasterTest {
  TrackedTest() { TrackBlocks(); }
};

struct Outcome {
  int32_t result;
  Observed observed;
  bool operator==(const Outcome& other) const {
    return result == other.result && observed == other.observed;
  }
};
// Perform makes a request, with the arguments of a case if there is one, and releases its outputs.
Outcome Perform(const Request& request, const ArgumentCase* argument_case = nullptr);

// ---- What each request documents of its failures: failures.txt, compared with what is seen

using Kinds = std::set<std::string>;
constexpr char kDiagnostics[] = "diagnostics";  // the rows that many requests share
constexpr char kArgument[] = "argument";        // the kind that is never shared
constexpr char kSuccess[] = "success";          // whose messages are texts, not formats

// The lines of the log by level, tag and either format or text, as failures.txt has them.
Lines Logged(std::string LogLine::*what);

// Documented tells whether a request may, after a failure of these kinds, return the result and
// say the messages, and takes down that it did. It names what is wrong, or is empty.
std::string Documented(const std::string& request, const Kinds& kinds, int32_t result,
                       const Lines& messages);
// NeverSeen is the request's rows, by kind, that Documented was never asked for.
Lines NeverSeen(const std::string& request);

}  // namespace test

#endif  // TESTS_SWEEP_SCENARIO_H
