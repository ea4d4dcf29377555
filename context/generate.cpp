// Key generation: RSA in software and then imported, everything else by the TA.

#include "context/import.h"
#include "context/key_material.h"
#include "context/libcrypto.h"
#include "keymaster_tivas_context.h"
#include "keymaster_ts.h"
#include "marshal/param_set.h"
#include "wire/log.h"

using namespace km41;

namespace {

constexpr uint32_t kMinRsaKeySize = 16;
constexpr uint32_t kMaxRsaKeySize = 4096;

struct RsaRequest {
  uint32_t exponent = 0;
  uint32_t key_size = 0;  // bits
};

int32_t RejectKeySize(uint32_t key_size) {
  KM_LOGE("%s : Invalid key size of %u bits specified for RSA key generation", kLogFailure,
          key_size);
  return KM_ERROR_UNSUPPORTED_KEY_SIZE;
}

int32_t ReadRsaRequest(const keymaster_key_param_set_t& params, RsaRequest* request) {
  const keymaster_key_param_t* exponent = FindParam(params, KM_TAG_RSA_PUBLIC_EXPONENT);
  if (exponent == nullptr) {
    KM_LOGE("%s : generate rsa key need public exponent value", kLogFailure);
    return KM_ERROR_INVALID_ARGUMENT;
  }
  if (exponent->long_integer > UINT32_MAX) {
    KM_LOGE("%s : public exponent is greater than UINT32_MAX, not supported", kLogFailure);
    return KM_ERROR_INVALID_ARGUMENT;
  }
  const keymaster_key_param_t* key_size = FindParam(params, KM_TAG_KEY_SIZE);
  if (key_size == nullptr) return RejectKeySize(0);
  if (key_size->integer < kMinRsaKeySize || key_size->integer > kMaxRsaKeySize ||
      key_size->integer % 8 != 0) {
    return RejectKeySize(key_size->integer);
  }
  request->exponent = static_cast<uint32_t>(exponent->long_integer);
  request->key_size = key_size->integer;
  return KM_ERROR_OK;
}

int32_t GenerateRsa(const RsaRequest& request, BIGNUM* exponent, RSA* key) {
  // No key has an exponent that is even or 1; BoringSSL would search for seconds, or for ever.
  const bool possible = request.exponent % 2 != 0 && request.exponent != 1;
  if (!possible || BN_set_word(exponent, request.exponent) != 1 ||
      RSA_generate_key_ex(key, static_cast<int>(request.key_size), exponent, nullptr) != 1) {
    KM_LOGE("%s : openssl generatekey failed", kLogFailure);
    return KM_ERROR_UNKNOWN_ERROR;
  }
  return KM_ERROR_OK;
}

// Imports generated key material and hands out the TA's blob.
int32_t ImportGenerated(const keymaster_key_param_set_t& params, const KeyMaterial& material,
                        keymaster_key_blob_t* key_blob,
                        keymaster_key_characteristics_t* characteristics) {
  SerializedParams serialized;
  if (!serialized.Build(&params)) {
    KM_LOGE("%s : build km params failed", kLogFailure);
    return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  }
  ImportReplies replies;
  int32_t result =
      SendImport(serialized, material.bytes(), material.length, ImportSource::kGenerated, &replies);
  if (result != KM_ERROR_OK) return result;
  ReplyReader blob;
  if (!ReadKeyBlob(replies.key_blob, 1, &blob)) return KM_ERROR_UNKNOWN_ERROR;
  result = CopyImportedKeyBlob(blob, key_blob);
  if (result != KM_ERROR_OK) return result;
  result = FillKeyCharacteristics(replies.characteristics, key_blob, characteristics);
  if (result != KM_ERROR_OK) return result;
  KM_LOGI("%s success", "TivasKmGenerateKeyExt");
  return KM_ERROR_OK;
}

int32_t GenerateInSoftware(const keymaster_key_param_set_t& params, keymaster_key_blob_t* key_blob,
                           keymaster_key_characteristics_t* characteristics) {
  RsaRequest request;
  int32_t result = ReadRsaRequest(params, &request);
  if (result != KM_ERROR_OK) return result;
  const ErrorQueueScope error_queue;
  const CryptoPtr<BIGNUM> exponent(BN_new());
  const CryptoPtr<RSA> key(exponent != nullptr ? RSA_new() : nullptr);
  if (key == nullptr) {
    KM_LOGE("%s : RSA malloc failed", kLogFailure);
    return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  }
  result = GenerateRsa(request, exponent.get(), key.get());
  if (result != KM_ERROR_OK) return result;
  KeyMaterial material;
  if (!material.Allocate()) {
    KM_LOGE("%s : alloc rsa key failed", kLogFailure);
    return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  }
  result = BuildRsaKeyMaterial(material.bytes(), key.get(), &material.length);
  if (result != KM_ERROR_OK) return result;
  return ImportGenerated(params, material, key_blob, characteristics);
}

// Copies the blob of a key that the TA made; unlike an import, without a word when memory runs out.
int32_t CopyGeneratedKey(const Reply& reply, keymaster_key_blob_t* key_blob) {
  ReplyReader reader;
  if (!ReadKeyBlob(reply, 0, &reader)) return KM_ERROR_UNKNOWN_ERROR;
  const int32_t result = CopyKeyBlob(reader, key_blob);
  if (result == KM_ERROR_UNKNOWN_ERROR) {
    KM_LOGE("%s : memcpy_s keyblob payload failed", kLogFailure);
  }
  return result;
}

int32_t GenerateInTa(const keymaster_key_param_set_t& params, keymaster_key_blob_t* key_blob,
                     keymaster_key_characteristics_t* characteristics) {
  SerializedParams serialized;
  if (!serialized.Build(&params)) return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  Reply blob_reply(kReplyCapacity);
  Reply character_reply(kReplyCapacity);
  if (!blob_reply.allocated() || !character_reply.allocated()) {
    return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  }
  const uint32_t tee_result = TeeGenerateKey(
      serialized.data(), serialized.length(), blob_reply.buffer(), blob_reply.length_in_out(),
      character_reply.buffer(), character_reply.length_in_out());
  if (tee_result != 0) return ReportFailure("%s : TeeGenerateKey failed, ret=0x%x", tee_result);
  const int32_t result = CopyGeneratedKey(blob_reply, key_blob);
  if (result != KM_ERROR_OK) return result;
  if (characteristics != nullptr && !DecodeCharacteristics(character_reply, characteristics)) {
    WithdrawKeyBlob(key_blob);
    return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  }
  KM_LOGI("KmGenerateKey success");
  return KM_ERROR_OK;
}

}  // namespace

namespace keymaster {

int32_t KeymasterTivasContext::TivasKmGenerateKey(
    const keymaster_key_param_set_t* params, keymaster_key_blob_t* key_blob,
    keymaster_key_characteristics_t* characteristics) {
  KM_LOGI("KmGenerateKey start");
  if (params == nullptr) return KM_ERROR_UNEXPECTED_NULL_POINTER;
  if (key_blob == nullptr) return KM_ERROR_OUTPUT_PARAMETER_NULL;
  if (params->length != 0 && params->params == nullptr) return KM_ERROR_UNEXPECTED_NULL_POINTER;
  return HasEnumParam(*params, KM_TAG_ALGORITHM, KM_ALGORITHM_RSA)
             ? GenerateInSoftware(*params, key_blob, characteristics)
             : GenerateInTa(*params, key_blob, characteristics);
}

}  // namespace keymaster
