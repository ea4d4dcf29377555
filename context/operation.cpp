// Cryptographic operations, whose state lives in the TA: begin, update, abort.

#include <algorithm>

#include "context/reply.h"
#include "context/serialized_params.h"
#include "keymaster_tivas_context.h"
#include "keymaster_ts.h"
#include "marshal/param_set.h"
#include "marshal/secret_blob.h"
#include "wire/log.h"

using namespace km41;

namespace {

constexpr uint32_t kMaxChunk = 0x80000;
constexpr uint32_t kBlock = 16;

// Input of 2^32 - 17 bytes at most, so this does not wrap.
uint32_t RoundedUp(uint32_t length) {
  return length == 0 ? kBlock : (length + kBlock - 1) / kBlock * kBlock;
}

int32_t RejectNoAssociatedData() {
  KM_LOGE("%s : not contain gcm tag but input is null, km_error=0x%x", kLogFailure,
          static_cast<uint32_t>(KM_ERROR_UNEXPECTED_NULL_POINTER));
  return KM_ERROR_UNEXPECTED_NULL_POINTER;
}

// An update that carries associated data and no input. What the TA returns is dropped.
int32_t UpdateAssociatedData(uint64_t op_handle, const keymaster_key_param_set_t* in_params,
                             keymaster_key_param_set_t* out_params, keymaster_blob_t* output) {
  if (in_params == nullptr) {
    KM_LOGE("%s : invalid in_params", kLogFailure);
    return KM_ERROR_UNEXPECTED_NULL_POINTER;
  }
  if (in_params->length == 0) return RejectNoAssociatedData();
  if (in_params->params == nullptr) {
    KM_LOGE("%s : invalid inParams->params", kLogFailure);
    return KM_ERROR_UNEXPECTED_NULL_POINTER;
  }
  if (FindParam(*in_params, KM_TAG_ASSOCIATED_DATA) == nullptr) return RejectNoAssociatedData();
  ClearOutputs(out_params, output);
  SerializedParams params;
  if (!params.Build(in_params)) return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  Reply params_reply(kReplyCapacity);
  Reply data_reply(kBlock, Reply::Content::kSecret);
  if (!params_reply.allocated() || !data_reply.allocated()) {
    return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  }
  const uint32_t tee_result =
      TeeUpdate(op_handle, params.data(), params.length(), nullptr, nullptr, params_reply.buffer(),
                params_reply.length_in_out(), data_reply.buffer(), data_reply.length_in_out());
  return tee_result == 0 ? KM_ERROR_OK
                         : ReportFailure("%s : TeeUpdate failed, ret=0x%x", tee_result);
}

// Sends the input in chunks, whose outputs stand in output back to back; it is truncated to them.
// Every chunk but the last is a whole number of blocks, and none produces more than it was offered,
// so that the input's length rounded up holds them all. params_reply holds the last chunk's output
// parameters.
int32_t SendChunks(uint64_t op_handle, const SerializedParams& params,
                   const keymaster_blob_t& input, Reply* params_reply, SecretBlob* output) {
  const auto length = static_cast<uint32_t>(input.data_length);
  uint32_t consumed = 0;
  uint32_t produced = 0;
  do {
    const uint32_t chunk = std::min(length - consumed, kMaxChunk);
    const uint32_t offered = RoundedUp(chunk);
    uint32_t reported = offered;
    params_reply->Restart();
    const uint8_t* bytes = input.data != nullptr ? input.data + consumed : nullptr;
    const uint32_t tee_result =
        TeeUpdate(op_handle, params.data(), params.length(), bytes, &chunk, params_reply->buffer(),
                  params_reply->length_in_out(), output->bytes() + produced, &reported);
    if (tee_result != 0) return ReportFailure("%s : TeeUpdate failed, ret=0x%x", tee_result);
    if (reported > offered) {
      KM_LOGE("%s : too large outDataLen:%u\n", kLogFailure, reported);
      return KM_ERROR_UNKNOWN_ERROR;
    }
    produced += reported;
    consumed += chunk;
  } while (consumed < length);
  output->Truncate(produced);
  return KM_ERROR_OK;
}

int32_t CheckUpdateInput(const keymaster_blob_t& input, const size_t* input_consumed) {
  int32_t result = ParamsCheck(&input, input_consumed);
  if (result == KM_ERROR_OK && input.data_length > UINT32_MAX) {
    // The TA's lengths have 32 bits.
    result = KM_ERROR_INVALID_INPUT_LENGTH;
  }
  if (result != KM_ERROR_OK) {
    KM_LOGE("%s : ParamsCheck failed, km_error=0x%x", kLogFailure, static_cast<uint32_t>(result));
  }
  return result;
}

int32_t UpdateInput(uint64_t op_handle, const keymaster_key_param_set_t* in_params,
                    const keymaster_blob_t& input, size_t* input_consumed,
                    keymaster_key_param_set_t* out_params, keymaster_blob_t* output) {
  int32_t result = CheckUpdateInput(input, input_consumed);
  if (result != KM_ERROR_OK) return result;
  ClearOutputs(out_params, output);
  SerializedParams params;
  if (!params.BuildIfGiven(in_params)) return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  Reply params_reply(kReplyCapacity);
  if (!params_reply.allocated()) return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  SecretBlob data;
  if (!data.Allocate(RoundedUp(static_cast<uint32_t>(input.data_length)))) {
    return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  }
  result = SendChunks(op_handle, params, input, &params_reply, &data);
  if (result != KM_ERROR_OK) return result;
  if (!DecodeOutParams(params_reply, out_params)) {
    KM_LOGE("update build key parame fail");
    (void)TeeAbort(op_handle);
    return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  }
  if (output != nullptr && data.size() != 0) data.HandOverTo(output);
  *input_consumed = input.data_length;
  KM_LOGI("KmUpdate success");
  return KM_ERROR_OK;
}

}  // namespace

namespace keymaster {

int32_t KeymasterTivasContext::TivasKmBegin(keymaster_purpose_t purpose,
                                            const keymaster_key_blob_t* key,
                                            const keymaster_key_param_set_t* in_params,
                                            keymaster_key_param_set_t* out_params,
                                            unsigned long* op_handle) {
  KM_LOGI("KmBegin start");
  if (key == nullptr || key->key_material == nullptr) return KM_ERROR_UNEXPECTED_NULL_POINTER;
  if (op_handle == nullptr) return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  ClearOutputs(out_params, nullptr);
  SerializedParams params;
  if (!params.BuildIfGiven(in_params)) return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  Reply reply(kReplyCapacity);
  if (!reply.allocated()) return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  uint64_t handle = 0;
  const uint32_t tee_result = TeeBegin(purpose, params.data(), params.length(), key->key_material,
                                       static_cast<uint32_t>(key->key_material_size),
                                       reply.buffer(), reply.length_in_out(), &handle);
  if (tee_result != 0) return ReportFailure("%s : TeeBegin failed, ret=0x%x", tee_result);
  if (out_params == nullptr) KM_LOGI("out_params is NULL");
  KM_LOGI("out_params_buffer_len = %u", reply.reported_length());
  if (!DecodeOutParams(reply, out_params)) {
    KM_LOGE("build key parame fail");
    (void)TeeAbort(handle);
    return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  }
  *op_handle = handle;
  KM_LOGI("KmBegin success");
  return KM_ERROR_OK;
}

int32_t KeymasterTivasContext::TivasKmUpdate(unsigned long op_handle,
                                             const keymaster_key_param_set_t* in_params,
                                             const keymaster_blob_t* input,
                                             unsigned long* input_consumed,
                                             keymaster_key_param_set_t* out_params,
                                             keymaster_blob_t* output) {
  KM_LOGI("KmUpdate start");
  return input == nullptr
             ? UpdateAssociatedData(op_handle, in_params, out_params, output)
             : UpdateInput(op_handle, in_params, *input, input_consumed, out_params, output);
}

int32_t KeymasterTivasContext::TivasKmAbort(unsigned long op_handle) {
  KM_LOGI("KmAbort start");
  const uint32_t tee_result = TeeAbort(op_handle);
  if (tee_result != 0) return ReportFailure("%s : TeeAbort failed, ret=0x%x", tee_result);
  KM_LOGI("KmAbort success");
  return KM_ERROR_OK;
}

}  // namespace keymaster
