// A hostile TA behind every method of the class: each result code, length and reply byte is the
// fuzzer's. Whatever it does, outputs can be released and are in the state that is documented,
// sessions are closed, and the library serves the next request.
//
// The input: a request's number, a byte of its variant, then what the TEE answers to its calls, and
// the next request. An open is one byte, 1 for the TA's first session; an answer is a byte and for
// each output a byte and its bytes. A first byte from kFailure on stands for a failure, and its
// code follows.
#include <keymaster/android_keymaster_utils.h>
#include <keymaster/authorization_set.h>
#include <keymaster_tivas_context.h>
#include <openssl/err.h>
#include <openssl/rsa.h>

#include <set>

#include "fuzz/scripted_tee.h"

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

constexpr uint8_t kFailure = 0xE0;
constexpr int kMostRequests = 6;

keymaster::KeymasterTivasContext g_km;

// ---- The TEE

// The codes of the failures that the present request met.
std::set<uint32_t> g_failures;
// The last value that the TA returned.
uint64_t g_value = 0;

TEEC_Result TakeResult(Input* input, uint8_t kind) {
  if (kind < kFailure) return TEEC_SUCCESS;
  const uint32_t code = input->U32();
  return *g_failures.insert(code != 0 ? code : 1).first;
}

TEEC_Result Open(Input* input, TEEC_Operation* operation) {
  const uint8_t kind = input->U8();
  operation->params[0].value.a = kind;
  return TakeResult(input, kind);
}

// Answers into one reference: the bytes and their number, or a number of the fuzzer's.
void AnswerReference(Input* input, TEEC_TempMemoryReference* output) {
  const uint8_t kind = input->U8();
  fuzz::Write(input->TakeSized(), output);
  if (kind >= kFailure) output->size = input->U32();
}

TEEC_Result Invoke(Input* input, TEEC_Operation* operation) {
  const TEEC_Result result = TakeResult(input, input->U8());
  for (unsigned i = 0; i < 4; ++i) {
    TEEC_Parameter* param = &operation->params[i];
    switch (TEEC_PARAM_TYPE_GET(operation->paramTypes, i)) {
      case TEEC_VALUE_OUTPUT:
      case TEEC_VALUE_INOUT:
        param->value.a = input->U32();
        param->value.b = input->U32();
        g_value = param->value.a | uint64_t{param->value.b} << 32;
        break;
      case TEEC_MEMREF_TEMP_OUTPUT:
      case TEEC_MEMREF_TEMP_INOUT:
        AnswerReference(input, &param->tmpref);
        break;
      default:
        break;
    }
  }
  return result;
}

// ---- Outputs

uint8_t g_garbage[8];
constexpr size_t kGarbageLength = 77;

// What a request may write; all of it begins as garbage.
struct Outputs {
  keymaster_key_blob_t key = {g_garbage, kGarbageLength};
  keymaster_key_param_set_t set = {reinterpret_cast<keymaster_key_param_t*>(g_garbage),
                                   kGarbageLength};
  keymaster_key_characteristics_t traits = {set, set};
  keymaster_blob_t data = {g_garbage, kGarbageLength};
  keymaster_cert_chain_t chain = {reinterpret_cast<keymaster_blob_t*>(g_garbage), kGarbageLength};
  unsigned long number = kGarbageLength;
};

// What a request promises of its outputs, each by its letter.
struct Promise {
  const char* writes;  // on success
  const char* may;     // a failure of the library's own may leave it empty
  const char* must;    // every failure leaves it empty; a V among them: what was verified stays
};

bool Has(const char* letters, char letter) { return strchr(letters, letter) != nullptr; }

// Checks an output that may be as it was, empty or whole, and releases it.
template <typename T>
void Settle(T* output, const void* bytes, size_t length, int32_t result, char letter,
            const Promise& promise) {
  const bool failed = result != 0;
  if (bytes == g_garbage) {
    Check(length == kGarbageLength, "an output is written as a whole");
    Check(failed || !Has(promise.writes, letter), "a success writes this output");
    Check(!failed || !Has(promise.must, letter), "a failure leaves this output empty");
    return;
  }
  // What the TEE refuses comes back with its code, before anything was made of a reply; only
  // operations clear their data before they ask.
  const bool refused = letter != 'd' && g_failures.count(static_cast<uint32_t>(result)) != 0;
  const bool may_be_whole = Has(promise.must, 'V') && !refused;
  Check(!failed || may_be_whole || (bytes == nullptr && length == 0), "a failure leaves no output");
  Check(!failed || (Has(promise.may, letter) && !refused) || Has(promise.must, letter),
        "a failure leaves this output untouched");
  fuzz::Release(output);
}

void SettleAll(Outputs* out, int32_t result, const Promise& promise) {
  const auto settle_set = [&](keymaster_key_param_set_t* set, char letter) {
    Settle(set, set->params, set->length, result, letter, promise);
  };
  Settle(&out->key, out->key.key_material, out->key.key_material_size, result, 'k', promise);
  settle_set(&out->traits.hw_enforced, 't');
  settle_set(&out->traits.sw_enforced, 't');
  settle_set(&out->set, 'p');
  Settle(&out->data, out->data.data, out->data.data_length, result, 'd', promise);
  Settle(&out->chain, out->chain.entries, out->chain.entry_count, result, 'c', promise);
  Check(result == 0 || out->number == kGarbageLength, "a failure leaves the number untouched");
}

// ---- What requests are made of

const uint8_t kText[] = "some bytes of the caller's, 32 .";
const keymaster_key_blob_t kKey = {kText, 32};
const keymaster_blob_t kBlob = {kText, 32};

keymaster_key_param_t Number(keymaster_tag_t tag, uint64_t value) {
  keymaster_key_param_t param = {};
  param.tag = tag;
  param.long_integer = value;
  return param;
}

keymaster_key_param_t Text(keymaster_tag_t tag) {
  keymaster_key_param_t param = {};
  param.tag = tag;
  param.blob = kBlob;
  return param;
}

keymaster_key_param_set_t RsaParams(uint8_t variant) {
  static keymaster_key_param_t params[3];
  params[0] = Number(KM_TAG_ALGORITHM, KM_ALGORITHM_RSA);
  params[1] = Number(KM_TAG_KEY_SIZE, 8u * variant);
  params[2] = Number(KM_TAG_RSA_PUBLIC_EXPONENT, 65537);
  return {params, 3};
}

const keymaster_key_param_set_t* Params() {
  static keymaster_key_param_t params[] = {
      Number(KM_TAG_ALGORITHM, KM_ALGORITHM_EC), Text(KM_TAG_ASSOCIATED_DATA),
      Number(KM_TAG_OS_VERSION, 110000), Number(KM_TAG_OS_PATCHLEVEL, 202011)};
  static const keymaster_key_param_set_t set = {params, 4};
  return &set;
}

keymaster_blob_t InputOf(uint8_t variant) {
  static const Bytes bytes(0x80000 + 1);
  constexpr size_t kLengths[] = {32, 0, 1, 16, 4032, 4033, 4096, 8000, 0x80000 + 1};
  return {bytes.data(), kLengths[variant % std::size(kLengths)]};
}

// A wrapper of a raw AES key with a user secure id and an auth token.
Bytes Wrapper() {
  Bytes out = {0x30, 0x82, 1, 0xAD, 2, 1, 0, 4, 0x82, 1, 0};
  const auto append = [&out](const Bytes& bytes) {
    out.insert(out.end(), bytes.begin(), bytes.end());
  };
  append(Bytes(256, 0x11));
  append({4, 12});
  append(Bytes(12, 0x22));
  append({0x30, 98, 2,    1,    3,    0x30, 93, 0xA2, 3, 2,    1,    32,   0xA3, 4, 2, 2,
          1,    0,  0xBF, 0x83, 0x76, 3,    2,  1,    7, 0xBF, 0x87, 0x6A, 71,   4, 69});
  Bytes token(69);
  token[25] = HW_AUTH_FINGERPRINT;
  append(token);
  append({4, 32});
  append(Bytes(32, 0x33));
  append({4, 16});
  append(Bytes(16, 0x44));
  return out;
}

// A blob of the kinds that own their bytes.
template <typename Blob>
struct Held : keymaster::TKeymasterBlob<Blob> {
  explicit Held(const Bytes& bytes) {
    keymaster::BlobData(*this) = keymaster::dup_buffer(bytes.data(), bytes.size());
    keymaster::BlobSize(*this) = bytes.size();
  }
};

// ---- Requests

using Run = int32_t (*)(uint8_t variant, Outputs* out);

struct Request {
  uint8_t number;  // the command's, where it is but one
  Promise promise;
  Run run;
};

int32_t Verify(uint8_t, Outputs* out) {
  out->set = {};
  TsVerificationToken token = {};
  token.parameters_verified = &out->set;
  return g_km.TivasVerifyAuthorization(5, Params(), &kBlob, &token);
}

int32_t Unwrap(uint8_t variant, Outputs* out) {
  const Held<keymaster_key_blob_t> wrapper(Wrapper());
  keymaster_key_blob_t key = kKey;
  keymaster_key_blob_t mask = {kText, variant % 33u};
  keymaster_key_param_set_t none = {};
  keymaster::AuthorizationSet list;
  keymaster_key_format_t format = KM_KEY_FORMAT_RAW;
  out->data = {};
  return g_km.TivasKmUnwrappedKey(&wrapper, &key, &none, &mask, &list, &format, &out->data);
}

int32_t ImportWrapped(uint8_t variant, Outputs* out) {
  static const Bytes bytes = Wrapper();
  const keymaster_key_blob_t wrapper = {bytes.data(), bytes.size()};
  const keymaster_key_blob_t mask = {kText, 32u - variant % 33u};
  const keymaster_key_param_set_t none = {};
  return g_km.TivasKmImportWrappedKeyNew(&wrapper, &kKey, &mask, &none, 1, 2, &out->key,
                                         &out->traits);
}

int32_t DecryptTransitKey(uint8_t, Outputs* out) {
  Held<keymaster_key_blob_t> transit(Bytes(256));
  keymaster_key_blob_t key = kKey;
  keymaster_key_param_set_t none = {};
  out->data = {};
  return g_km.DecryptTransitKeyMaterial(&key, &none, &transit, &out->data);
}

int32_t DecryptMaterial(uint8_t, Outputs* out) {
  keymaster_blob_t transit = kBlob;
  Held<keymaster_blob_t> iv(Bytes(12)), description(Bytes(20));
  Held<keymaster_key_blob_t> payload(Bytes(48));
  return g_km.WrappedKeyAesGcmDecrypt(&transit, &iv, &description, &payload, &out->data);
}

const Request kRequests[] = {
    {1,
     {"", "", ""},
     [](uint8_t, Outputs*) { return g_km.Initialize(keymaster::KmVersion::KEYMASTER_4_1); }},
    {101, {"", "", ""}, [](uint8_t, Outputs*) { return g_km.TivasKmConfigure(Params()); }},
    {102, {"", "", ""}, [](uint8_t, Outputs*) { return g_km.InitTeeContext(); }},
    {103, {"", "", ""}, [](uint8_t, Outputs*) { return g_km.FinishTeeContext(); }},
    {2,
     {"k", "kt", ""},
     [](uint8_t v, Outputs* o) {
       return g_km.TivasKmGenerateKey(Params(), &o->key, v == 1 ? nullptr : &o->traits);
     }},
    {104,
     {"kt", "kt", ""},
     [](uint8_t v, Outputs* o) {
       const keymaster_key_param_set_t params = RsaParams(v);
       return g_km.TivasKmGenerateKey(&params, &o->key, &o->traits);
     }},
    {3,
     {"t", "t", ""},
     [](uint8_t v, Outputs* o) {
       return g_km.TivasKmGetKeyCharacteristics(&kKey, v == 1 ? &kBlob : nullptr, nullptr,
                                                &o->traits);
     }},
    {4,
     {"k", "kt", ""},
     [](uint8_t v, Outputs* o) {
       return g_km.TivasKmImportKey(Params(), KM_KEY_FORMAT_RAW, &kBlob, &o->key,
                                    v == 1 ? nullptr : &o->traits);
     }},
    {5,
     {"d", "", "d"},
     [](uint8_t v, Outputs* o) {
       return g_km.TivasKmExportKey(KM_KEY_FORMAT_X509, &kKey, &kBlob, v == 1 ? &kBlob : nullptr,
                                    &o->data);
     }},
    {6,
     {"c", "c", ""},
     [](uint8_t, Outputs* o) { return g_km.TivasKmAttestKey(&kKey, Params(), &o->chain); }},
    {7,
     {"", "", ""},
     [](uint8_t, Outputs* o) { return g_km.TivasKmUpgradeKey(&kKey, Params(), &o->key); }},
    {8,
     {"p", "", "p"},
     [](uint8_t v, Outputs* o) {
       const int32_t result = g_km.TivasKmBegin(KM_PURPOSE_SIGN, &kKey, v == 1 ? nullptr : Params(),
                                                &o->set, &o->number);
       Check(result != 0 || o->number == g_value, "the handle is the TA's");
       return result;
     }},
    {9,
     {"pd", "", "pd"},
     [](uint8_t v, Outputs* o) {
       const keymaster_blob_t input = InputOf(v);
       const int32_t result =
           g_km.TivasKmUpdate(7, Params(), &input, &o->number, &o->set, &o->data);
       Check(result != 0 || o->number == input.data_length, "all input is consumed");
       return result;
     }},
    {109,
     {"pd", "", "pd"},
     [](uint8_t, Outputs* o) {
       return g_km.TivasKmUpdate(7, Params(), nullptr, nullptr, &o->set, &o->data);
     }},
    {10,
     {"pd", "", "pd"},
     [](uint8_t v, Outputs* o) {
       const keymaster_blob_t input = InputOf(v);
       return g_km.TivasKmFinishNew(7, Params(), &input, &kBlob, &o->set, &o->data);
     }},
    {11, {"", "", ""}, [](uint8_t, Outputs*) { return g_km.TivasKmAbort(7); }},
    {31, {"", "", ""}, [](uint8_t, Outputs*) { return g_km.TivasKmDeletekey(&kKey); }},
    {39, {"", "", "pV"}, Verify},
    {40, {"", "", ""}, [](uint8_t, Outputs*) { return g_km.TivasKmEarlyBootEnded(); }},
    {41, {"", "", ""}, [](uint8_t v, Outputs*) { return g_km.TivasKmDeviceLocked(v == 1); }},
    {64,
     {"", "", ""},
     [](uint8_t, Outputs*) {
       uint8_t first[32], second[32];
       return g_km.TivasgetHmacSharingParameters(first, 32, second, 32);
     }},
    {65,
     {"d", "", "d"},
     [](uint8_t, Outputs* o) {
       uint8_t params[64] = {};
       return g_km.TivascomputeSharedHmac(params, 64, &o->data);
     }},
    {120, {"kt", "kt", ""}, ImportWrapped},
    {121, {"d", "", "d"}, Unwrap},
    {122, {"d", "", "d"}, DecryptTransitKey},
    {123, {"d", "d", ""}, DecryptMaterial},
};

const Request& Find(uint8_t number) {
  for (const Request& request : kRequests) {
    if (request.number == number) return request;
  }
  return kRequests[number % std::size(kRequests)];
}

void ServeOneMore(bool context_changed) {
  fuzz::tee() = {};
  if (context_changed) Check(g_km.InitTeeContext() == 0, "the library can begin anew");
  Bytes reply(24);
  reply[0] = 1;
  reply[4] = 3;
  reply[7] = 0x30;
  reply[9] = 1;
  fuzz::AnswerWith(3, 2, reply);
  keymaster_key_characteristics_t traits = {};
  Check(g_km.TivasKmGetKeyCharacteristics(&kKey, nullptr, nullptr, &traits) == 0,
        "the next request is served");
  Check(traits.hw_enforced.length == 1 && traits.hw_enforced.params[0].tag == KM_TAG_KEY_SIZE,
        "the next request has its answer");
  fuzz::Release(&traits);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::EnsureTeeContext();
  Input input(data, size);
  fuzz::tee().initialize = [&input] { return TakeResult(&input, input.U8()); };
  fuzz::tee().open = [&input](TEEC_Operation* operation) { return Open(&input, operation); };
  fuzz::tee().invoke = [&input](uint32_t, TEEC_Operation* operation) {
    return Invoke(&input, operation);
  };
  bool context_changed = false;
  for (int i = 0; i < kMostRequests && !input.empty(); ++i) {
    const Request& request = Find(input.U8());
    const uint8_t variant = input.U8();
    Outputs out;
    g_failures.clear();
    const int32_t result = request.run(variant, &out);
    SettleAll(&out, result, request.promise);
    context_changed |= request.number == 1 || request.number == 102 || request.number == 103;
    Check(fuzz::OpenSessions() == 0, "every session but the TA's first is closed");
  }
  fuzz::DropFirstSessions();
  ServeOneMore(context_changed);
  ERR_clear_error();
  return 0;
}
