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

// A copy of a blob in the holder that some methods take; null for a null blob.
template <typename BlobType>
std::unique_ptr<keymaster::TKeymasterBlob<BlobType>> Hold(const BlobType* blob) {
  if (blob == nullptr) return nullptr;
  auto holder = std::make_unique<keymaster::TKeymasterBlob<BlobType>>();
  BlobType& held = *holder;
  held = *blob;
  keymaster::BlobData(held) =
      keymaster::dup_buffer(keymaster::BlobData(held), keymaster::BlobSize(held));
  return holder;
}

// ---- The methods, with what they need of the arguments

int32_t Initialize(const Args&) { return Km().Initialize(keymaster::KmVersion::KEYMASTER_4_1); }
int32_t Configure(const Args& a) { return Km().TivasKmConfigure(a.params); }
int32_t GenerateKey(const Args& a) {
  return Km().TivasKmGenerateKey(a.params, a.key_blob, a.characteristics);
}
int32_t ImportKey(const Args& a) {
  return Km().TivasKmImportKey(a.params, a.format, a.input, a.key_blob, a.characteristics);
}
int32_t ExportKey(const Args& a) {
  return Km().TivasKmExportKey(a.format, a.key, a.client_id, a.app_data, a.data);
}
int32_t GetKeyCharacteristics(const Args& a) {
  return Km().TivasKmGetKeyCharacteristics(a.key, a.client_id, a.app_data, a.characteristics);
}
int32_t UpgradeKey(const Args& a) { return Km().TivasKmUpgradeKey(a.key, a.params, a.key_blob); }
int32_t Deletekey(const Args& a) { return Km().TivasKmDeletekey(a.key); }
int32_t AttestKey(const Args& a) { return Km().TivasKmAttestKey(a.key, a.params, a.chain); }
int32_t Begin(const Args& a) {
  return Km().TivasKmBegin(a.purpose, a.key, a.params, a.out_params, a.number);
}
int32_t Update(const Args& a) {
  return Km().TivasKmUpdate(a.handle, a.params, a.input, a.number, a.out_params, a.data);
}
int32_t Finish(const Args& a) {
  return Km().TivasKmFinish(a.handle, a.params, a.input, a.signature, a.out_params, a.data);
}
int32_t FinishNew(const Args& a) {
  return Km().TivasKmFinishNew(a.handle, a.params, a.input, a.signature, a.out_params, a.data);
}
int32_t FinishLarge(const Args& a) {
  return Km().TivasKmFinishLarge(a.handle, a.params, a.input, a.signature, a.out_params, a.data);
}
int32_t Abort(const Args& a) { return Km().TivasKmAbort(a.handle); }
int32_t ImportWrappedKeyNew(const Args& a) {
  return Km().TivasKmImportWrappedKeyNew(a.wrapped, a.key, a.mask, a.unwrapping_params, 1, 2,
                                         a.key_blob, a.characteristics);
}
int32_t UnwrappedKey(const Args& a) {
  keymaster::AuthorizationSet list;
  keymaster_key_format_t format;
  return Km().TivasKmUnwrappedKey(Hold(a.wrapped).get(), Mutable(a.key),
                                  Mutable(a.unwrapping_params), Mutable(a.mask), &list, &format,
                                  a.data);
}
int32_t DecryptTransitKeyMaterial(const Args& a) {
  return Km().DecryptTransitKeyMaterial(Mutable(a.key), Mutable(a.unwrapping_params),
                                        Hold(a.wrapped).get(), a.data);
}
int32_t TransitKeyRsaDecrypt(const Args& a) {
  return Km().TransitKeyRsaDecrypt(Mutable(a.key), Mutable(a.unwrapping_params),
                                   Hold(a.wrapped).get(), a.data);
}
int32_t WrappedKeyAesGcmDecrypt(const Args& a) {
  return Km().WrappedKeyAesGcmDecrypt(Mutable(a.input), Hold(a.iv).get(), Hold(a.description).get(),
                                      Hold(a.wrapped).get(), a.data);
}
int32_t VerifyAuthorization(const Args& a) {
  return Km().TivasVerifyAuthorization(a.handle, a.params, a.input, a.token);
}
int32_t EarlyBootEnded(const Args&) { return Km().TivasKmEarlyBootEnded(); }
int32_t DeviceLocked(const Args& a) { return Km().TivasKmDeviceLocked(a.password_only); }
int32_t GetHmacSharingParameters(const Args& a) {
  return Km().TivasgetHmacSharingParameters(a.hmac1, 32, a.hmac2, 32);
}
int32_t ComputeSharedHmac(const Args& a) {
  return Km().TivascomputeSharedHmac(Mutable(a.sharing_params), 32, a.data);
}
int32_t DestroyAttestationIds(const Args&) {
  return static_cast<int32_t>(TeeDestroyAttestationIds());
}

// ---- What the requests set beside the usual arguments

void NewVersion(Args* a) { a->params = fixture().system_version.get(); }
void Ec(Args* a) { a->params = fixture().ec_params.get(); }
void Rsa(Args* a) { a->params = fixture().rsa_params.get(); }
void Import(Args* a, keymaster_key_format_t format, const Fenced& key) {
  Ec(a);
  a->format = format;
  a->input = &key.blob;
}
void ImportRaw(Args* a) { Import(a, KM_KEY_FORMAT_RAW, fixture().mask); }
void ImportRsa(Args* a) { Import(a, KM_KEY_FORMAT_PKCS8, fixture().rsa_pkcs8); }
void ImportEc(Args* a) { Import(a, KM_KEY_FORMAT_PKCS8, fixture().ec_pkcs8); }
void EcKey(Args* a) { a->key = &fixture().ec_blob.key; }
void LongInput(Args* a) { a->input = &fixture().long_input.blob; }
void LargeFinish(Args* a) {
  static const Fenced input(Bytes(fixture().long_input.data(), fixture().long_input.data() + 4100));
  a->input = &input.blob;
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

}  // namespace

const std::vector<Request>& Requests() {
  // clang-format off
  static const std::vector<uint32_t> import_wrapped = {
      kCmdGetKeyCharacteristics, kCmdBegin, kCmdFinish, kCmdImportKey, kCmdBegin, kCmdFinish,
      kCmdImportKey};
  static const std::vector<uint32_t> unwrap(import_wrapped.begin(), import_wrapped.end() - 1);
  static const std::vector<Request> all = {
      {"Initialize", "Initialize", Initialize, nullptr, {kCmdConfigure}},
      {"Configure", "TivasKmConfigure", Configure, NewVersion, {kCmdConfigure}},
      {"GenerateEc", "TivasKmGenerateKey", GenerateKey, Ec, {kCmdGenerateKey}},
      {"GenerateRsa", "TivasKmGenerateKey", GenerateKey, Rsa, {kCmdImportKey}},
      {"ImportRaw", "TivasKmImportKey", ImportKey, ImportRaw, {kCmdImportKey}},
      {"ImportRsa", "TivasKmImportKey", ImportKey, ImportRsa, {kCmdImportKey}},
      {"ImportEc", "TivasKmImportKey", ImportKey, ImportEc, {kCmdImportKey}},
      {"ExportRsa", "TivasKmExportKey", ExportKey, nullptr, {kCmdExportKey}},
      {"ExportEc", "TivasKmExportKey", ExportKey, EcKey, {kCmdExportKey}},
      {"GetKeyCharacteristics", "TivasKmGetKeyCharacteristics", GetKeyCharacteristics, nullptr,
       {kCmdGetKeyCharacteristics}},
      {"UpgradeKey", "TivasKmUpgradeKey", UpgradeKey, nullptr, {kCmdUpgrade}},
      {"Deletekey", "TivasKmDeletekey", Deletekey, nullptr, {kCmdDeleteKey}},
      {"AttestKey", "TivasKmAttestKey", AttestKey, nullptr, {kCmdAttestKey}},
      {"Begin", "TivasKmBegin", Begin, nullptr, {kCmdBegin}},
      {"Update", "TivasKmUpdate", Update, LongInput, {kCmdUpdate, kCmdUpdate}},
      {"UpdateAssociatedData", "TivasKmUpdate", Update, No<&Args::input, &Args::number>,
       {kCmdUpdate}},
      {"Finish", "TivasKmFinish", Finish, nullptr, {kCmdFinish}},
      {"FinishNew", "TivasKmFinishNew", FinishNew, nullptr, {kCmdFinish}},
      {"FinishLarge", "TivasKmFinishLarge", FinishLarge, LargeFinish, {kCmdUpdate, kCmdFinish}},
      {"Abort", "TivasKmAbort", Abort, nullptr, {kCmdAbort}},
      {"ImportWrappedKey", "TivasKmImportWrappedKeyNew", ImportWrappedKeyNew, nullptr,
       import_wrapped},
      {"ImportWrappedPkcs8", "TivasKmImportWrappedKeyNew", ImportWrappedKeyNew, WrappedPkcs8,
       import_wrapped},
      {"UnwrappedKey", "TivasKmUnwrappedKey", UnwrappedKey, nullptr, unwrap},
      {"DecryptTransitKeyMaterial", "DecryptTransitKeyMaterial", DecryptTransitKeyMaterial,
       TransitKey, {kCmdBegin, kCmdFinish}},
      {"TransitKeyRsaDecrypt", "TransitKeyRsaDecrypt", TransitKeyRsaDecrypt, TransitKey,
       {kCmdBegin, kCmdFinish}},
      {"WrappedKeyAesGcmDecrypt", "WrappedKeyAesGcmDecrypt", WrappedKeyAesGcmDecrypt, Payload,
       {kCmdImportKey, kCmdBegin, kCmdFinish}},
      {"VerifyAuthorization", "TivasVerifyAuthorization", VerifyAuthorization, Authorization,
       {kCmdVerifyAuthorization}},
      {"EarlyBootEnded", "TivasKmEarlyBootEnded", EarlyBootEnded, nullptr, {kCmdEarlyBootEnded}},
      {"DeviceLocked", "TivasKmDeviceLocked", DeviceLocked, nullptr, {kCmdDeviceLocked}},
      {"GetHmacSharingParameters", "TivasgetHmacSharingParameters", GetHmacSharingParameters,
       nullptr, {kCmdGetHmacSharingParameters}},
      {"ComputeSharedHmac", "TivascomputeSharedHmac", ComputeSharedHmac, nullptr,
       {kCmdComputeSharedHmac}},
      {"DestroyAttestationIds", "TeeDestroyAttestationIds", DestroyAttestationIds, nullptr, {}},
  };
  // clang-format on
  return all;
}

const Request& FindRequest(std::string_view name) {
  for (const Request& request : Requests()) {
    if (request.name == name) return request;
  }
  abort();
}

}  // namespace test
