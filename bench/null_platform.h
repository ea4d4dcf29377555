// A platform whose calls return at once: the TEE answers from a script, the log drops all messages,
// the watchdog guards nothing. Defined in the program, it stands in front of the shared libraries.
// For one thread.
#ifndef BENCH_NULL_PLATFORM_H
#define BENCH_NULL_PLATFORM_H

#include <tee_client_api.h>

#include <array>
#include <vector>

#include "tests/requests/requests.h"

namespace bench {

// A command as it was sent, and its answer.
struct Exchange {
  uint32_t command;
  uint32_t types;
  std::array<uint32_t, 4> sizes;  // of the memory references
  std::array<test::Bytes, 4> replies;
  TEEC_Value value;
};
using Script = std::vector<Exchange>;

// Record makes a request, answered by the well-behaved TA of the tests, and returns what it sent.
Script Record(const test::Request& request);
// Play has the TEE answer by a script, from its beginning and again and again. Null has it copy an
// update's input to its output, which any real TEE at least reads and writes.
void Play(const Script* script);

// RawCommand makes the platform calls of one command, and nothing else.
int32_t RawCommand(uint32_t command, TEEC_Operation* operation);
// A request that is made over and over, by the library or by its script. Both look through the
// outputs afterwards for what is to be released.
class RepeatedRequest {
 public:
  explicit RepeatedRequest(const test::Request& request);
  // Run makes the request, or with a script the platform calls of that.
  int32_t Run(const Script* raw);

 private:
  int32_t (*const call_)(const test::Args&);
  test::Outputs outputs_;
  test::Args args_{&outputs_};
};

// The requests that are measured: those that are a caller's, without the search for an RSA key, and
// with an update of one command.
std::vector<test::Request> MeasuredRequests();

}  // namespace bench

#endif  // BENCH_NULL_PLATFORM_H
