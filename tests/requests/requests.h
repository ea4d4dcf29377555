// Every request of the library in one table, for tests, fuzz targets and benchmarks alike. Of the
// doubles it needs the header alone, and nothing of GoogleTest.
//
//   Args      the arguments of every method by name: inputs that are good, outputs that are garbage
//   Request   a method, called with what it needs of Args, what it changes in them, and the
//   commands
//             that it sends when all is well
//   AnswerTo  what a well-behaved TA answers to the commands of these requests (scripted_ta.cpp)
//   ArgumentCase  a request with arguments that are not accepted, or only just (argument_cases.cpp)
//   Contract  what each output holds after a failure (arguments.cpp)
//
// To make a request, with a change of one's own:
//   Outputs outputs;
//   Args args(&outputs);
//   const Request& request = FindRequest("Begin");
//   request.Prepare(&args);
//   args.out_params = nullptr;
//   const int32_t result = request.call(args);
//   const Observed observed = Observe(&outputs, kPlainBlocks);  // and releases what there is
#ifndef TESTS_REQUESTS_REQUESTS_H
#define TESTS_REQUESTS_REQUESTS_H

#include <keymaster_tivas_context.h>

#include <array>
#include <map>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "tests/platform/doubles.h"
#include "wire/ta_protocol.h"

namespace test {

// ---- Outputs

// What a request may write. All of it begins as garbage that no request may read or release.
struct Outputs {
  Outputs();
  keymaster_key_blob_t key_blob;
  keymaster_key_characteristics_t characteristics;
  keymaster_blob_t data;
  keymaster_key_param_set_t params;
  keymaster_cert_chain_t chain;
  unsigned long number;  // an operation's handle, or what it consumed
  TsVerificationToken token;
  uint8_t hmac[2][32];
};

enum Output { kKeyBlob, kCharacteristics, kData, kParams, kChain, kNumbers, kOutputs };
constexpr const char* kOutputNames[] = {"key_blob", "characteristics", "data",
                                        "params",   "chain",           "numbers"};

// The states of an output, each a bit so that a contract can allow several. A broken one is none of
// the others: a length without bytes, bytes that are no block to be freed, or too few of them.
using States = uint8_t;
constexpr States kUntouched = 1, kEmpty = 2, kWhole = 4, kBroken = 8;

struct Observed {
  std::array<States, kOutputs> states;
  std::string content;  // of all whole outputs
  bool operator==(const Observed& other) const {
    return states == other.states && content == other.content;
  }
};

// How an output's memory is judged and released.
struct Blocks {
  bool (*holds)(const void* block, size_t length);
  void (*release)(const void* block);
};
extern const Blocks kPlainBlocks;  // believes everything and frees it

// Observe tells what became of the outputs, and releases them.
Observed Observe(Outputs* outputs, const Blocks& blocks);

// ---- Arguments

// What the arguments are made of. All of it ends where readable memory ends, and none changes.
struct Fixture {
  Fixture();
  std::map<std::string, Bytes> secrets;  // what no freed memory may hold, by label
  Fenced blob, ec_blob, client, input, long_input, rsa_pkcs8, ec_pkcs8, mask, transit_key;
  Fenced iv, description, payload, wrapper, pkcs8_wrapper, encrypted_transit_key, auth_token;
  ParamSet ec_params, rsa_params, operation_params, system_version, none;
};
const Fixture& fixture();

// Every argument that a method may have. Where several share a field, the comment says which.
struct Args {
  explicit Args(Outputs* o) : outputs(o) {}
  Outputs* outputs;
  // Of keys, operations, attestation, configuration.
  const keymaster_key_param_set_t* params = fixture().operation_params.get();
  const keymaster_key_param_set_t* unwrapping_params = fixture().none.get();
  keymaster_key_format_t format = KM_KEY_FORMAT_X509;
  keymaster_purpose_t purpose = KM_PURPOSE_SIGN;
  unsigned long handle = 7;
  // The TA's; of a wrapped import the wrapping key.
  const keymaster_key_blob_t* key = &fixture().blob.key;
  const keymaster_key_blob_t* mask = &fixture().mask.key;
  // A wrapper; an encrypted transit key; a payload.
  const keymaster_key_blob_t* wrapped = &fixture().wrapper.key;
  const keymaster_blob_t* client_id = &fixture().client.blob;
  const keymaster_blob_t* app_data = &fixture().client.blob;
  // Of operations; a key to import; an auth token; a transit key.
  const keymaster_blob_t* input = &fixture().input.blob;
  const keymaster_blob_t* signature = &fixture().input.blob;
  const keymaster_blob_t* iv = &fixture().iv.blob;
  const keymaster_blob_t* description = &fixture().description.blob;
  const uint8_t* sharing_params = fixture().input.blob.data;
  bool password_only = true;

  keymaster_key_blob_t* key_blob = &outputs->key_blob;
  keymaster_key_characteristics_t* characteristics = &outputs->characteristics;
  keymaster_blob_t* data = &outputs->data;
  keymaster_key_param_set_t* out_params = &outputs->params;
  keymaster_cert_chain_t* chain = &outputs->chain;
  unsigned long* number = &outputs->number;
  TsVerificationToken* token = &outputs->token;
  uint8_t* hmac1 = outputs->hmac[0];
  uint8_t* hmac2 = outputs->hmac[1];
};

// Changes of arguments: No<&Args::key, &Args::number> leaves these out, Hollow<&Args::key> has one
// say that it holds something.
template <auto... kArguments>
void No(Args* args) {
  ((args->*kArguments = nullptr), ...);
}
template <auto kArgument>
void Hollow(Args* args) {
  static std::remove_reference_t<decltype(*(args->*kArgument))> hollow = {nullptr, 32};
  args->*kArgument = &hollow;
}
template <size_t kLength>
void InputOf(Args* args) {
  static const keymaster_blob_t input = {fixture().long_input.data(), kLength};
  args->input = &input;
}

// ---- Requests

struct Request {
  const char *name, *method;
  int32_t (*call)(const Args& args);
  void (*set)(Args* args);         // null where nothing differs
  std::vector<uint32_t> commands;  // in their order, when all is well
  void Prepare(Args* args) const {
    if (set != nullptr) set(args);
  }
};
const std::vector<Request>& Requests();
const Request& FindRequest(std::string_view name);

// Arguments that a method does not accept, or only just does.
struct ArgumentCase {
  const char* request;
  const char* what;
  int32_t result;
  void (*set)(Args* args);           // what differs from the request's arguments, and
  std::vector<Param> params = {};    // its parameters, when there are any here
  std::vector<Output> emptied = {};  // the other outputs of a failure stay untouched
  size_t commands = 0;               // sent before it shows
};
const std::vector<ArgumentCase>& ArgumentCases();

// What an output of a method holds after each kind of failure: the promises of
// include/keymaster_tivas_context.h as data.
struct Contract {
  std::string_view method;
  Output output;
  States success;       // of each kind, 0 where it cannot be
  States preparing;     // serialising or allocating, before the last command was answered
  States tee;           // the TEE's error or the TA's
  States first_reply;   // a reply that does not decode, or is longer than its buffer
  States second_reply;  // the same of the second one: characteristics, data, verification token
  States copying;       // allocating or copying what was answered
};
const std::vector<Contract>& Contracts();
// Allowed is what an output may hold: Allowed("TivasKmBegin", kParams, &Contract::tee). An output
// that the contract does not name stays untouched.
States Allowed(std::string_view method, Output output, States Contract::*failure);

// ---- The TA

Reply AnswerTo(uint32_t command, const TEEC_Operation& operation);

}  // namespace test

#endif  // TESTS_REQUESTS_REQUESTS_H
