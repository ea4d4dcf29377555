// Every request of the library as one row of a table: how it is made, and what may come of it
// when something fails. A scripted TA, whose answers can be bent, serves them all.
#ifndef TESTS_SWEEP_REQUESTS_H
#define TESTS_SWEEP_REQUESTS_H

#include <stdint.h>

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "tests/platform/doubles.h"
#include "tests/sweep/outputs.h"

namespace test {

constexpr uint32_t kTaError = 0xF00D0001u;
constexpr uint32_t kInputError = 0xF00D0002u;  // the TA got what it must not get

// What a request may return, by what fails. A failing TEE call's own code is left out.
using Codes = std::set<int32_t>;
struct Outcomes {
  Codes allocation, copy, clear, crypto, reply;
};

struct Request {
  std::string name;
  std::function<int32_t(Outputs*)> run;
  // Of each output that a failure may leave other than untouched: its letter, ':' and the states.
  std::string left;
  Outcomes outcomes;
  Codes event{}, tee{};  // where they differ: of a failing event call, of a failing TEE call
  bool makes_context = false;
};
// All of them: those of the class, then those of FunctionRequests.
const std::vector<Request>& Requests();
std::vector<Request> FunctionRequests();

// One answer of the TA: which (from 0, of those of a request), to what, and what it wrote.
struct Answer {
  uint32_t command;
  std::map<int, Bytes> written;
  uint32_t capacity[4];
};
// Script of the TA for the requests of this thread.
struct TaScript {
  int failing = -1;  // the answer that is a failure, with its outputs written
  int bent = -1;     // the answer that bend changes
  std::function<void(Reply*)> bend;
  std::vector<Answer>* record = nullptr;
  int answers = 0;
};
TaScript& ta();
void InstallTa();
// Watches for all secrets of the requests.
void WatchFixtureSecrets();

}  // namespace test

#endif  // TESTS_SWEEP_REQUESTS_H
