// The smaller inputs of operation and authorization requests.

#include <errno.h>
#include <securec.h>

#include <initializer_list>

#include "keymaster_ts.h"
#include "marshal/param_set.h"
#include "marshal/secret_blob.h"
#include "wire/little_endian.h"
#include "wire/log.h"

using namespace km41;

namespace {

// The finish input: a marker, a 32-bit length and the bytes, for the data and the signature.
constexpr uint8_t kInputMarker = 0x00;
constexpr uint8_t kSignatureMarker = 0x01;
constexpr uint32_t kItemHeader = 1 + sizeof(uint32_t);

// The place of authenticator_type in an auth token: behind the version byte and three 64-bit ids.
constexpr size_t kAuthenticatorTypeAt = 25;
constexpr size_t kAuthenticatorTypeEnd = kAuthenticatorTypeAt + sizeof(uint32_t);
constexpr uint32_t kPasswordAuthenticator = 1;
constexpr uint32_t kBiometricAuthenticator = 2;

// The bytes an item carries: none for a missing blob or one without data.
size_t ItemLength(const keymaster_blob_t* blob) {
  return blob != nullptr && blob->data != nullptr ? blob->data_length : 0;
}

// Writes one item at *position of the buffer and moves the position behind it.
bool WriteItem(uint8_t marker, const keymaster_blob_t* blob, uint8_t* buffer, size_t size,
               size_t* position) {
  const size_t length = ItemLength(blob);
  uint8_t length_bytes[sizeof(uint32_t)];
  PutU32(length_bytes, static_cast<uint32_t>(length));
  size_t at = *position;
  buffer[at++] = marker;
  if (memcpy_s(buffer + at, size - at, length_bytes, sizeof(length_bytes)) != 0) return false;
  at += sizeof(length_bytes);
  if (length != 0 && memcpy_s(buffer + at, size - at, blob->data, length) != 0) return false;
  *position = at + length;
  return true;
}

}  // namespace

int32_t BuildFinalInput(const keymaster_blob_t* input, const keymaster_blob_t* signature,
                        keymaster_blob_t* final_input) {
  if (final_input == nullptr) return -EINVAL;
  size_t size = size_t{2} * kItemHeader;
  for (const keymaster_blob_t* item : {input, signature}) {
    if (ItemLength(item) > UINT32_MAX - size) return -EINVAL;
    size += ItemLength(item);
  }
  SecretBlob buffer;
  if (!buffer.Allocate(size)) {
    KM_LOGE("build final input buffer mem alloc failed.\n");
    return -ENOMEM;
  }
  size_t position = 0;
  if (!WriteItem(kInputMarker, input, buffer.bytes(), size, &position) ||
      !WriteItem(kSignatureMarker, signature, buffer.bytes(), size, &position)) {
    return -ENOMEM;
  }
  buffer.HandOverTo(final_input);
  return 0;
}

keymaster_error_t BuildVerifyAuthInput(const uint64_t* challenge,
                                       const keymaster_blob_t* auth_token,
                                       keymaster_blob_t* verify_input) {
  if (challenge == nullptr || auth_token == nullptr || verify_input == nullptr) {
    KM_LOGE("null pointer.\n");
    return KM_ERROR_UNEXPECTED_NULL_POINTER;
  }
  const uint32_t size = static_cast<uint32_t>(auth_token->data_length) + sizeof(*challenge);
  SecretBlob buffer;
  if (!buffer.Allocate(size)) {
    KM_LOGE("build final input malloc failed.\n");
    return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  }
  uint8_t challenge_bytes[sizeof(*challenge)];
  PutU64(challenge_bytes, *challenge);
  if (memcpy_s(buffer.bytes(), size, challenge_bytes, sizeof(challenge_bytes)) != 0) {
    KM_LOGE("memcpy_s challenge failed.\n");
    return KM_ERROR_UNKNOWN_ERROR;
  }
  if (memcpy_s(buffer.bytes() + sizeof(*challenge), size - sizeof(*challenge), auth_token->data,
               auth_token->data_length) != 0) {
    KM_LOGE("memcpy_s hwAuthToken failed.\n");
    return KM_ERROR_UNKNOWN_ERROR;
  }
  buffer.HandOverTo(verify_input);
  return KM_ERROR_OK;
}

void UpdateParamsForSecureid(keymaster_key_param_set_t* params, uint64_t password_sid,
                             uint64_t biometric_sid) {
  if (params == nullptr || params->params == nullptr) return;
  keymaster_key_param_t* secure_id = FindParam(*params, KM_TAG_USER_SECURE_ID);
  if (secure_id == nullptr) return;
  const keymaster_key_param_t* token = FindParam(*params, KM_TAG_AUTH_TOKEN);
  if (token == nullptr || token->blob.data == nullptr ||
      token->blob.data_length < kAuthenticatorTypeEnd) {
    return;
  }
  const uint32_t type = GetU32(token->blob.data + kAuthenticatorTypeAt);
  if (type == kPasswordAuthenticator) {
    secure_id->long_integer = password_sid;
  } else if (type == kBiometricAuthenticator) {
    secure_id->long_integer = biometric_sid;
  }
}

keymaster_error_t ParamsCheck(const keymaster_blob_t* input, const size_t* input_consumed) {
  if (input == nullptr) return KM_ERROR_UNEXPECTED_NULL_POINTER;
  if (input->data_length >= 0xFFFFFFF0 && input->data_length <= 0xFFFFFFFF) {
    return KM_ERROR_UNEXPECTED_NULL_POINTER;
  }
  if (input_consumed == nullptr) return KM_ERROR_OUTPUT_PARAMETER_NULL;
  return KM_ERROR_OK;
}
