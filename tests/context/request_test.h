// The base of the requests' tests: arguments by name, the outputs of the last call, and what the TA
// got of it.
#ifndef TESTS_CONTEXT_REQUEST_TEST_H
#define TESTS_CONTEXT_REQUEST_TEST_H

#include <keymaster_tivas_context.h>
#include <keymaster_ts.h>

#include "tests/platform/keymaster_test.h"
#include "tests/platform/keys.h"
#include "tests/requests/commands.h"
#include "tests/requests/requests.h"
#include "tests/requests/wire.h"

namespace test {

using namespace km41;

using CommandIds = std::vector<uint32_t>;
using Parts = std::vector<Bytes>;

constexpr int32_t kNullPointer = KM_ERROR_UNEXPECTED_NULL_POINTER,
                  kNoMemory = KM_ERROR_MEMORY_ALLOCATION_FAILED,
                  kBadArgument = KM_ERROR_INVALID_ARGUMENT, kUnknown = KM_ERROR_UNKNOWN_ERROR;

class RequestTest : public KeymasterTest {
 protected:
  // The TA answers well.
  void SetUp() override {
    KeymasterTest::SetUp();
    platform().any = [](const Invocation& invocation) {
      return AnswerTo(invocation.command, *invocation.operation);
    };
  }
  void TearDown() override {
    StateOf(kData);
    KeymasterTest::TearDown();
  }

  // ReplyTo has the TA give one reply to all of a command.
  static void ReplyTo(uint32_t command, const Reply& reply) {
    platform().On(command, [reply](const Invocation&) { return reply; });
  }
  // Make makes a request, with arguments that set changes, on new outputs and records.
  int32_t Make(const char* name, const std::function<void(Args*)>& set = {}) {
    StateOf(kData);
    Args args(&outputs);
    const Request& request = FindRequest(name);
    request.Prepare(&args);
    if (set) set(&args);
    return request.call(args);
  }
  // MakeOf does so where params[2] of the reply to its first command is this.
  int32_t MakeOf(const char* name, const Bytes& reply) {
    ReplyTo(FindRequest(name).commands[0], Reply::Ok().Out(2, reply));
    return Make(name);
  }
  // StateOf says what became of an output; it releases all, and forgets what was recorded.
  States StateOf(Output output) {
    const Observed observed = Observe(&outputs, kPlainBlocks);
    const Outputs garbage;
    outputs = garbage;
    outputs.token.parameters_verified = &outputs.params;
    platform().ClearRecords();
    return observed.states[output];
  }
  // Sent is what a command of the last request brought the TA: its values and the bytes of its
  // inputs, of inputs that are outputs too the first 8; empty ones are left out.
  static Parts Sent(size_t index = 0) {
    Parts parts;
    const Invocation& seen = platform().invocations.at(index);
    for (unsigned i = 0; i < 4; ++i) {
      const uint32_t type = TEEC_PARAM_TYPE_GET(seen.param_types, i);
      const SeenParam& param = seen.params[i];
      Bytes part = param.in;
      if (type == kInOut) part.resize(8);
      if (type == kValue || type == kValueInOut) {
        part = Cat({Le32(param.value.a), Le32(param.value.b)});
      }
      if (!part.empty()) parts.push_back(part);
    }
    return parts;
  }

  keymaster::KeymasterTivasContext km;
  Outputs outputs;
};

}  // namespace test

#endif  // TESTS_CONTEXT_REQUEST_TEST_H
