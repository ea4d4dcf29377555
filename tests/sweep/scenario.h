// One request of the table against the scripted TA, one of whose answers may fail or be corrupted.
#ifndef TESTS_SWEEP_SCENARIO_H
#define TESTS_SWEEP_SCENARIO_H

#include <functional>
#include <map>
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

}  // namespace test

#endif  // TESTS_SWEEP_SCENARIO_H
