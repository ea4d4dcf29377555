#include "tests/sweep/requests.h"

#include <keymaster/android_keymaster_utils.h>
#include <keymaster/authorization_set.h>
#include <keymaster_tivas_context.h>

#include <utility>

#include "tests/sweep/scripted_ta.h"

namespace test {
namespace {

using Context = keymaster::KeymasterTivasContext;
using KeyHolder = keymaster::TKeymasterBlob<keymaster_key_blob_t>;
using BytesHolder = keymaster::TKeymasterBlob<keymaster_blob_t>;

// ---- Codes

constexpr int32_t kNoMemory = KM_ERROR_MEMORY_ALLOCATION_FAILED;
constexpr int32_t kUnknown = KM_ERROR_UNKNOWN_ERROR;
constexpr int32_t kFormat = KM_ERROR_UNSUPPORTED_KEY_FORMAT;
constexpr int32_t kArgument = KM_ERROR_INVALID_ARGUMENT;
constexpr int32_t kPurpose = KM_ERROR_INCOMPATIBLE_PURPOSE;
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

const Outcomes kGenerates = {
    kCopies.allocation, kCopies.copy, kCopies.clear, {kNoMemory, kUnknown}, kCopies.reply};
const Outcomes kImportsPkcs8 = {
    kCopies.allocation, {kNoMemory, kUnknown, kFormat}, kCopies.clear, {kFormat}, kCopies.reply};
const Outcomes kExports = {{kNoMemory, kTeeNoMemory, kArgument},
                           kDecodes.copy,
                           kDecodes.clear,
                           {kArgument},
                           {kUnknown, kArgument}};
const Outcomes kAttests = {
    kCopies.allocation, kCopies.copy, {kNoMemory, kTeeGeneric, kUnknown}, {}, kCopies.reply};
const Outcomes kVerifies = {kCopies.allocation,
                            kCopies.copy,
                            kCopies.clear,
                            {},
                            {kNoMemory, kUnknown, KM_ERROR_VERIFICATION_FAILED}};
// An unwrapped key without bytes is refused by TeeImportKey.
const Outcomes kUnwraps = {kProcesses.allocation,
                           kProcesses.copy,
                           kProcesses.clear,
                           {},
                           {kNoMemory, kUnknown, kArgument, kPurpose, kTeeParameters}};

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
         return Context().TivasKmAddRngEntropy(nullptr, 1) | Context().TivasKmDeleteAllKeys() |
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
       "k:ue t:ue", kGenerates},
      {"ImportRaw", [&f](Outputs* o) { return Import(KM_KEY_FORMAT_RAW, f.mask, o); }, "k:ue t:ue",
       kCopies},
      {"ImportRsa", [&f](Outputs* o) { return Import(KM_KEY_FORMAT_PKCS8, f.rsa_pkcs8, o); },
       "k:ue t:ue", kImportsPkcs8},
      {"ImportEc", [&f](Outputs* o) { return Import(KM_KEY_FORMAT_PKCS8, f.ec_pkcs8, o); },
       "k:ue t:ue", kImportsPkcs8},
      {"ExportRsa", [&f](Outputs* o) { return Export(f.blob, o); }, "d:e", kExports},
      {"ExportEc", [&f](Outputs* o) { return Export(f.ec_blob, o); }, "d:e", kExports},
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
       "c:ue", kAttests},
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
       "k:ue t:ue", kUnwraps},
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
       "d:e", kUnwraps},
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
       "p:ew", kVerifies},
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
  };
}

}  // namespace

const std::vector<Request>& Requests() {
  static const std::vector<Request> requests = [] {
    std::vector<Request> all = MakeRequests();
    for (Request& request : FunctionRequests()) all.push_back(std::move(request));
    return all;
  }();
  return requests;
}

}  // namespace test
