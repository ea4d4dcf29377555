// Every request of the library in one table, for tests, fuzz targets and benchmarks alike. Of the
// doubles it needs the header alone, and nothing of GoogleTest.
//
//   Args      the arguments of every method by name: inputs that are good, outputs that are garbage
//   Method    a method of the class, called with what it needs of Args
//   Request   a method, what it changes in Args, and the commands that it sends when all is well
//   AnswerTo  what a well-behaved TA answers to the commands of these requests (scripted_ta.cpp)
//   ArgumentCase  a request with arguments that are not accepted, or only just (argument_cases.cpp)
//   Contract  what each output holds after a failure (contract.h)
//
// To make a request, with a change of one's own:
//   Outputs outputs;
//   Args args(&outputs);
//   const Request& request = FindRequest("Begin");
//   request.Prepare(&args);
//   args.out_params = nullptr;
//   const int32_t result = request.method->call(args);
//   const Observed observed = Observe(&outputs, kPlainBlocks);  // and releases what there is
#ifndef TESTS_REQUESTS_REQUESTS_H
#define TESTS_REQUESTS_REQUESTS_H

#include <keymaster_tivas_context.h>

#include <array>
#include <map>
#include <string>
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
  explicit Args(Outputs* outputs);
  const keymaster_key_param_set_t* params;  // of keys, operations, attestation, configuration
  const keymaster_key_param_set_t* unwrapping_params;
  keymaster_key_format_t format = KM_KEY_FORMAT_X509;
  keymaster_purpose_t purpose = KM_PURPOSE_SIGN;
  unsigned long handle = 7;
  const keymaster_key_blob_t* key;  // the TA's; of a wrapped import the wrapping key
  const keymaster_key_blob_t* mask;
  const keymaster_key_blob_t* wrapped;  // a wrapper; an encrypted transit key; a payload
  const keymaster_blob_t *client_id, *app_data;
  const keymaster_blob_t* input;  // of operations; a key to import; an auth token; a transit key
  const keymaster_blob_t* signature;
  const keymaster_blob_t *iv, *description;
  const uint8_t* sharing_params;
  bool password_only = true;

  keymaster_key_blob_t* key_blob;
  keymaster_key_characteristics_t* characteristics;
  keymaster_blob_t* data;
  keymaster_key_param_set_t* out_params;
  keymaster_cert_chain_t* chain;
  unsigned long* number;
  TsVerificationToken* token;
  uint8_t *hmac1, *hmac2;
};

// ---- Requests

struct Method {
  const char* name;
  int32_t (*call)(const Args& args);
};
const Method& FindMethod(const std::string& name);

struct Request {
  const char* name;
  const Method* method;
  void (*set)(Args* args);         // null where nothing differs
  std::vector<uint32_t> commands;  // in their order, when all is well
  void Prepare(Args* args) const {
    if (set != nullptr) set(args);
  }
};
const std::vector<Request>& Requests();
const Request& FindRequest(const std::string& name);

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

// ---- The TA

constexpr uint32_t kUnexpectedInput = 0xF00D0002;  // the TA got what it must not get

Reply AnswerTo(uint32_t command, const TEEC_Operation& operation);

}  // namespace test

#endif  // TESTS_REQUESTS_REQUESTS_H
