// Authorization, device state and HMAC sharing: marshalling only, all decisions are the TA's.

#include <securec.h>

#include "context/reply.h"
#include "context/serialized_params.h"
#include "keymaster_tivas_context.h"
#include "keymaster_ts.h"
#include "marshal/secret_blob.h"
#include "wire/little_endian.h"
#include "wire/log.h"

using namespace km41;

namespace {

// The TA's verification token: where its fields stand in the 64 bytes.
constexpr uint32_t kTokenSize = 64;
constexpr uint32_t kTokenChallengeAt = 0;
constexpr uint32_t kTokenTimestampAt = 8;
constexpr uint32_t kTokenSecurityLevelAt = 24;
constexpr uint32_t kTokenMacAt = 32;

int32_t RejectTokenCopy() {
  KM_LOGE("%s : memcpy_s keyblob payload failed", kLogFailure);
  return KM_ERROR_UNKNOWN_ERROR;
}

// Stores the fields of a token reply; parameters_verified stays as the caller set it.
int32_t StoreToken(const Reply& reply, TsVerificationToken* token) {
  ReplyReader reader;
  if (!reply.Read(&reader) || reader.remaining() != kTokenSize) return KM_ERROR_VERIFICATION_FAILED;
  uint8_t work[kTokenSize] = {};
  if (memcpy_s(work, sizeof(work), reader.rest(), kTokenSize) != 0) return RejectTokenCopy();
  uint8_t mac[sizeof(token->mac)];
  if (memcpy_s(mac, sizeof(mac), work + kTokenMacAt, sizeof(mac)) != 0) return RejectTokenCopy();
  token->security_level = GetU32(work + kTokenSecurityLevelAt);
  token->challenge = GetU64(work + kTokenChallengeAt);
  token->timestamp = GetU64(work + kTokenTimestampAt);
  memcpy(token->mac, mac, sizeof(mac));
  return KM_ERROR_OK;
}

}  // namespace

namespace keymaster {

int32_t KeymasterTivasContext::TivasVerifyAuthorization(
    unsigned long challenge, const keymaster_key_param_set_t* params_to_verify,
    const keymaster_blob_t* auth_token, TsVerificationToken* verification_token) {
  KM_LOGI("TivasVerifyAuthorization start");
  if (params_to_verify == nullptr || auth_token == nullptr || verification_token == nullptr) {
    return KM_ERROR_UNEXPECTED_NULL_POINTER;
  }
  SerializedParams params;
  if (!params.Build(params_to_verify)) return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  SecretBlob input;
  if (BuildVerifyAuthInput(&challenge, auth_token, input.blob()) != KM_ERROR_OK) {
    return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  }
  Reply params_reply(kReplyCapacity);
  Reply token_reply(kReplyCapacity);
  if (!params_reply.allocated() || !token_reply.allocated()) {
    return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  }
  const auto input_length = static_cast<uint32_t>(input.size());
  uint64_t token_length = token_reply.capacity();
  const uint32_t tee_result = TeeVerifyAuthorization(
      params.data(), params.length(), input.bytes(), &input_length, params_reply.buffer(),
      params_reply.length_in_out(), token_reply.buffer(), &token_length);
  if (tee_result != 0) {
    return ReportFailure("%s : TeeVerifyAuthorization failed, ret=0x%x", tee_result);
  }
  // The transport stores a 32-bit size.
  *token_reply.length_in_out() = static_cast<uint32_t>(token_length);
  if (!DecodeOutParams(params_reply, verification_token->parameters_verified)) {
    return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  }
  const int32_t result = StoreToken(token_reply, verification_token);
  if (result != KM_ERROR_OK) return result;
  KM_LOGI("TivasVerifyAuthorization success");
  return KM_ERROR_OK;
}

int32_t KeymasterTivasContext::TivasKmEarlyBootEnded() {
  const uint32_t tee_result = TeeEarlyBootEnded();
  if (tee_result != 0) return ReportFailure("%s : TeeEarlyBootEnded failed, ret=0x%x", tee_result);
  KM_LOGE("TivasKmEarlyBootEnded success");
  return KM_ERROR_OK;
}

int32_t KeymasterTivasContext::TivasKmDeviceLocked(bool password_only) {
  const uint32_t flag = password_only ? 1 : 0;
  KM_LOGI("TivasKmDeviceLocked enter, passwordOnly[%d]", static_cast<int>(flag));
  const uint32_t tee_result = TeeDeviceLocked(flag);
  if (tee_result != 0) {
    KM_LOGE("%s : TeeDeviceLocked failed, passwordOnly[%d] ret=0x%x", kLogFailure,
            static_cast<int>(flag), tee_result);
    return static_cast<int32_t>(tee_result);
  }
  KM_LOGE("TivasKmDeviceLocked success");
  return KM_ERROR_OK;
}

int32_t KeymasterTivasContext::TivasgetHmacSharingParameters(unsigned char* hmac_out1,
                                                             unsigned int hmac_out1_len,
                                                             unsigned char* hmac_out2,
                                                             unsigned int hmac_out2_len) {
  KM_LOGI("getHmacSharingParameters start");
  const uint32_t tee_result =
      TeegetHmacSharingParameters(hmac_out1, hmac_out1_len, hmac_out2, hmac_out2_len);
  if (tee_result != 0) {
    return ReportFailure("%s : TivasgetHmacSharingParameters failed, res=0x%x", tee_result);
  }
  return KM_ERROR_OK;
}

int32_t KeymasterTivasContext::TivascomputeSharedHmac(unsigned char* sharing_params,
                                                      unsigned int sharing_params_len,
                                                      keymaster_blob_t* sharing_check) {
  KM_LOGI("computeSharedHmac start");
  if (sharing_params == nullptr || sharing_check == nullptr) {
    return KM_ERROR_UNEXPECTED_NULL_POINTER;
  }
  *sharing_check = keymaster_blob_t{};
  Reply reply(kReplyCapacity);
  if (!reply.allocated()) {
    KM_LOGE("%s : alloc keyblob payload failed", kLogFailure);
    return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  }
  const uint32_t tee_result = TeecomputeSharedHmac(sharing_params, sharing_params_len,
                                                   reply.buffer(), reply.length_in_out());
  if (tee_result != 0) {
    return ReportFailure("%s : TeecomputeSharedHmac failed, res=0x%x", tee_result);
  }
  return CopyOutputData(reply, sharing_check);
}

}  // namespace keymaster
