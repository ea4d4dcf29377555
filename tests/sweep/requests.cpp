#include "tests/sweep/requests.h"

#include <keymaster/android_keymaster_utils.h>
#include <keymaster/authorization_set.h>
#include <keymaster_ts.h>
#include <string.h>

#include "tests/sweep/library_hooks.h"
#include "tests/sweep/scripted_ta.h"

namespace test {
namespace {

using Context = keymaster::KeymasterTivasContext;
using KeyHolder = keymaster::TKeymasterBlob<keymaster_key_blob_t>;
using BytesHolder = keymaster::TKeymasterBlob<keymaster_blob_t>;

constexpr uint8_t kGarbage[1] = {};
constexpr size_t kGarbageLength = 77;

// ---- What became of the outputs

std::string Hex(const Bytes& bytes) {
  std::string out;
  for (const uint8_t byte : bytes)
    out += {"0123456789abcdef"[byte >> 4], "0123456789abcdef"[byte & 15]};
  return out;
}

std::string Describe(const void* bytes, size_t length,
                     const std::function<std::string()>& content) {
  if (bytes == kGarbage) return length == kGarbageLength ? "u" : "x";
  if (bytes == nullptr) return length == 0 ? "e" : "x";
  return IsOutput(bytes, length) ? "w " + content() : "x";
}

std::string DescribeBytes(const uint8_t* bytes, size_t length) {
  return Describe(bytes, length, [&] { return Hex(Bytes(bytes, bytes + length)); });
}

std::string DescribeSet(const keymaster_key_param_set_t& set) {
  std::string out = Describe(set.params, set.length, [] { return ""; });
  if (out[0] != 'w') return out;
  if (!IsOutput(set.params, set.length * sizeof(*set.params))) return "x";
  for (size_t i = 0; i < set.length; ++i) {
    const keymaster_key_param_t& param = set.params[i];
    if (!IsByteValued(static_cast<uint32_t>(param.tag))) continue;
    if (DescribeBytes(param.blob.data, param.blob.data_length)[0] == 'x') return "x";
  }
  return out + test::Describe(set);
}

std::string DescribeChain(const keymaster_cert_chain_t& chain) {
  std::string out = Describe(chain.entries, chain.entry_count, [] { return ""; });
  if (out[0] != 'w') return out;
  if (!IsOutput(chain.entries, chain.entry_count * sizeof(*chain.entries))) return "x";
  for (size_t i = 0; i < chain.entry_count; ++i) {
    const std::string entry = DescribeBytes(chain.entries[i].data, chain.entries[i].data_length);
    if (entry[0] != 'w') return "x";
    out += entry;
  }
  return out;
}

// Two states as one: the same, or the more telling of them.
std::string Join(const std::string& a, const std::string& b) {
  if (a == b || b == "e") return a;
  if (a == "e") return b;
  return a[0] == 'w' && b[0] == 'w' ? a + " | " + b : "x";
}

void ReleaseBytes(const uint8_t* bytes) {
  if (bytes != kGarbage) ReleaseOutput(bytes);
}

void ReleaseSet(const keymaster_key_param_set_t& set) {
  const void* params = set.params;
  if (params == kGarbage) return;
  for (size_t i = 0; i < set.length; ++i) {
    if (IsByteValued(static_cast<uint32_t>(set.params[i].tag)))
      ReleaseBytes(set.params[i].blob.data);
  }
  ReleaseOutput(params);
}

template <typename T>
T* Garbage() {
  return reinterpret_cast<T*>(const_cast<uint8_t*>(kGarbage));
}

// ---- Codes

constexpr int32_t kNoMemory = KM_ERROR_MEMORY_ALLOCATION_FAILED;
constexpr int32_t kUnknown = KM_ERROR_UNKNOWN_ERROR;
constexpr int32_t kFormat = KM_ERROR_UNSUPPORTED_KEY_FORMAT;
constexpr int32_t kArgument = KM_ERROR_INVALID_ARGUMENT;
constexpr int32_t kPurpose = KM_ERROR_INCOMPATIBLE_PURPOSE;
constexpr int32_t kEnomem = -12;
constexpr int32_t kEinval = -22;
constexpr int32_t kTeeGeneric = static_cast<int32_t>(TEEC_ERROR_GENERIC);
constexpr int32_t kTeeParameters = static_cast<int32_t>(TEEC_ERROR_BAD_PARAMETERS);
constexpr int32_t kTeeNoMemory = static_cast<int32_t>(TEEC_ERROR_OUT_OF_MEMORY);

// By what a request does beside sending commands: nothing, decode a reply, copy one, take data.
const Outcomes kSends = {{kTeeNoMemory}, {}, {kTeeGeneric}, {}, {}};
const Outcomes kDecodes = {
    {kNoMemory, kTeeNoMemory}, {kNoMemory}, {kNoMemory, kTeeGeneric}, {}, {kNoMemory}};
const Outcomes kCopies = {{kNoMemory, kTeeNoMemory},
                          {kNoMemory, kUnknown},
                          {kNoMemory, kTeeGeneric},
                          {},
                          {kNoMemory, kUnknown}};
const Outcomes kProcesses = {
    kCopies.allocation, {kNoMemory, kUnknown, kTeeGeneric}, kCopies.clear, {}, kCopies.reply};

Outcomes Generates() {
  Outcomes out = kCopies;
  out.crypto = {kNoMemory, kUnknown};
  return out;
}
Outcomes ImportsPkcs8() {
  Outcomes out = kCopies;
  out.copy.insert(kFormat);
  out.crypto = {kFormat};
  return out;
}
Outcomes Exports() {
  Outcomes out = kDecodes;
  out.allocation.insert(kArgument);
  out.crypto = {kArgument};
  out.reply = {kUnknown, kArgument};
  return out;
}
Outcomes Attests() {
  Outcomes out = kCopies;
  out.clear.insert(kUnknown);
  return out;
}
Outcomes Verifies() {
  Outcomes out = kCopies;
  out.reply.insert(KM_ERROR_VERIFICATION_FAILED);
  return out;
}
// An unwrapped key without bytes is refused by TeeImportKey.
Outcomes Unwraps() {
  Outcomes out = kProcesses;
  out.reply.insert({kArgument, kPurpose, kTeeParameters});
  return out;
}

// ---- Inputs

const keymaster_key_param_set_t* Params(int64_t algorithm) {
  static ParamSet ec({{KM_TAG_ALGORITHM, KM_ALGORITHM_EC},
                      {KM_TAG_KEY_SIZE, 256},
                      {KM_TAG_APPLICATION_ID, Text("client")}});
  static ParamSet rsa({{KM_TAG_ALGORITHM, KM_ALGORITHM_RSA},
                       {KM_TAG_KEY_SIZE, 512},
                       {KM_TAG_RSA_PUBLIC_EXPONENT, 65537}});
  return algorithm == KM_ALGORITHM_RSA ? rsa.get() : ec.get();
}

const keymaster_key_param_set_t* OperationParams() {
  static ParamSet set({{KM_TAG_NONCE, Ramp(9, 12)}, {KM_TAG_ASSOCIATED_DATA, Ramp(1, 20)}});
  return set.get();
}

keymaster_key_param_set_t* NoParams() {
  static keymaster_key_param_set_t none{};
  return &none;
}

keymaster_key_blob_t* Key(const Bytes& bytes) {
  thread_local keymaster_key_blob_t key;
  key = KeyBlob(bytes);
  return &key;
}

const Bytes& LongInput() {
  static const Bytes input = Ramp(0, 0x80000 + 1);
  return input;
}

struct Holders {
  Holders() {
    Hold(Ramp(1, 256), &transit.key_material, &transit.key_material_size);
    Hold(Ramp(2, 48), &payload.key_material, &payload.key_material_size);
    Hold(fixture().wrapper, &wrapper.key_material, &wrapper.key_material_size);
    Hold(Ramp(3, 12), &iv.data, &iv.data_length);
    Hold(Ramp(4, 20), &description.data, &description.data_length);
  }
  static void Hold(const Bytes& bytes, const uint8_t** data, size_t* length) {
    *data = keymaster::dup_buffer(bytes.data(), bytes.size());
    *length = bytes.size();
  }
  KeyHolder transit, payload, wrapper;
  BytesHolder iv, description;
};

// ---- Rows of one kind

int32_t Import(keymaster_key_format_t format, const Bytes& key, Outputs* o) {
  const keymaster_blob_t data = Blob(key);
  return Context().TivasKmImportKey(Params(KM_ALGORITHM_EC), format, &data, &o->key, &o->traits);
}

int32_t Export(const Bytes& key, Outputs* o) {
  const Bytes client = Text("client");
  const keymaster_blob_t blob = Blob(client);
  return Context().TivasKmExportKey(KM_KEY_FORMAT_X509, Key(key), &blob, &blob, &o->data);
}

// Buffers of a Tee* function; what it writes back becomes the outputs' numbers.
struct TeeBuffers {
  uint8_t a[4096] = {}, b[4096] = {};
  uint32_t a_length = sizeof(a), b_length = sizeof(b);
  uint64_t wide = sizeof(b);
};
template <typename Call>
std::function<int32_t(Outputs*)> Tee(Call call) {
  return [call](Outputs* o) {
    static const Bytes input = Ramp(8, 24);
    TeeBuffers t;
    const auto result = static_cast<int32_t>(call(input.data(), 24u, &t));
    if (t.a_length != sizeof(t.a)) o->number[0] = t.a_length;
    if (t.b_length != sizeof(t.b)) o->number[1] = t.b_length;
    if (t.wide != sizeof(t.b)) o->number[2] = t.wide;
    return result;
  };
}

int32_t AddMany(Outputs* o) {
  KmParams record{};
  int32_t result = InitKmParams(&record);
  const keymaster_key_param_set_t& set = *OperationParams();
  for (uint32_t i = 0; result == 0 && i < 18; ++i) {
    result = AddKmParams(&record, &set.params[i % 2]);
    // A failed addition leaves the record as it was.
    if (record.len != (result == 0 ? i + 1 : i)) result = kInputError;
  }
  uint8_t* bytes = nullptr;
  uint32_t length = 0;
  if (result == 0) result = SerializeKmParams(nullptr, &record, &bytes, &length);
  if (result == 0) o->data = {bytes, length};
  FreeKmParams(&record);
  return result;
}

int32_t ErrorRecord(uint32_t command) {
  TEEC_Context context{};
  TEEC_Session session{};
  TEEC_Operation open{};
  open.started = 1;
  const TEEC_UUID uuid{};
  if (TEEC_InitializeContext(nullptr, &context) == 0) {
    if (TEEC_OpenSession(&context, &session, &uuid, 7, nullptr, &open, nullptr) == 0) {
      ObtainTaErrorCode(&session, command, kTaError);
      TEEC_CloseSession(&session);
    }
    TEEC_FinalizeContext(&context);
  }
  return 0;
}

std::vector<Request> MakeRequests() {
  const Fixture& f = fixture();
  return {
      {"Initialize",
       [](Outputs*) { return Context().Initialize(keymaster::KmVersion::KEYMASTER_4_1); },
       "",
       kSends,
       {},
       {},
       true},
      {"InitTeeContext",
       [](Outputs*) {
         const int32_t result = Context().InitTeeContext();
         return result != 0 ? result : Context().FinishTeeContext();
       },
       "",
       kSends,
       {},
       {},
       true},
      {"WithoutTheTa",
       [](Outputs*) {
         return Context().TivasKmAddRngEntropy(kGarbage, 1) | Context().TivasKmDeleteAllKeys() |
                Context().TivasKmDestroyAttestationIds();
       },
       "",
       {}},
      {"GenerateEc",
       [](Outputs* o) {
         return Context().TivasKmGenerateKey(Params(KM_ALGORITHM_EC), &o->key, &o->traits);
       },
       "k:ue t:ue", kCopies},
      {"GenerateRsa",
       [](Outputs* o) {
         return Context().TivasKmGenerateKey(Params(KM_ALGORITHM_RSA), &o->key, &o->traits);
       },
       "k:ue t:ue", Generates()},
      {"ImportRaw", [&f](Outputs* o) { return Import(KM_KEY_FORMAT_RAW, f.mask, o); }, "k:ue t:ue",
       kCopies},
      {"ImportRsa", [&f](Outputs* o) { return Import(KM_KEY_FORMAT_PKCS8, f.rsa_pkcs8, o); },
       "k:ue t:ue", ImportsPkcs8()},
      {"ImportEc", [&f](Outputs* o) { return Import(KM_KEY_FORMAT_PKCS8, f.ec_pkcs8, o); },
       "k:ue t:ue", ImportsPkcs8()},
      {"ExportRsa", [&f](Outputs* o) { return Export(f.blob, o); }, "d:e", Exports()},
      {"ExportEc", [&f](Outputs* o) { return Export(f.ec_blob, o); }, "d:e", Exports()},
      {"GetKeyCharacteristics",
       [&f](Outputs* o) {
         const keymaster_blob_t client = Blob(f.ec_blob);
         return Context().TivasKmGetKeyCharacteristics(Key(f.blob), &client, &client, &o->traits);
       },
       "t:ue", kDecodes},
      {"UpgradeKey",
       [&f](Outputs* o) {
         return Context().TivasKmUpgradeKey(Key(f.blob), OperationParams(), &o->key);
       },
       "", kCopies},
      {"Deletekey", [&f](Outputs*) { return Context().TivasKmDeletekey(Key(f.blob)); }, "", kSends},
      {"AttestKey",
       [&f](Outputs* o) {
         return Context().TivasKmAttestKey(Key(f.blob), OperationParams(), &o->chain);
       },
       "c:ue", Attests()},
      {"Begin",
       [&f](Outputs* o) {
         return Context().TivasKmBegin(KM_PURPOSE_ENCRYPT, Key(f.blob), OperationParams(),
                                       &o->params, &o->number[0]);
       },
       "p:e", kDecodes},
      {"Update",
       [](Outputs* o) {
         const keymaster_blob_t input = Blob(LongInput());
         return Context().TivasKmUpdate(7, OperationParams(), &input, &o->number[0], &o->params,
                                        &o->data);
       },
       "p:e d:e", kProcesses},
      {"UpdateAssociatedData",
       [](Outputs* o) {
         return Context().TivasKmUpdate(7, OperationParams(), nullptr, nullptr, &o->params,
                                        &o->data);
       },
       "p:e d:e", kProcesses},
      {"FinishNew",
       [](Outputs* o) {
         const Bytes bytes = Ramp(1, 40);
         const keymaster_blob_t input = Blob(bytes);
         return Context().TivasKmFinishNew(7, OperationParams(), &input, &input, &o->params,
                                           &o->data);
       },
       "p:e d:e", kProcesses},
      {"FinishLarge",
       [](Outputs* o) {
         const keymaster_blob_t input = {LongInput().data(), 4100};
         return Context().TivasKmFinishNew(7, OperationParams(), &input, &input, &o->params,
                                           &o->data);
       },
       "p:e d:e", kProcesses},
      {"Abort", [](Outputs*) { return Context().TivasKmAbort(7); }, "", kSends},
      {"ImportWrappedKey",
       [&f](Outputs* o) {
         const keymaster_key_blob_t wrapper = KeyBlob(f.wrapper);
         const keymaster_key_blob_t mask = KeyBlob(f.mask);
         return Context().TivasKmImportWrappedKeyNew(&wrapper, Key(f.blob), &mask, NoParams(), 1, 2,
                                                     &o->key, &o->traits);
       },
       "k:ue t:ue", Unwraps()},
      {"UnwrappedKey",
       [&f](Outputs* o) {
         const Holders h;
         keymaster_key_blob_t mask = KeyBlob(f.mask);
         keymaster::AuthorizationSet list;
         keymaster_key_format_t format;
         o->data = {};
         return Context().TivasKmUnwrappedKey(&h.wrapper, Key(f.blob), NoParams(), &mask, &list,
                                              &format, &o->data);
       },
       "d:e", Unwraps()},
      {"DecryptTransitKeyMaterial",
       [&f](Outputs* o) {
         Holders h;
         o->data = {};
         return Context().DecryptTransitKeyMaterial(Key(f.blob), NoParams(), &h.transit, &o->data);
       },
       "d:e", kProcesses},
      {"WrappedKeyAesGcmDecrypt",
       [&f](Outputs* o) {
         Holders h;
         keymaster_blob_t transit = Blob(f.transit);
         return Context().WrappedKeyAesGcmDecrypt(&transit, &h.iv, &h.description, &h.payload,
                                                  &o->data);
       },
       "d:ue", kProcesses},
      {"VerifyAuthorization",
       [&f](Outputs* o) {
         const keymaster_blob_t token = Blob(f.wrapper);
         o->params = {};
         TsVerificationToken out{kUntouched, kUntouched, &o->params, 0, {}};
         const int32_t result =
             Context().TivasVerifyAuthorization(5, OperationParams(), &token, &out);
         if (out.parameters_verified != &o->params) return static_cast<int32_t>(kInputError);
         o->number[0] = out.challenge;
         o->number[1] = out.timestamp;
         if (out.mac[31] != 0) o->number[2] = out.mac[31];
         return result;
       },
       "p:ew", Verifies()},
      {"EarlyBootEnded", [](Outputs*) { return Context().TivasKmEarlyBootEnded(); }, "", kSends},
      {"DeviceLocked", [](Outputs*) { return Context().TivasKmDeviceLocked(true); }, "", kSends},
      {"GetHmacSharingParameters",
       [](Outputs*) {
         uint8_t a[32], b[32];
         return Context().TivasgetHmacSharingParameters(a, 32, b, 32);
       },
       "", kSends},
      {"ComputeSharedHmac",
       [](Outputs* o) {
         uint8_t in[9] = {};
         return Context().TivascomputeSharedHmac(in, sizeof(in), &o->data);
       },
       "d:e",
       {kCopies.allocation, {kUnknown}, {kTeeGeneric}, {}, {kUnknown}}},
      // The marshalling functions.
      {"BuildKmParams",
       [](Outputs* o) {
         uint8_t* bytes = nullptr;
         uint32_t length = 0;
         const int32_t result = BuildKmParams(Params(KM_ALGORITHM_EC), &bytes, &length);
         if (bytes != nullptr) o->data = {bytes, length};
         return result;
       },
       "",
       {{kEnomem}, {kEnomem}, {kEnomem}, {}, {}}},
      {"AddKmParams", AddMany, "", {{kEnomem}, {kEnomem}, {kEnomem}, {}, {}}},
      {"BuildKeyCharacter",
       [&f](Outputs* o) {
         return BuildKeyCharacter(f.traits.data(), static_cast<uint32_t>(f.traits.size()),
                                  &o->traits);
       },
       "t:e",
       {{kEnomem}, {kEnomem}, {}, {}, {}}},
      {"BuildKeyParamSet",
       [&f](Outputs* o) {
         o->params = {};
         return BuildKeyParamSet(&o->params, f.params.data(),
                                 static_cast<uint32_t>(f.params.size()));
       },
       "p:e",
       {{kEnomem}, {kEnomem}, {}, {}, {}}},
      {"BuildFinalInput",
       [&f](Outputs* o) {
         const keymaster_blob_t part = Blob(f.mask);
         return BuildFinalInput(&part, &part, &o->data);
       },
       "",
       {{kEnomem}, {kEnomem}, {}, {}, {}}},
      {"BuildVerifyAuthInput",
       [&f](Outputs* o) {
         const keymaster_blob_t token = Blob(f.mask);
         const uint64_t challenge = 5;
         return static_cast<int32_t>(BuildVerifyAuthInput(&challenge, &token, &o->data));
       },
       "",
       {{kNoMemory}, {kUnknown}, {}, {}, {}}},
      // The commands on their own.
      {"TeeKmConfigure",
       Tee([](const uint8_t*, uint32_t, TeeBuffers*) { return TeeKmConfigure(1, 2); }), "", kSends},
      {"TeeGenerateKey", Tee([](const uint8_t* in, uint32_t length, TeeBuffers* t) {
         return TeeGenerateKey(in, length, t->a, &t->a_length, t->b, &t->b_length);
       }),
       "", kSends},
      {"TeeGetKeyCharacteristics", Tee([](const uint8_t* in, uint32_t length, TeeBuffers* t) {
         return TeeGetKeyCharacteristics(in, length, in, length, t->a, &t->a_length);
       }),
       "", kSends},
      {"TeeImportKey", Tee([](const uint8_t* in, uint32_t length, TeeBuffers* t) {
         return TeeImportKey(in, length, in, length, t->a, &t->a_length, t->b, &t->b_length, 1);
       }),
       "", kSends},
      {"TeeExportKey", Tee([](const uint8_t* in, uint32_t length, TeeBuffers* t) {
         return TeeExportKey(in, length, in, length, t->a, &t->a_length);
       }),
       "", kSends},
      {"TeeAttestKey", Tee([](const uint8_t* in, uint32_t length, TeeBuffers* t) {
         return TeeAttestKey(in, length, in, length, t->a, &t->a_length);
       }),
       "", kSends},
      {"TeeUpgrade", Tee([](const uint8_t* in, uint32_t length, TeeBuffers* t) {
         return TeeUpgrade(in, length, in, length, t->a, &t->a_length);
       }),
       "", kSends},
      {"TeeBegin", Tee([](const uint8_t* in, uint32_t length, TeeBuffers* t) {
         return TeeBegin(1, in, length, in, length, t->a, &t->a_length, &t->wide);
       }),
       "", kSends},
      {"TeeUpdate",
       Tee([](const uint8_t* in, uint32_t length, TeeBuffers* t) {
         return TeeUpdate(7, in, length, in, &length, t->a, &t->a_length, t->b, &t->b_length);
       }),
       "",
       {{kTeeNoMemory}, {kTeeGeneric}, {kTeeGeneric}, {}, {}}},
      {"TeeFinish",
       Tee([](const uint8_t* in, uint32_t length, TeeBuffers* t) {
         return TeeFinish(7, in, length, in, length, t->a, &t->a_length, t->b, &t->b_length);
       }),
       "",
       {{kTeeNoMemory}, {kTeeGeneric}, {kTeeGeneric}, {}, {}}},
      {"TeeAbort", Tee([](const uint8_t*, uint32_t, TeeBuffers*) { return TeeAbort(7); }), "",
       kSends},
      {"TeeDeleteKey", Tee([](const uint8_t* in, uint32_t length, TeeBuffers*) {
         return TeeDeleteKey(in, length);
       }),
       "", kSends},
      {"TeeVerifyAuthorization", Tee([](const uint8_t* in, uint32_t length, TeeBuffers* t) {
         return TeeVerifyAuthorization(in, length, in, &length, t->a, &t->a_length, t->b, &t->wide);
       }),
       "", kSends},
      {"TeeEarlyBootEnded",
       Tee([](const uint8_t*, uint32_t, TeeBuffers*) { return TeeEarlyBootEnded(); }), "", kSends},
      {"TeeDeviceLocked",
       Tee([](const uint8_t*, uint32_t, TeeBuffers*) { return TeeDeviceLocked(1); }), "", kSends},
      {"TeegetHmacSharingParameters", Tee([](const uint8_t*, uint32_t, TeeBuffers* t) {
         return TeegetHmacSharingParameters(t->a, 32, t->b, 32);
       }),
       "", kSends},
      {"TeecomputeSharedHmac", Tee([](const uint8_t* in, uint32_t length, TeeBuffers* t) {
         return TeecomputeSharedHmac(in, length, t->a, &t->a_length);
       }),
       "", kSends},
      {"TeeDestroyAttestationIds",
       Tee([](const uint8_t*, uint32_t, TeeBuffers*) { return TeeDestroyAttestationIds(); }), "",
       kSends},
      // Reports, of which no failure comes back.
      {"ObtainTaErrorCode",
       [](Outputs*) { return ErrorRecord(4); },
       "",
       {{0}, {0}, {0}, {}, {0}},
       {0},
       {0},
       true},
      {"TeeosLogExceptionArchive",
       [](Outputs*) {
         TeeosLogExceptionArchive(nullptr);
         return 0;
       },
       "",
       {},
       {0}},
      {"ReportDfxServer",
       [](Outputs*) {
         const CaDfxInfo info{1, 2, 3, 4, "function", "ca", "ext"};
         return ReportDfxServer(&info);
       },
       "",
       {},
       {-1, -5}},
  };
}

}  // namespace

Outputs::Outputs()
    : key{kGarbage, kGarbageLength},
      traits{{Garbage<keymaster_key_param_t>(), kGarbageLength},
             {Garbage<keymaster_key_param_t>(), kGarbageLength}},
      data{kGarbage, kGarbageLength},
      params{Garbage<keymaster_key_param_t>(), kGarbageLength},
      chain{Garbage<keymaster_blob_t>(), kGarbageLength},
      number{kUntouched, kUntouched, kUntouched} {}

State Describe(const Outputs& o) {
  std::string numbers;
  for (const uint64_t number : o.number) {
    if (number != kUntouched) numbers += " " + std::to_string(number);
  }
  return {{'k', DescribeBytes(o.key.key_material, o.key.key_material_size)},
          {'t', Join(DescribeSet(o.traits.hw_enforced), DescribeSet(o.traits.sw_enforced))},
          {'d', DescribeBytes(o.data.data, o.data.data_length)},
          {'p', DescribeSet(o.params)},
          {'c', DescribeChain(o.chain)},
          {'n', numbers.empty() ? "u" : "w" + numbers}};
}

void Release(Outputs* o) {
  ReleaseBytes(o->key.key_material);
  ReleaseBytes(o->data.data);
  ReleaseSet(o->traits.hw_enforced);
  ReleaseSet(o->traits.sw_enforced);
  ReleaseSet(o->params);
  const void* entries = o->chain.entries;
  if (entries != kGarbage) {
    for (size_t i = 0; i < o->chain.entry_count; ++i) ReleaseBytes(o->chain.entries[i].data);
    ReleaseOutput(entries);
  }
  *o = Outputs();
}

const std::vector<Request>& Requests() {
  static const std::vector<Request> requests = MakeRequests();
  return requests;
}

}  // namespace test
