#include "context/caller_blob.h"

#include <securec.h>

#include <utility>

#include "wire/log.h"

namespace km41 {

CopyResult CopyBytes(const uint8_t* from, uint32_t length, MallocBuffer* copy) {
  MallocBuffer bytes = AllocateBytes(length);
  if (bytes == nullptr) {
    return CopyResult::kNoMemory;
  }
  if (memcpy_s(bytes.get(), length, from, length) != 0) {
    return CopyResult::kCopyFailed;
  }
  *copy = std::move(bytes);
  return CopyResult::kCopied;
}

void GiveKeyBlob(MallocBuffer bytes, uint32_t length, keymaster_key_blob_t* key_blob) {
  key_blob->key_material = bytes.release();
  key_blob->key_material_size = length;
}

void DropKeyBlob(keymaster_key_blob_t* key_blob) {
  free(const_cast<uint8_t*>(key_blob->key_material));
  *key_blob = keymaster_key_blob_t{};
}

bool ReplyFitsKeyBlob(const ReplyBuffer& reply) {
  if (!reply.fits()) {
    KM_LOGE("%s : invalid keyBlobLen:%u\n", kLogFailure, reply.length());
  }
  return reply.fits();
}

int32_t CopyReply(keymaster_key_blob_t* key_blob, uint32_t length, const uint8_t* reply) {
  MallocBuffer copy;
  switch (CopyBytes(reply, length, &copy)) {
    case CopyResult::kNoMemory:
      KM_LOGE("%s : alloc key material failed", kLogFailure);
      return KM_ERROR_MEMORY_ALLOCATION_FAILED;
    case CopyResult::kCopyFailed:
      KM_LOGE("%s : memcpy_s keyblob payload failed", kLogFailure);
      return KM_ERROR_UNKNOWN_ERROR;
    case CopyResult::kCopied:
      break;
  }
  GiveKeyBlob(std::move(copy), length, key_blob);
  return KM_ERROR_OK;
}

int32_t CopyKeyBlob(keymaster_key_blob_t* key_blob, uint32_t length, const uint8_t* reply) {
  if (key_blob == nullptr || reply == nullptr) {
    return KM_ERROR_UNEXPECTED_NULL_POINTER;
  }
  if (length == 0 || length > kReplyCapacity) {
    KM_LOGE("%s : invalid keyBlobLen:%u\n", kLogFailure, length);
    return KM_ERROR_UNKNOWN_ERROR;
  }
  return CopyReply(key_blob, length, reply);
}

bool DecodeCharacteristics(ReplyBuffer* reply, keymaster_key_characteristics_t* characteristics) {
  if (!reply->fits()) {
    *characteristics = keymaster_key_characteristics_t{};
    return false;
  }
  return BuildKeyCharacter(reply->data(), reply->length(), characteristics) == 0;
}

int32_t FillKeyCharacteristics(keymaster_key_blob_t* key_blob,
                               keymaster_key_characteristics_t* characteristics,
                               ReplyBuffer* reply) {
  if (key_blob == nullptr) {
    return KM_ERROR_UNEXPECTED_NULL_POINTER;
  }
  if (characteristics == nullptr || DecodeCharacteristics(reply, characteristics)) {
    return KM_ERROR_OK;
  }
  DropKeyBlob(key_blob);
  KM_LOGE("build key character failed");
  return KM_ERROR_MEMORY_ALLOCATION_FAILED;
}

int32_t CopyOutputData(keymaster_blob_t* output, uint32_t length, const uint8_t* data) {
  if (data == nullptr) {
    return KM_ERROR_UNEXPECTED_NULL_POINTER;
  }
  if (length > kReplyCapacity) {
    KM_LOGE("%s : too large outDataLen:%u\n", kLogFailure, length);
    return KM_ERROR_UNKNOWN_ERROR;
  }
  if (output == nullptr) {
    return KM_ERROR_OK;
  }
  *output = keymaster_blob_t{};
  if (length != 0) {
    MallocBuffer copy;
    switch (CopyBytes(data, length, &copy)) {
      case CopyResult::kNoMemory:
        return KM_ERROR_MEMORY_ALLOCATION_FAILED;
      case CopyResult::kCopyFailed:
        KM_LOGE("memcpy_s out data failed");
        return KM_ERROR_UNKNOWN_ERROR;
      case CopyResult::kCopied:
        break;
    }
    output->data = copy.release();
    output->data_length = length;
  }
  KM_LOGI("output data size=%zu", output->data_length);
  return KM_ERROR_OK;
}

}  // namespace km41
