// Every request of the library as one row of a table: how it is made, and what a failure may leave
// of its outputs. A scripted TA, whose answers can be bent, serves them all.
#ifndef TESTS_SWEEP_REQUESTS_H
#define TESTS_SWEEP_REQUESTS_H

#include <functional>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "tests/platform/doubles.h"
#include "tests/platform/faults.h"

namespace test {

constexpr uint32_t kTaError = 0xF00D0001;
constexpr uint32_t kInputError = 0xF00D0002;  // the TA got what it must not get

// ---- Outputs

constexpr uint64_t kUntouched = 0x5E5E5E5E5E5E5E5Eu;

// Outputs is what a request may write; all of it begins as garbage.
struct Outputs {
  Outputs();
  keymaster_key_blob_t key;
  keymaster_key_characteristics_t traits;
  keymaster_blob_t data;
  keymaster_key_param_set_t params;
  keymaster_cert_chain_t chain;
  uint64_t number[3];
};
// The state of each output by its letter (k, h and s of the traits, d, p, c, n): "u" untouched,
// "e" empty, "w" and the content when whole. There is an "x" in it when it is none of these: a
// length without bytes, bytes that are no block of the library's, or too few of them.
using State = std::map<char, std::string>;
// ---- Requests

struct Request {
  std::string name;
  // Of each output that a failure may leave other than untouched: its letter, ':' and the states.
  std::string left;
  std::function<int32_t(Outputs&)> run;
};
const std::vector<Request>& Requests();
inline void PrintTo(const Request& request, std::ostream* out) { *out << request.name; }
// Perform makes a request and releases its outputs. The state has the result, too, as 'r'.
State Perform(const Request& request);

// ---- The TA

// What the requests and the TA that serves them both know.
struct Fixture {
  std::map<std::string, Bytes> secrets;  // by label
  Bytes rsa_pkcs8, ec_pkcs8, input, mask, transit, wrapper, pkcs8_wrapper, blob, ec_blob;
  std::map<uint32_t, std::map<int, Bytes>> answers;  // what a command's answer writes where
  // Answers of command 5, and of 10.
  std::map<int, Bytes> ec_public, transit_finish, pkcs8_finish;
};
const Fixture& fixture();

// One answer of the TA: to what, what it wrote, and the room it had.
struct Answered {
  uint32_t command;
  std::map<int, Bytes> written;
  uint32_t capacity[4];
};
// Script of the TA for the requests of this thread. Answers are numbered from 0 in each.
struct TaScript {
  int failing = -1;  // the answer that is a failure, with its outputs written
  int bent = -1;     // the answer that bend changes
  std::function<void(Reply*)> bend;
  std::vector<Answered> answers;  // of the last request
};
TaScript& ta();
void InstallTa();

}  // namespace test

#endif  // TESTS_SWEEP_REQUESTS_H
