// Every request of the library as one row of a table: how it is made, and what may come of it
// when something fails. A scripted TA, whose answers can be bent, serves them all.
#ifndef TESTS_SWEEP_REQUESTS_H
#define TESTS_SWEEP_REQUESTS_H

#include <keymaster_tivas_context.h>
#include <stdint.h>

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "tests/platform/doubles.h"

namespace test {

constexpr uint64_t kUntouched = 0x5E5E5E5E5E5E5E5Eu;
constexpr uint32_t kTaError = 0xF00D0001u;
constexpr uint32_t kInputError = 0xF00D0002u;  // the TA got what it must not get

// Outputs is what a request may write. All but `params` of a verification begin as garbage.
struct Outputs {
  Outputs();
  keymaster_key_blob_t key;
  keymaster_key_characteristics_t traits;
  keymaster_blob_t data;
  keymaster_key_param_set_t params;
  keymaster_cert_chain_t chain;
  uint64_t number[3];
};

// The state of each output by its letter (k, t, d, p, c, n): "u" untouched, "e" empty, "w" and
// the content when whole, "x" when it is none of these (a length without bytes, bytes that are no
// block of the library's, or too few of them).
using State = std::map<char, std::string>;
State Describe(const Outputs& outputs);
void Release(Outputs* outputs);

using Codes = std::set<int32_t>;
// What a request may return, by what fails. A failing TEE call's own code is left out.
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
const std::vector<Request>& Requests();

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
