// A hostile TA behind every request: each result code, length and reply byte is the fuzzer's.
// Whatever it does, outputs are as their contract says, sessions are closed, and the library serves
// the next request.
//
// The input: a request's number in the table, a byte of its variant, then what the TEE answers to
// its calls, and the next request. An open is one byte, 1 for the TA's first session; an answer is
// a byte and for each output a byte and its bytes. A first byte from kFailure on stands for a
// failure, and its code follows.
#include <openssl/rsa.h>

#include "fuzz/serve.h"
#include "wire/little_endian.h"

// Makes an RSA key of that size at once: the numbers are no key's.
int RSA_generate_key_ex(RSA* key, int bits, BIGNUM* e, BN_GENCB*) {
  const auto number = [](int size) {
    BIGNUM* out = BN_new();
    if (BN_set_word(out, 1) != 1 || BN_lshift(out, out, size - 1) != 1) abort();
    return out;
  };
  return RSA_set0_key(key, number(bits), BN_dup(e), number(bits)) == 1 &&
         RSA_set0_factors(key, number(bits / 2), number(bits / 2)) == 1 &&
         RSA_set0_crt_params(key, number(bits / 2), number(bits / 2), number(bits / 2)) == 1;
}

namespace {

using fuzz::Bytes;
using fuzz::Check;
using fuzz::Input;
using fuzz::platform;
using fuzz::Reply;
using test::Args;
using test::Invocation;
using test::Request;

constexpr int kMostRequests = 6;

// ---- The TEE

constexpr uint8_t kFailure = 0xE0;
constexpr uint8_t kUsual = 1;    // of a reference: what a well-behaved TA answers
constexpr uint8_t kChanged = 2;  // the same with bytes of the fuzzer's somewhere

// The last value that the TA returned.
uint64_t g_value = 0;

TEEC_Result ReadResult(Input* input, uint8_t kind) {
  return kind < kFailure ? TEEC_SUCCESS : std::max(1u, input->U32());
}

Reply Open(Input* input) {
  const uint8_t kind = input->U8();
  return Reply::Fail(ReadResult(input, kind)).Value(0, kind, 0);
}

// No byte is that of unwritten outputs, so that what was written shows.
Bytes Written(Bytes bytes) {
  static const uint8_t unwritten = test::Outputs().hmac[0][0];
  std::replace(bytes.begin(), bytes.end(), unwritten, static_cast<uint8_t>(unwritten + 1));
  return bytes;
}

// Has one reference get the usual bytes and their number, or others or a number of the fuzzer's.
void AnswerReference(Input* input, unsigned index, const test::SeenParam& output, Reply* reply) {
  const uint8_t kind = input->U8();
  Bytes& bytes = reply->outputs[index];
  if (kind == kChanged) {
    const size_t at = std::min<size_t>(input->U16(), bytes.size());
    const Bytes change = input->ReadSized();
    std::copy_n(change.begin(), std::min(change.size(), bytes.size() - at),
                bytes.begin() + static_cast<ptrdiff_t>(at));
  } else if (kind != kUsual) {
    bytes = input->ReadSized();
  }
  bytes = fuzz::Truncate(Written(bytes), output);
  if (kind >= kFailure) reply->Size(index, input->U32());
}

void AnswerValue(Input* input, unsigned index, Reply* reply) {
  const Bytes bytes = Written(test::Le64(input->U64()));
  reply->Value(index, km41::GetU32(&bytes[0]), km41::GetU32(&bytes[4]));
  g_value = km41::GetU64(&bytes[0]);
}

Reply AnswerWell(const Invocation& invocation) {
  return test::AnswerTo(invocation.command, *invocation.operation);
}

Reply Answer(Input* input, const Invocation& invocation) {
  Reply reply = AnswerWell(invocation);
  reply.result = ReadResult(input, input->U8());
  for (unsigned i = 0; i < 4; ++i) {
    const uint32_t type = TEEC_PARAM_TYPE_GET(invocation.param_types, i);
    if (type == TEEC_VALUE_OUTPUT || type == TEEC_VALUE_INOUT) {
      AnswerValue(input, i, &reply);
    } else if (type >= TEEC_MEMREF_TEMP_OUTPUT) {
      AnswerReference(input, i, invocation.params[i], &reply);
    }
  }
  return reply;
}

// ---- Requests

// The table's, and the two that no TA sees.
const std::vector<Request>& AllRequests() {
  static keymaster::KeymasterTivasContext km;
  static const std::vector<Request> all = [] {
    std::vector<Request> requests = test::Requests();
    requests.push_back({"InitTeeContext",
                        "InitTeeContext",
                        [](const Args&) { return km.InitTeeContext(); },
                        nullptr,
                        {}});
    requests.push_back({"FinishTeeContext",
                        "FinishTeeContext",
                        [](const Args&) { return km.FinishTeeContext(); },
                        nullptr,
                        {}});
    return requests;
  }();
  return all;
}

// A change of a request's arguments, in which a number may make a difference.
struct Variant {
  std::vector<std::string_view> methods;
  void (*set)(Args* args, uint8_t number);
};

void SetInputLength(Args* args, uint8_t number) {
  static const Bytes bytes(0x80000 + 1);
  constexpr size_t kLengths[] = {0, 1, 16, 32, 4032, 4033, 4096, 8000, 0x80000 + 1};
  static keymaster_blob_t input;
  input = {bytes.data(), kLengths[number % std::size(kLengths)]};
  args->input = args->input != nullptr ? &input : nullptr;
}

void SetMaskLength(Args* args, uint8_t number) {
  static keymaster_key_blob_t mask;
  mask = {args->mask->key_material, number % (args->mask->key_material_size + 1)};
  args->mask = &mask;
}

void SetRsaSize(Args* args, uint8_t number) {
  static test::ParamSet params({{KM_TAG_ALGORITHM, KM_ALGORITHM_RSA},
                                {KM_TAG_KEY_SIZE, 0},
                                {KM_TAG_RSA_PUBLIC_EXPONENT, 65537}});
  params[1].integer = 128u * number;
  args->params = params.get();
}

const Variant kVariants[] = {
    {{"TivasKmGenerateKey"}, SetRsaSize},
    {{"TivasKmGenerateKey", "TivasKmImportKey", "TivasKmImportWrappedKeyNew"},
     [](Args* args, uint8_t) { args->characteristics = nullptr; }},
    {{"TivasKmImportWrappedKeyNew", "TivasKmUnwrappedKey"}, SetMaskLength},
    {{"TivasKmExportKey", "TivasKmGetKeyCharacteristics"},
     [](Args* args, uint8_t) { args->client_id = nullptr; }},
    {{"TivasKmExportKey", "TivasKmGetKeyCharacteristics"},
     [](Args* args, uint8_t) { args->app_data = nullptr; }},
    {{"TivasKmUpdate", "TivasKmFinishNew", "TivasKmFinishLarge"}, SetInputLength},
    {{"TivasKmBegin", "TivasKmFinish", "TivasKmFinishNew"},
     [](Args* args, uint8_t) { args->params = nullptr; }},
    {{"TivasKmBegin", "TivasKmUpdate", "TivasKmFinish", "TivasKmFinishNew", "TivasKmFinishLarge"},
     [](Args* args, uint8_t) { args->out_params = nullptr; }},
    {{"TivasKmUpdate", "TivasKmFinish", "TivasKmFinishNew"},
     [](Args* args, uint8_t) { args->data = nullptr; }},
    {{"TivasKmFinish", "TivasKmFinishNew"}, [](Args* args, uint8_t) { args->input = nullptr; }},
    {{"TivasKmFinish", "TivasKmFinishNew", "TivasKmFinishLarge"},
     [](Args* args, uint8_t) { args->signature = nullptr; }},
    {{"TivasKmDeviceLocked"}, [](Args* args, uint8_t) { args->password_only = false; }},
};

// Has one variant of the request, or none.
void Vary(std::string_view method, uint8_t number, Args* args) {
  std::vector<const Variant*> fitting = {nullptr};
  for (const Variant& variant : kVariants) {
    const auto& methods = variant.methods;
    if (std::count(methods.begin(), methods.end(), method) != 0) fitting.push_back(&variant);
  }
  const auto count = static_cast<uint8_t>(fitting.size());
  if (const Variant* variant = fitting[number % count]) variant->set(args, number / count);
}

// What the contract does not say: whose numbers they are, and that the TA hears of an operation
// that nobody will use.
void CheckOperation(std::string_view method, int32_t result, const Args& args) {
  const bool begin = method == "TivasKmBegin";
  if (!begin && (method != "TivasKmUpdate" || args.input == nullptr)) return;
  if (result == 0) {
    Check(*args.number == (begin ? g_value : args.input->data_length),
          begin ? "the handle is the TA's" : "all input is consumed");
    return;
  }
  // Of the command itself: an abort answers for itself alone.
  const auto& answers = platform().answers;
  const auto failed = [](const auto& answer) {
    return answer.second != TEEC_SUCCESS && answer.first != km41::kCmdAbort;
  };
  if (result == KM_ERROR_MEMORY_ALLOCATION_FAILED &&
      std::none_of(answers.begin(), answers.end(), failed)) {
    const auto ends = [](const auto& answer) { return answer.first == km41::kCmdAbort; };
    Check(std::count_if(answers.begin(), answers.end(), ends) == 1,
          "what cannot be decoded ends its operation");
  }
}

fuzz::Served ServeWell(const Request& request) {
  static_cast<test::Script&>(platform()) = {};
  platform().any = AnswerWell;
  fuzz::EnsureTeeContext();
  return fuzz::Serve(request);
}

// The request of that number is served as it was before any other.
void CheckServed(size_t number) {
  static const std::vector<fuzz::Served> expected = [] {
    std::vector<fuzz::Served> all;
    for (const Request& request : test::Requests()) {
      all.push_back(ServeWell(request));
      Check(all.back().result == 0, "every request is served");
    }
    return all;
  }();
  number %= expected.size();
  const fuzz::Served served = ServeWell(test::Requests()[number]);
  Check(served.result == 0 && served.observed == expected[number].observed,
        "the next request has its answer");
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool served_all = (CheckServed(0), true);
  Check(served_all, "all requests are served at first");
  Input input(data, size);
  platform().init = [&input] { return Reply::Fail(ReadResult(&input, input.U8())); };
  platform().open = [&input] { return Open(&input); };
  platform().any = [&input](const Invocation& invocation) { return Answer(&input, invocation); };
  size_t number = 0;
  for (int i = 0; i < kMostRequests && !input.empty(); ++i) {
    number = input.U8() % AllRequests().size();
    const Request& request = AllRequests()[number];
    const std::string_view method = request.method;
    const uint8_t variant = input.U8();
    fuzz::Serve(
        request, [&](Args* args) { Vary(method, variant, args); },
        [&](int32_t result, const Args& args) { CheckOperation(method, result, args); });
  }
  CheckServed(number);
  return 0;
}
