#include "tests/sweep/scenario.h"

#include <gtest/gtest.h>
#include <openssl/err.h>

#include "tests/platform/keys.h"

namespace test {
namespace {

Reply Serve(const Invocation& invocation) {
  TaScript& script = ta();
  const int index = static_cast<int>(script.answers.size());
  Reply reply = AnswerTo(invocation.command, *invocation.operation);
  if (index == script.failing) reply.result = kTaError;
  script.answers.push_back({invocation, reply});
  if (index == script.corrupted) script.corrupt(&reply);
  return reply;
}

constexpr Blocks kLibraryBlocks = {IsOutput, ReleaseOutput};

}  // namespace

TaScript& ta() {
  thread_local TaScript script;
  return script;
}

void InstallTa() { platform().any = Serve; }

Outcome Perform(const Request& request, const ArgumentCase* argument_case) {
  Outputs outputs;
  Args args(&outputs);
  request.Prepare(&args);
  ParamSet params;
  if (argument_case != nullptr) {
    if (argument_case->set != nullptr) argument_case->set(&args);
    for (const Param& param : argument_case->params) {
      params.Add(param);
      args.params = params.get();
    }
  }
  ta().answers.clear();
  // libcrypto's error queue is the caller's, whether there is an entry in it or not. BoringSSL
  // itself empties it when it makes an RSA key.
  thread_local int runs = 0;
  const bool keeps = !kBoringSsl || request.method != std::string("TivasKmGenerateKey");
  if (runs++ % 2 != 0 && keeps) ERR_put_error(ERR_LIB_USER, 0, 7, "caller", 1);
  const unsigned long own_error = ERR_peek_last_error();
  const int32_t result = request.call(args);
  EXPECT_EQ(own_error, ERR_get_error());
  EXPECT_EQ(0u, ERR_get_error()) << "an error of the library's";
  ERR_clear_error();
  return {result, Observe(&outputs, kLibraryBlocks)};
}

}  // namespace test
