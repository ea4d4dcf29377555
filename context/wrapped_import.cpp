// Wrapped key import: the wrapper is unwrapped through the TA's ordinary operations, and what it
// held is imported.

#include <keymaster/android_keymaster_utils.h>
#include <keymaster/authorization_set.h>
#include <keymaster/wrapped_key.h>

#include <iterator>

#include "context/import.h"
#include "context/reply.h"
#include "keymaster_tivas_context.h"
#include "keymaster_ts.h"
#include "marshal/param_entry.h"
#include "marshal/param_set.h"
#include "marshal/secret_blob.h"
#include "wire/log.h"

using namespace km41;

namespace keymaster {

using BytesHolder = TKeymasterBlob<keymaster_blob_t>;
using KeyHolder = TKeymasterBlob<keymaster_key_blob_t>;

namespace {

constexpr uint32_t kTransitKeyBits = 256;
constexpr uint32_t kGcmTagBits = 128;

keymaster_key_param_t Param(keymaster_tag_t tag, uint64_t value) {
  keymaster_key_param_t param = {};
  param.tag = tag;
  switch (KindOf(tag)) {
    case ValueKind::kU64:
      param.long_integer = value;
      break;
    case ValueKind::kBool:
      param.boolean = value != 0;
      break;
    default:
      param.integer = static_cast<uint32_t>(value);
      break;
  }
  return param;
}

// Copies length bytes into an empty holder. Its release is the platform's, so that its bytes come
// from the platform's allocator too. A copy that fails leaves it empty.
void CopyInto(const uint8_t* bytes, size_t length, KeyHolder* holder) {
  holder->key_material = dup_buffer(bytes, length);
  if (holder->key_material != nullptr) holder->key_material_size = length;
}

// Rejects a wrapping key that is not one, before anything is decrypted with it.
int32_t CheckWrappingKey(KeymasterTivasContext* context, const keymaster_key_blob_t* key) {
  keymaster_key_characteristics_t characteristics = {};
  const int32_t result =
      context->TivasKmGetKeyCharacteristics(key, nullptr, nullptr, &characteristics);
  if (result != KM_ERROR_OK) {
    return ReportFailure("%s : KmGetKeyCharacteristics failed, error %x", result);
  }
  const bool may_wrap =
      HasEnumParam(characteristics.hw_enforced, KM_TAG_PURPOSE, KM_PURPOSE_WRAP_KEY) ||
      HasEnumParam(characteristics.sw_enforced, KM_TAG_PURPOSE, KM_PURPOSE_WRAP_KEY);
  ReleaseCharacteristics(&characteristics);
  if (!may_wrap) {
    KM_LOGE("%s : wrappingKeyBlob is invalid", kLogFailure);
    return KM_ERROR_INCOMPATIBLE_PURPOSE;
  }
  return KM_ERROR_OK;
}

// Removes the mask from the transit key, in place.
int32_t Unmask(const keymaster_key_blob_t* masking_key, SecretBlob* transit_key) {
  if (masking_key == nullptr) return KM_ERROR_UNEXPECTED_NULL_POINTER;
  if (transit_key->size() != masking_key->key_material_size) {
    KM_LOGE("XOR size is not equal\n");
    return KM_ERROR_INVALID_ARGUMENT;
  }
  if (transit_key->size() != 0 && masking_key->key_material == nullptr) {
    return KM_ERROR_UNEXPECTED_NULL_POINTER;
  }
  for (size_t i = 0; i < transit_key->size(); ++i) {
    transit_key->bytes()[i] ^= masking_key->key_material[i];
  }
  return KM_ERROR_OK;
}

// Joins the encrypted key material and its tag into an empty payload.
int32_t BuildEncryptedPayload(const KeyHolder& material, const BytesHolder& tag,
                              KeyHolder* payload) {
  if (tag.data_length > UINT32_MAX || material.key_material_size > UINT32_MAX - tag.data_length) {
    KM_LOGE("invalid length");
    return KM_ERROR_INVALID_ARGUMENT;
  }
  const size_t size = material.key_material_size + tag.data_length;
  if (size == 0) return KM_ERROR_INVALID_INPUT_LENGTH;
  SecretBlob joined;
  if (!joined.Allocate(size)) {
    KM_LOGE("alloc key material failed");
    return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  }
  if (!joined.Join({material.key_material, material.key_material_size}, tag)) {
    KM_LOGE("memcpy_s keyblob payload failed");
    return KM_ERROR_UNKNOWN_ERROR;
  }
  CopyInto(joined.bytes(), size, payload);
  if (payload->key_material == nullptr) {
    KM_LOGE("alloc key material failed");
    return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  }
  return KM_ERROR_OK;
}

// Imports the transit key as the AES key that the key material is encrypted under.
int32_t ImportTransitKey(KeymasterTivasContext* context, const keymaster_blob_t* transit_key,
                         keymaster_key_blob_t* key_blob) {
  keymaster_key_param_t params[] = {
      Param(KM_TAG_PURPOSE, KM_PURPOSE_DECRYPT),
      Param(KM_TAG_ALGORITHM, KM_ALGORITHM_AES),
      Param(KM_TAG_PADDING, KM_PAD_NONE),
      Param(KM_TAG_BLOCK_MODE, KM_MODE_GCM),
      Param(KM_TAG_CALLER_NONCE, 1),
      Param(KM_TAG_MIN_MAC_LENGTH, kGcmTagBits),
      Param(KM_TAG_KEY_SIZE, kTransitKeyBits),
  };
  const keymaster_key_param_set_t set = {params, std::size(params)};
  return context->TivasKmImportKey(&set, KM_KEY_FORMAT_RAW, transit_key, key_blob, nullptr);
}

// What a wrapper holds, beside the description's parameters. Wiped at the end of its life.
struct WrapperContent {
  BytesHolder iv;
  KeyHolder encrypted_transit_key;
  KeyHolder encrypted_material;
  BytesHolder tag;
  BytesHolder key_description;
};

// Decrypts the transit key, and under it what the wrapper was made for.
int32_t DecryptContent(KeymasterTivasContext* context, keymaster_key_blob_t* wrapping_key,
                       keymaster_key_param_set_t* unwrapping_params,
                       const keymaster_key_blob_t* masking_key, WrapperContent* content,
                       keymaster_blob_t* key_material) {
  SecretBlob transit_key;
  int32_t result = context->DecryptTransitKeyMaterial(
      wrapping_key, unwrapping_params, &content->encrypted_transit_key, transit_key.blob());
  if (result != KM_ERROR_OK) return result;
  result = Unmask(masking_key, &transit_key);
  if (result != KM_ERROR_OK) return result;
  KeyHolder payload;
  result = BuildEncryptedPayload(content->encrypted_material, content->tag, &payload);
  if (result != KM_ERROR_OK) return result;
  result = context->WrappedKeyAesGcmDecrypt(transit_key.blob(), &content->iv,
                                            &content->key_description, &payload, key_material);
  if (result != KM_ERROR_OK) KM_LOGE("%s : WrappedKeyAesGcmDecrypt is invalid", kLogFailure);
  return result;
}

// A key blob that lives as long as one request.
struct LocalKeyBlob {
  ~LocalKeyBlob() { free(const_cast<uint8_t*>(blob.key_material)); }
  keymaster_key_blob_t blob = {};
};

}  // namespace

int32_t KeymasterTivasContext::TivasKmImportWrappedKeyNew(
    const keymaster_key_blob_t* wrapped_key_data, const keymaster_key_blob_t* wrapping_key,
    const keymaster_key_blob_t* masking_key, const keymaster_key_param_set_t* unwrapping_params,
    unsigned long password_sid, unsigned long biometric_sid, keymaster_key_blob_t* key_blob,
    keymaster_key_characteristics_t* characteristics) {
  KM_LOGI("km_import_wrapped_key start");
  if (wrapped_key_data == nullptr || wrapping_key == nullptr || masking_key == nullptr ||
      wrapped_key_data->key_material == nullptr) {
    KM_LOGE("%s : params or keyData is NULL", kLogFailure);
    return KM_ERROR_UNEXPECTED_NULL_POINTER;
  }
  if (key_blob == nullptr) {
    KM_LOGE("%s : keyBlob is NULL", kLogFailure);
    return KM_ERROR_OUTPUT_PARAMETER_NULL;
  }
  KeyHolder wrapped_key;
  // An empty copy does not parse.
  CopyInto(wrapped_key_data->key_material, wrapped_key_data->key_material_size, &wrapped_key);
  AuthorizationSet auth_list;
  keymaster_key_format_t key_format = KM_KEY_FORMAT_X509;
  SecretBlob key_material;
  // The unwrapping steps take their inputs without const, and change none of them.
  int32_t result = TivasKmUnwrappedKey(
      &wrapped_key, const_cast<keymaster_key_blob_t*>(wrapping_key),
      const_cast<keymaster_key_param_set_t*>(unwrapping_params),
      const_cast<keymaster_key_blob_t*>(masking_key), &auth_list, &key_format, key_material.blob());
  if (result != KM_ERROR_OK) {
    KM_LOGE("KmUnwrappedKey failed, ret %x", static_cast<uint32_t>(result));
    return result;
  }
  keymaster_key_param_set_t params = {auth_list.empty() ? nullptr : &auth_list[0],
                                      auth_list.size()};
  UpdateParamsForSecureid(&params, password_sid, biometric_sid);
  {
    const WrappedImportScope scope;
    result = TivasKmImportKey(&params, key_format, &key_material.get(), key_blob, characteristics);
  }
  if (result != KM_ERROR_OK) {
    KM_LOGE("KmImportKey failed, ret %x", static_cast<uint32_t>(result));
    return result;
  }
  KM_LOGI("km_import_wrapped_key finish");
  return KM_ERROR_OK;
}

int32_t KeymasterTivasContext::TivasKmUnwrappedKey(const KeyHolder* wrapped_key,
                                                   keymaster_key_blob_t* wrapping_key,
                                                   keymaster_key_param_set_t* unwrapping_params,
                                                   keymaster_key_blob_t* masking_key,
                                                   AuthorizationSet* auth_list,
                                                   keymaster_key_format_t* key_format,
                                                   keymaster_blob_t* key_material) {
  if (key_material == nullptr || wrapped_key == nullptr || auth_list == nullptr ||
      key_format == nullptr) {
    return KM_ERROR_UNEXPECTED_NULL_POINTER;
  }
  WrapperContent content;
  int32_t result = parse_wrapped_key(*wrapped_key, &content.iv, &content.encrypted_transit_key,
                                     &content.encrypted_material, &content.tag, auth_list,
                                     key_format, &content.key_description);
  if (result != KM_ERROR_OK) {
    return ReportFailure("%s : parse_wrapped_key failed, error %x", result);
  }
  result = CheckWrappingKey(this, wrapping_key);
  if (result != KM_ERROR_OK) return result;
  return DecryptContent(this, wrapping_key, unwrapping_params, masking_key, &content, key_material);
}

int32_t KeymasterTivasContext::DecryptTransitKeyMaterial(
    keymaster_key_blob_t* wrapping_key, keymaster_key_param_set_t* unwrapping_params,
    KeyHolder* encrypted_transit_key, keymaster_blob_t* plain_transit_key) {
  ClearOutputs(nullptr, plain_transit_key);
  if (unwrapping_params == nullptr || encrypted_transit_key == nullptr ||
      plain_transit_key == nullptr) {
    return KM_ERROR_UNEXPECTED_NULL_POINTER;
  }
  // The TA takes these as they are: an exponent of 4096 is no key's, and part of the contract.
  keymaster_key_param_t default_params[] = {
      Param(KM_TAG_DIGEST, KM_DIGEST_SHA1),    Param(KM_TAG_ALGORITHM, KM_ALGORITHM_RSA),
      Param(KM_TAG_PADDING, KM_PAD_RSA_OAEP),  Param(KM_TAG_KEY_SIZE, 2048),
      Param(KM_TAG_RSA_PUBLIC_EXPONENT, 4096), Param(KM_TAG_PURPOSE, KM_PURPOSE_WRAP_KEY),
  };
  keymaster_key_param_set_t default_set = {default_params, std::size(default_params)};
  const bool given = unwrapping_params->length != 0 && unwrapping_params->params != nullptr;
  const int32_t result =
      TransitKeyRsaDecrypt(wrapping_key, given ? unwrapping_params : &default_set,
                           encrypted_transit_key, plain_transit_key);
  if (result != KM_ERROR_OK) KM_LOGE("TransitKeyRsaDecrypt is invalid");
  return result;
}

int32_t KeymasterTivasContext::TransitKeyRsaDecrypt(keymaster_key_blob_t* wrapping_key,
                                                    keymaster_key_param_set_t* unwrapping_params,
                                                    KeyHolder* encrypted_transit_key,
                                                    keymaster_blob_t* plain_transit_key) {
  if (encrypted_transit_key == nullptr || plain_transit_key == nullptr) {
    return KM_ERROR_UNEXPECTED_NULL_POINTER;
  }
  unsigned long handle = 0;
  int32_t result =
      TivasKmBegin(KM_PURPOSE_DECRYPT, wrapping_key, unwrapping_params, nullptr, &handle);
  if (result != KM_ERROR_OK) return ReportFailure("%s : KmBegin failed, error %x", result);
  const keymaster_blob_t input = {encrypted_transit_key->key_material,
                                  encrypted_transit_key->key_material_size};
  result = TivasKmFinish(handle, nullptr, &input, nullptr, nullptr, plain_transit_key);
  return result == KM_ERROR_OK ? result : ReportFailure("%s : KmFinish failed, error %x", result);
}

int32_t KeymasterTivasContext::WrappedKeyAesGcmDecrypt(keymaster_blob_t* plain_transit_key,
                                                       BytesHolder* iv,
                                                       BytesHolder* key_description,
                                                       KeyHolder* payload,
                                                       keymaster_blob_t* key_material) {
  if (plain_transit_key == nullptr || iv == nullptr || key_description == nullptr ||
      payload == nullptr || key_material == nullptr) {
    return KM_ERROR_UNEXPECTED_NULL_POINTER;
  }
  LocalKeyBlob transit_key;
  int32_t result = ImportTransitKey(this, plain_transit_key, &transit_key.blob);
  if (result != KM_ERROR_OK) return ReportFailure("%s : KmImportKey failed, error %x", result);
  keymaster_key_param_t begin_params[] = {
      Param(KM_TAG_PADDING, KM_PAD_NONE),      Param(KM_TAG_BLOCK_MODE, KM_MODE_GCM),
      BytesParam(KM_TAG_NONCE, *iv),           Param(KM_TAG_MAC_LENGTH, kGcmTagBits),
      Param(KM_TAG_KEY_SIZE, kTransitKeyBits),
  };
  const keymaster_key_param_set_t begin_set = {begin_params, std::size(begin_params)};
  unsigned long handle = 0;
  result = TivasKmBegin(KM_PURPOSE_DECRYPT, &transit_key.blob, &begin_set, nullptr, &handle);
  if (result != KM_ERROR_OK) return ReportFailure("%s : KmBegin failed, error %x", result);
  keymaster_key_param_t associated_data = BytesParam(KM_TAG_ASSOCIATED_DATA, *key_description);
  const keymaster_key_param_set_t finish_set = {&associated_data, 1};
  const keymaster_blob_t input = {payload->key_material, payload->key_material_size};
  result = TivasKmFinish(handle, &finish_set, &input, nullptr, nullptr, key_material);
  return result == KM_ERROR_OK ? result : ReportFailure("%s : KmFinish failed, error %x", result);
}

}  // namespace keymaster
