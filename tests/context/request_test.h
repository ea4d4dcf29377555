// The base of the requests' tests: arguments by name, the outputs of the last call, and what the TA
// and the log got of it.
#ifndef TESTS_CONTEXT_REQUEST_TEST_H
#define TESTS_CONTEXT_REQUEST_TEST_H

#include <keymaster_tivas_context.h>
#include <keymaster_ts.h>

#include <optional>
#include <string>
#include <vector>

#include "tests/platform/keymaster_test.h"
#include "tests/platform/keys.h"
#include "tests/requests/requests.h"
#include "tests/requests/wire.h"
#include "wire/ta_protocol.h"

namespace test {

using namespace km41;

using CommandIds = std::vector<uint32_t>;
using Parts = std::vector<Bytes>;

constexpr int32_t kNullPointer = KM_ERROR_UNEXPECTED_NULL_POINTER,
                  kNoMemory = KM_ERROR_MEMORY_ALLOCATION_FAILED,
                  kBadParameters = static_cast<int32_t>(TEEC_ERROR_BAD_PARAMETERS);

// What says that it holds something and does not.
constexpr keymaster_blob_t kHollowBlob = {nullptr, 32};
constexpr keymaster_key_param_set_t kHollowSet = {nullptr, 1}, kEmptySet = {nullptr, 0};

class RequestTest : public KeymasterTest {
 protected:
  void TearDown() override {
    Renew();
    KeymasterTest::TearDown();
  }

  // Renew releases the outputs, makes them garbage again and forgets what was recorded.
  void Renew();
  void SetParams(const Params& params);
  // Call makes a request with the arguments as they stand, on new outputs.
  int32_t Call(const std::string& method) {
    Renew();
    return FindMethod(method).call(args);
  }
  // StateOf releases the outputs, as Renew does, and says what became of one.
  States StateOf(Output output);

  // ReplyTo has the TA give one reply to all of a command.
  static void ReplyTo(uint32_t command, const Reply& reply) {
    platform().On(command, [reply](const Invocation&) { return reply; });
  }
  // Sent is what a command of the last call brought the TA: its values and the bytes of its inputs,
  // of inputs that are outputs too the first 8; empty ones are left out.
  static Parts Sent(size_t index = 0);
  // Logged is what the requests logged: "I KmBegin start", "E [error] : keyBlob is NULL".
  static Lines Logged();

  keymaster::KeymasterTivasContext km;
  Outputs outputs;
  Args args{&outputs};

 private:
  std::optional<ParamSet> params_;
};

}  // namespace test

#endif  // TESTS_CONTEXT_REQUEST_TEST_H
