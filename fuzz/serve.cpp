#include "fuzz/serve.h"

#include <keymaster_ts.h>
#include <openssl/err.h>
#include <sanitizer/allocator_interface.h>

#include "wire/ta_protocol.h"

namespace fuzz {
namespace {

using test::Contract;
using test::States;

// A TA may well answer with a key blob of no bytes, which is a buffer all the same.
const void* g_key_blob = nullptr;

// A block that is the caller's to free, and holds that many bytes.
bool IsWholeBlock(const void* block, size_t length) {
  return __sanitizer_get_ownership(block) != 0 && __sanitizer_get_allocated_size(block) >= length &&
         (length != 0 || block == g_key_blob);
}

test::Observed ObserveBlocks(test::Outputs* outputs) {
  g_key_blob = outputs->key_blob.key_material;
  return test::Observe(outputs, {IsWholeBlock, test::kPlainBlocks.release});
}

States AllowedAfter(int32_t result, const test::Request& request, test::Output output) {
  const auto column = [&](States Contract::*failure) {
    return test::Allowed(request.method, output, failure);
  };
  if (result == 0) return column(&Contract::success);
  int replies = 0;
  for (const auto& [command, answer] : platform().answers) {
    if (command == km41::kCmdGetErrorRecord) continue;  // nobody gets its result, nor an abort's
    if (static_cast<int32_t>(answer) == result && command != km41::kCmdAbort) {
      return column(&Contract::tee);
    }
    replies += command != 0 && answer == TEEC_SUCCESS;
  }
  // Arguments that are not accepted may leave more as it was.
  if (replies == 0) return column(&Contract::preparing) | test::kUntouched;
  const States replied =
      column(&Contract::first_reply) | column(&Contract::second_reply) | column(&Contract::copying);
  return request.commands.size() == 1 ? replied : replied | column(&Contract::preparing);
}

// Looks for what no request may do with the TEE, and drops the TA's first sessions, which are kept.
void CheckPlatform() {
  for (const std::string& problem : platform().problems) {
    Check(false, problem.c_str());
  }
  for (const test::Opened& opened : platform().opens) {
    Check(opened.open == opened.first, "every session but the TA's first is closed");
    if (opened.first) free(opened.block);
  }
  for (const test::Event& event : platform().events) {
    Check(event.destroyed, "every event is destroyed");
  }
}

bool IsReadable(const void* bytes, size_t length) {
  return bytes == nullptr || length == 0 ||
         __asan_region_is_poisoned(const_cast<void*>(bytes), length) == nullptr;
}

}  // namespace

Served Serve(const test::Request& request, const Change& change, const Look& look) {
  test::Outputs outputs;
  test::Args args(&outputs);
  request.Prepare(&args);
  if (change) change(&args);
  const void* const given[test::kOutputs] = {args.key_blob,   args.characteristics, args.data,
                                             args.out_params, args.chain,           outputs.hmac};
  platform().judge_bound = IsReadable;
  platform().ClearRecords();
  const int32_t result = request.call(args);
  if (look) look(result, args);
  const Served served = {result, ObserveBlocks(&outputs)};
  for (int i = 0; i < test::kOutputs; ++i) {
    const States allowed = AllowedAfter(result, request, static_cast<test::Output>(i));
    const States state = served.observed.states[static_cast<size_t>(i)];
    if (given[i] != nullptr && (state & allowed) == 0) {
      fprintf(stderr, "%s returns %d and leaves %s as %d\n", request.name, result,
              test::kOutputNames[i], state);
      abort();
    }
  }
  CheckPlatform();
  ERR_clear_error();
  return served;
}

Served ServeReply(const char* request, unsigned index, const Bytes& reply, const Look& look) {
  EnsureTeeContext();
  const test::Request& row = test::FindRequest(request);
  platform().On(row.commands[0], [&](const test::Invocation& invocation) {
    return Reply::Ok().Out(index, Truncate(reply, invocation.params[index]));
  });
  return Serve(row, {}, look);
}

void Judge(test::Outputs* outputs, test::Output output, int32_t result) {
  const States state = ObserveBlocks(outputs).states[output];
  Check(state == test::kEmpty || (result == 0 && state == test::kWhole),
        "an output is whole, or empty, and empty after a failure");
  platform().ClearRecords();
}

void EnsureTeeContext() {
  if (platform().live_contexts == 0) Check(Ts_Initcontext() == TEEC_SUCCESS, "a TEE context");
}

}  // namespace fuzz
