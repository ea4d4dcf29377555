// Key import: PKCS#8 is re-encoded as key material, raw keys pass through.

#include "context/import.h"

#include <openssl/obj_mac.h>

#include "context/key_material.h"
#include "context/libcrypto.h"
#include "keymaster_tivas_context.h"
#include "keymaster_ts.h"
#include "wire/log.h"

using namespace km41;

namespace {

// True while a wrapped import on this thread runs its final step; WrappedImportScope alone writes
// it, TivasKmImportKey alone reads it. Beside the TEE context it is all the state there is.
thread_local bool g_wrappedKeyImport = false;

bool EncodeRsa(const EVP_PKEY* key, KeyMaterial* material) {
  const CryptoPtr<RSA> rsa(EVP_PKEY_get1_RSA(const_cast<EVP_PKEY*>(key)));
  if (rsa == nullptr) {
    KM_LOGE("%s : rsa is NULL", kLogFailure);
    return false;
  }
  return BuildRsaKeyMaterial(material->bytes(), rsa.get(), &material->length) == KM_ERROR_OK;
}

bool EncodeEc(const EVP_PKEY* key, KeyMaterial* material) {
  const CryptoPtr<EC_KEY> ec(EVP_PKEY_get1_EC_KEY(const_cast<EVP_PKEY*>(key)));
  if (ec == nullptr) {
    KM_LOGE("%s : get ec key format\n", kLogFailure);
    return false;
  }
  return BuildEcKeyMaterial(material->bytes(), ec.get(), &material->length) == KM_ERROR_OK;
}

// Decodes a PKCS#8 private key and encodes it as key material.
bool ParsePkcs8(const keymaster_blob_t& key_data, KeyMaterial* material) {
  if (key_data.data == nullptr) return false;
  const ErrorQueueScope error_queue;
  const unsigned char* der = key_data.data;
  const CryptoPtr<PKCS8_PRIV_KEY_INFO> pkcs8(d2i_PKCS8_PRIV_KEY_INFO(
      nullptr, &der, static_cast<long>(static_cast<uint32_t>(key_data.data_length))));
  if (pkcs8 == nullptr) {
    KM_LOGE("%s : pkcs8 is NULL", kLogFailure);
    return false;
  }
  const CryptoPtr<EVP_PKEY> key(EVP_PKCS82PKEY(pkcs8.get()));
  if (key == nullptr) {
    KM_LOGE("%s : pkey is NULL", kLogFailure);
    return false;
  }
  const int type = EVP_PKEY_id(key.get());
  switch (type) {
    case EVP_PKEY_RSA:
    case NID_rsa:
      return EncodeRsa(key.get(), material);
    case EVP_PKEY_EC:
      return EncodeEc(key.get(), material);
    default:
      KM_LOGE("invalid key type:%d\n", type);
      return false;
  }
}

// Points key at what is sent: the caller's bytes, or the material they were encoded into.
int32_t PrepareKey(keymaster_key_format_t format, const keymaster_blob_t& key_data,
                   KeyMaterial* material, keymaster_blob_t* key) {
  switch (format) {
    case KM_KEY_FORMAT_RAW:
      *key = key_data;
      return KM_ERROR_OK;
    case KM_KEY_FORMAT_PKCS8:
      if (!ParsePkcs8(key_data, material)) {
        KM_LOGE("%s : parse pkcs8 key failed", kLogFailure);
        return KM_ERROR_UNSUPPORTED_KEY_FORMAT;
      }
      *key = {material->bytes(), material->length};
      return KM_ERROR_OK;
    default:
      KM_LOGE("wrong key format\n");
      return KM_ERROR_UNSUPPORTED_KEY_FORMAT;
  }
}

// Copies what the TA replied to the caller.
int32_t CopyReplies(const ImportReplies& replies, keymaster_key_blob_t* key_blob,
                    keymaster_key_characteristics_t* characteristics) {
  ReplyReader blob;
  if (!ReadKeyBlob(replies.key_blob, 0, &blob)) return KM_ERROR_UNKNOWN_ERROR;
  const int32_t result = CopyImportedKeyBlob(blob, key_blob);
  return result == KM_ERROR_OK
             ? FillKeyCharacteristics(replies.characteristics, key_blob, characteristics)
             : result;
}

}  // namespace

namespace km41 {

WrappedImportScope::WrappedImportScope() { g_wrappedKeyImport = true; }

WrappedImportScope::~WrappedImportScope() { g_wrappedKeyImport = false; }

int32_t SendImport(const SerializedParams& params, const uint8_t* key_material, uint32_t length,
                   ImportSource source, ImportReplies* replies) {
  if (!replies->key_blob.allocated()) {
    KM_LOGE("%s : alloc keyblob payload failed", kLogFailure);
    return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  }
  if (!replies->characteristics.allocated()) {
    KM_LOGE("%s : alloc key character failed", kLogFailure);
    return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  }
  const uint32_t tee_result =
      TeeImportKey(params.data(), params.length(), key_material, length, replies->key_blob.buffer(),
                   replies->key_blob.length_in_out(), replies->characteristics.buffer(),
                   replies->characteristics.length_in_out(), static_cast<uint8_t>(source));
  return tee_result == 0 ? KM_ERROR_OK
                         : ReportFailure("%s : TeeImportKey failed, ret=0x%x", tee_result);
}

}  // namespace km41

namespace keymaster {

int32_t KeymasterTivasContext::TivasKmImportKey(const keymaster_key_param_set_t* params,
                                                keymaster_key_format_t format,
                                                const keymaster_blob_t* key_data,
                                                keymaster_key_blob_t* key_blob,
                                                keymaster_key_characteristics_t* characteristics) {
  KM_LOGI("KmImportKey start");
  if (params == nullptr || key_data == nullptr) return KM_ERROR_UNEXPECTED_NULL_POINTER;
  if (key_blob == nullptr) {
    KM_LOGE("%s : keyBlob is NULL", kLogFailure);
    return KM_ERROR_OUTPUT_PARAMETER_NULL;
  }
  SerializedParams serialized;
  if (!serialized.Build(params)) {
    KM_LOGE("%s : build km params failed", kLogFailure);
    return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  }
  KeyMaterial material;
  if (!material.Allocate()) {
    KM_LOGE("%s : alloc rsa/ec key failed", kLogFailure);
    return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  }
  keymaster_blob_t key = {};
  int32_t result = PrepareKey(format, *key_data, &material, &key);
  if (result != KM_ERROR_OK) return result;
  ImportReplies replies;
  const ImportSource source = g_wrappedKeyImport ? ImportSource::kUnwrapped : ImportSource::kCaller;
  result =
      SendImport(serialized, key.data, static_cast<uint32_t>(key.data_length), source, &replies);
  if (result != KM_ERROR_OK) return result;
  result = CopyReplies(replies, key_blob, characteristics);
  if (result != KM_ERROR_OK) return result;
  KM_LOGI("KmImportKey success");
  return KM_ERROR_OK;
}

}  // namespace keymaster
