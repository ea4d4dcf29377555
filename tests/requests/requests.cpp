#include "tests/requests/requests.h"

#include <keymaster/android_keymaster_utils.h>
#include <keymaster/authorization_set.h>
#include <keymaster_ts.h>

namespace test {
namespace {

using namespace km41;

keymaster::KeymasterTivasContext& Km() {
  static keymaster::KeymasterTivasContext km;
  return km;
}

template <typename T>
T* Mutable(const T* input) {
  return const_cast<T*>(input);
}

// A copy of a blob in a holder, for the methods that take these; null for a null blob.
template <typename BlobType>
class Held {
 public:
  explicit Held(const BlobType* blob) : given_(blob != nullptr) {
    if (given_) {
      BlobType copy = *blob;
      keymaster::BlobData(holder_) =
          keymaster::dup_buffer(keymaster::BlobData(copy), keymaster::BlobSize(copy));
      keymaster::BlobSize(holder_) = keymaster::BlobSize(copy);
    }
  }
  keymaster::TKeymasterBlob<BlobType>* get() { return given_ ? &holder_ : nullptr; }

 private:
  const bool given_;
  keymaster::TKeymasterBlob<BlobType> holder_;
};
using HeldKey = Held<keymaster_key_blob_t>;
using HeldBytes = Held<keymaster_blob_t>;

const Method kMethods[] = {
    {"Initialize",
     [](const Args&) { return Km().Initialize(keymaster::KmVersion::KEYMASTER_4_1); }},
    {"TivasKmConfigure", [](const Args& a) { return Km().TivasKmConfigure(a.params); }},
    {"TivasKmGenerateKey",
     [](const Args& a) {
       return Km().TivasKmGenerateKey(a.params, a.key_blob, a.characteristics);
     }},
    {"TivasKmImportKey",
     [](const Args& a) {
       return Km().TivasKmImportKey(a.params, a.format, a.input, a.key_blob, a.characteristics);
     }},
    {"TivasKmExportKey",
     [](const Args& a) {
       return Km().TivasKmExportKey(a.format, a.key, a.client_id, a.app_data, a.data);
     }},
    {"TivasKmGetKeyCharacteristics",
     [](const Args& a) {
       return Km().TivasKmGetKeyCharacteristics(a.key, a.client_id, a.app_data, a.characteristics);
     }},
    {"TivasKmUpgradeKey",
     [](const Args& a) { return Km().TivasKmUpgradeKey(a.key, a.params, a.key_blob); }},
    {"TivasKmDeletekey", [](const Args& a) { return Km().TivasKmDeletekey(a.key); }},
    {"TivasKmAttestKey",
     [](const Args& a) { return Km().TivasKmAttestKey(a.key, a.params, a.chain); }},
    {"TivasKmBegin",
     [](const Args& a) {
       return Km().TivasKmBegin(a.purpose, a.key, a.params, a.out_params, a.number);
     }},
    {"TivasKmUpdate",
     [](const Args& a) {
       return Km().TivasKmUpdate(a.handle, a.params, a.input, a.number, a.out_params, a.data);
     }},
    {"TivasKmFinish",
     [](const Args& a) {
       return Km().TivasKmFinish(a.handle, a.params, a.input, a.signature, a.out_params, a.data);
     }},
    {"TivasKmFinishNew",
     [](const Args& a) {
       return Km().TivasKmFinishNew(a.handle, a.params, a.input, a.signature, a.out_params, a.data);
     }},
    {"TivasKmFinishLarge",
     [](const Args& a) {
       return Km().TivasKmFinishLarge(a.handle, a.params, a.input, a.signature, a.out_params,
                                      a.data);
     }},
    {"TivasKmAbort", [](const Args& a) { return Km().TivasKmAbort(a.handle); }},
    {"TivasKmImportWrappedKeyNew",
     [](const Args& a) {
       return Km().TivasKmImportWrappedKeyNew(a.wrapped, a.key, a.mask, a.unwrapping_params, 1, 2,
                                              a.key_blob, a.characteristics);
     }},
    {"TivasKmUnwrappedKey",
     [](const Args& a) {
       HeldKey wrapped(a.wrapped);
       keymaster::AuthorizationSet list;
       keymaster_key_format_t format;
       return Km().TivasKmUnwrappedKey(wrapped.get(), Mutable(a.key), Mutable(a.unwrapping_params),
                                       Mutable(a.mask), &list, &format, a.data);
     }},
    {"DecryptTransitKeyMaterial",
     [](const Args& a) {
       HeldKey encrypted(a.wrapped);
       return Km().DecryptTransitKeyMaterial(Mutable(a.key), Mutable(a.unwrapping_params),
                                             encrypted.get(), a.data);
     }},
    {"TransitKeyRsaDecrypt",
     [](const Args& a) {
       HeldKey encrypted(a.wrapped);
       return Km().TransitKeyRsaDecrypt(Mutable(a.key), Mutable(a.unwrapping_params),
                                        encrypted.get(), a.data);
     }},
    {"WrappedKeyAesGcmDecrypt",
     [](const Args& a) {
       HeldBytes iv(a.iv), description(a.description);
       HeldKey payload(a.wrapped);
       return Km().WrappedKeyAesGcmDecrypt(Mutable(a.input), iv.get(), description.get(),
                                           payload.get(), a.data);
     }},
    {"TivasVerifyAuthorization",
     [](const Args& a) {
       return Km().TivasVerifyAuthorization(a.handle, a.params, a.input, a.token);
     }},
    {"TivasKmEarlyBootEnded", [](const Args&) { return Km().TivasKmEarlyBootEnded(); }},
    {"TivasKmDeviceLocked",
     [](const Args& a) { return Km().TivasKmDeviceLocked(a.password_only); }},
    {"TivasgetHmacSharingParameters",
     [](const Args& a) { return Km().TivasgetHmacSharingParameters(a.hmac1, 32, a.hmac2, 32); }},
    {"TivascomputeSharedHmac",
     [](const Args& a) {
       return Km().TivascomputeSharedHmac(Mutable(a.sharing_params), 32, a.data);
     }},
    {"TeeDestroyAttestationIds",
     [](const Args&) { return static_cast<int32_t>(TeeDestroyAttestationIds()); }},
};

// ---- What the requests set beside the usual arguments

void Configure(Args* a) { a->params = fixture().system_version.get(); }
void Ec(Args* a) { a->params = fixture().ec_params.get(); }
void Rsa(Args* a) { a->params = fixture().rsa_params.get(); }
void ImportKey(Args* a, keymaster_key_format_t format, const Fenced& key) {
  Ec(a);
  a->format = format;
  a->input = &key.blob;
}
void ImportRaw(Args* a) { ImportKey(a, KM_KEY_FORMAT_RAW, fixture().mask); }
void ImportRsa(Args* a) { ImportKey(a, KM_KEY_FORMAT_PKCS8, fixture().rsa_pkcs8); }
void ImportEc(Args* a) { ImportKey(a, KM_KEY_FORMAT_PKCS8, fixture().ec_pkcs8); }
void EcKey(Args* a) { a->key = &fixture().ec_blob.key; }
void LongInput(Args* a) { a->input = &fixture().long_input.blob; }
void LargeFinish(Args* a) {
  static const Fenced input(Bytes(fixture().long_input.data(), fixture().long_input.data() + 4100));
  a->input = &input.blob;
}
void NoInput(Args* a) {
  a->input = nullptr;
  a->number = nullptr;
}
void WrappedPkcs8(Args* a) { a->wrapped = &fixture().pkcs8_wrapper.key; }
void TransitKey(Args* a) { a->wrapped = &fixture().encrypted_transit_key.key; }
void Payload(Args* a) {
  a->input = &fixture().transit_key.blob;
  a->wrapped = &fixture().payload.key;
}
void Authorization(Args* a) {
  a->handle = 5;  // the challenge
  a->input = &fixture().auth_token.blob;
  *a->out_params = {};  // what the token points at begins empty
}

const std::vector<uint32_t> kUnwrap = {kCmdGetKeyCharacteristics,
                                       kCmdBegin,
                                       kCmdFinish,
                                       kCmdImportKey,
                                       kCmdBegin,
                                       kCmdFinish},
                            kImportWrapped = {kCmdGetKeyCharacteristics,
                                              kCmdBegin,
                                              kCmdFinish,
                                              kCmdImportKey,
                                              kCmdBegin,
                                              kCmdFinish,
                                              kCmdImportKey};

struct Row {
  const char* name;
  const char* method;
  void (*set)(Args* args);
  std::vector<uint32_t> commands;
};

// clang-format off
const Row kRows[] = {
    {"Initialize", "Initialize", nullptr, {kCmdConfigure}},
    {"Configure", "TivasKmConfigure", Configure, {kCmdConfigure}},
    {"GenerateEc", "TivasKmGenerateKey", Ec, {kCmdGenerateKey}},
    {"GenerateRsa", "TivasKmGenerateKey", Rsa, {kCmdImportKey}},
    {"ImportRaw", "TivasKmImportKey", ImportRaw, {kCmdImportKey}},
    {"ImportRsa", "TivasKmImportKey", ImportRsa, {kCmdImportKey}},
    {"ImportEc", "TivasKmImportKey", ImportEc, {kCmdImportKey}},
    {"ExportRsa", "TivasKmExportKey", nullptr, {kCmdExportKey}},
    {"ExportEc", "TivasKmExportKey", EcKey, {kCmdExportKey}},
    {"GetKeyCharacteristics", "TivasKmGetKeyCharacteristics", nullptr, {kCmdGetKeyCharacteristics}},
    {"UpgradeKey", "TivasKmUpgradeKey", nullptr, {kCmdUpgrade}},
    {"Deletekey", "TivasKmDeletekey", nullptr, {kCmdDeleteKey}},
    {"AttestKey", "TivasKmAttestKey", nullptr, {kCmdAttestKey}},
    {"Begin", "TivasKmBegin", nullptr, {kCmdBegin}},
    {"Update", "TivasKmUpdate", LongInput, {kCmdUpdate, kCmdUpdate}},
    {"UpdateAssociatedData", "TivasKmUpdate", NoInput, {kCmdUpdate}},
    {"Finish", "TivasKmFinish", nullptr, {kCmdFinish}},
    {"FinishNew", "TivasKmFinishNew", nullptr, {kCmdFinish}},
    {"FinishLarge", "TivasKmFinishLarge", LargeFinish, {kCmdUpdate, kCmdFinish}},
    {"Abort", "TivasKmAbort", nullptr, {kCmdAbort}},
    {"ImportWrappedKey", "TivasKmImportWrappedKeyNew", nullptr, kImportWrapped},
    {"ImportWrappedPkcs8", "TivasKmImportWrappedKeyNew", WrappedPkcs8, kImportWrapped},
    {"UnwrappedKey", "TivasKmUnwrappedKey", nullptr, kUnwrap},
    {"DecryptTransitKeyMaterial", "DecryptTransitKeyMaterial", TransitKey,
     {kCmdBegin, kCmdFinish}},
    {"TransitKeyRsaDecrypt", "TransitKeyRsaDecrypt", TransitKey, {kCmdBegin, kCmdFinish}},
    {"WrappedKeyAesGcmDecrypt", "WrappedKeyAesGcmDecrypt", Payload,
     {kCmdImportKey, kCmdBegin, kCmdFinish}},
    {"VerifyAuthorization", "TivasVerifyAuthorization", Authorization, {kCmdVerifyAuthorization}},
    {"EarlyBootEnded", "TivasKmEarlyBootEnded", nullptr, {kCmdEarlyBootEnded}},
    {"DeviceLocked", "TivasKmDeviceLocked", nullptr, {kCmdDeviceLocked}},
    {"GetHmacSharingParameters", "TivasgetHmacSharingParameters", nullptr,
     {kCmdGetHmacSharingParameters}},
    {"ComputeSharedHmac", "TivascomputeSharedHmac", nullptr, {kCmdComputeSharedHmac}},
    {"DestroyAttestationIds", "TeeDestroyAttestationIds", nullptr, {}},
};
// clang-format on

template <typename T>
const T& Find(const T* begin, const T* end, const std::string& name) {
  for (const T* row = begin; row != end; ++row) {
    if (row->name == name) return *row;
  }
  abort();
}

}  // namespace

const Method& FindMethod(const std::string& name) {
  return Find(std::begin(kMethods), std::end(kMethods), name);
}

const std::vector<Request>& Requests() {
  static const std::vector<Request> requests = [] {
    std::vector<Request> all;
    for (const Row& row : kRows) {
      all.push_back({row.name, &FindMethod(row.method), row.set, row.commands});
    }
    return all;
  }();
  return requests;
}

const Request& FindRequest(const std::string& name) {
  return Find(Requests().data(), Requests().data() + Requests().size(), name);
}

}  // namespace test
