#include "context/reply.h"

#include <securec.h>

#include <utility>

#include "wire/log.h"

namespace km41 {

bool Reply::Read(ReplyReader* reader) const {
  if (length_ > capacity_) return false;
  *reader = ReplyReader(bytes_.get(), length_);
  return true;
}

int32_t CopyRest(const ReplyReader& reader, MallocBuffer* copy) {
  const uint32_t length = reader.remaining();
  MallocBuffer bytes = AllocateBytes(length);
  if (bytes == nullptr) return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  if (memcpy_s(bytes.get(), length, reader.rest(), length) != 0) return KM_ERROR_UNKNOWN_ERROR;
  *copy = std::move(bytes);
  return KM_ERROR_OK;
}

int32_t CopyOutputData(const Reply& reply, keymaster_blob_t* output) {
  ReplyReader reader;
  if (!reply.Read(&reader)) {
    KM_LOGE("%s : too large outDataLen:%u\n", kLogFailure, reply.reported_length());
    return KM_ERROR_UNKNOWN_ERROR;
  }
  if (output == nullptr) return KM_ERROR_OK;
  *output = keymaster_blob_t{};
  if (reader.remaining() != 0) {
    MallocBuffer copy;
    const int32_t result = CopyRest(reader, &copy);
    if (result == KM_ERROR_UNKNOWN_ERROR) KM_LOGE("memcpy_s out data failed");
    if (result != KM_ERROR_OK) return result;
    *output = {copy.release(), reader.remaining()};
  }
  KM_LOGI("output data size=%zu", output->data_length);
  return KM_ERROR_OK;
}

bool ReadKeyBlob(const Reply& reply, uint32_t min_length, ReplyReader* reader) {
  if (reply.Read(reader) && reader->remaining() >= min_length) return true;
  KM_LOGE("%s : invalid keyBlobLen:%u\n", kLogFailure, reply.reported_length());
  return false;
}

int32_t CopyKeyBlob(const ReplyReader& reader, keymaster_key_blob_t* key_blob) {
  MallocBuffer copy;
  const int32_t result = CopyRest(reader, &copy);
  if (result == KM_ERROR_OK) *key_blob = {copy.release(), reader.remaining()};
  return result;
}

int32_t CopyImportedKeyBlob(const ReplyReader& reader, keymaster_key_blob_t* key_blob) {
  const int32_t result = CopyKeyBlob(reader, key_blob);
  if (result == KM_ERROR_MEMORY_ALLOCATION_FAILED) {
    KM_LOGE("%s : alloc key material failed", kLogFailure);
  } else if (result == KM_ERROR_UNKNOWN_ERROR) {
    KM_LOGE("%s : memcpy_s keyblob payload failed", kLogFailure);
  }
  return result;
}

void WithdrawKeyBlob(keymaster_key_blob_t* key_blob) {
  free(const_cast<uint8_t*>(key_blob->key_material));
  *key_blob = keymaster_key_blob_t{};
}

bool DecodeCharacteristics(const Reply& reply, keymaster_key_characteristics_t* characteristics) {
  ReplyReader reader;
  if (!reply.Read(&reader)) {
    *characteristics = keymaster_key_characteristics_t{};
    return false;
  }
  return BuildKeyCharacter(reader.rest(), reader.remaining(), characteristics) == 0;
}

int32_t FillKeyCharacteristics(const Reply& reply, keymaster_key_blob_t* key_blob,
                               keymaster_key_characteristics_t* characteristics) {
  if (characteristics == nullptr || DecodeCharacteristics(reply, characteristics)) {
    return KM_ERROR_OK;
  }
  WithdrawKeyBlob(key_blob);
  KM_LOGE("build key character failed");
  return KM_ERROR_MEMORY_ALLOCATION_FAILED;
}

void ClearOutputs(keymaster_key_param_set_t* out_params, keymaster_blob_t* output) {
  if (out_params != nullptr) *out_params = keymaster_key_param_set_t{};
  if (output != nullptr) *output = keymaster_blob_t{};
}

bool DecodeOutParams(const Reply& reply, keymaster_key_param_set_t* out_params) {
  if (out_params == nullptr || reply.reported_length() == 0) return true;
  ReplyReader reader;
  return reply.Read(&reader) &&
         BuildKeyParamSet(out_params, reader.rest(), reader.remaining()) == 0;
}

// The one text that is not written where it is logged; each caller's is checked by its attribute.
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
int32_t ReportFailure(const char* format, uint32_t result) {
  KM_LOGE(format, kLogFailure, result);
  return static_cast<int32_t>(result);
}

}  // namespace km41
