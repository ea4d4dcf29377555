// The end of an operation: finish, for input of any size.

#include "context/reply.h"
#include "context/serialized_params.h"
#include "keymaster_tivas_context.h"
#include "keymaster_ts.h"
#include "marshal/param_set.h"
#include "marshal/secret_blob.h"
#include "wire/log.h"

using namespace km41;

namespace {

constexpr uint32_t kMaxFinishInput = 4096;
// What of a long input goes with the finish; the rest goes before it as an update.
constexpr uint32_t kFinishPart = 4032;

// Joins what update and finish produced in a new buffer that output receives.
int32_t JoinOutputs(const keymaster_blob_t& update, const keymaster_blob_t& finish,
                    keymaster_blob_t* output) {
  if (output == nullptr) return KM_ERROR_UNEXPECTED_NULL_POINTER;
  const size_t size = update.data_length + finish.data_length;
  if (size >= UINT32_MAX || size == 0) {
    KM_LOGE("length invalid, update %zu, finish %zu\n", update.data_length, finish.data_length);
    return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  }
  SecretBlob joined;
  if (!joined.Allocate(size)) {
    KM_LOGE("out_data malloc failed, size %zu\n", size);
    return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  }
  if (!joined.Join(update, finish)) return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  joined.HandOverTo(output);
  return KM_ERROR_OK;
}

// Hands out what a finish replied. A failure leaves both of the caller's outputs empty.
int32_t CopyOutputs(const Reply& params_reply, const Reply& data_reply,
                    keymaster_key_param_set_t* out_params, keymaster_blob_t* output) {
  if (!DecodeOutParams(params_reply, out_params)) return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  const int32_t result = CopyOutputData(data_reply, output);
  if (result != KM_ERROR_OK && out_params != nullptr) ReleaseParamSet(out_params);
  return result;
}

}  // namespace

namespace keymaster {

int32_t KeymasterTivasContext::TivasKmFinish(unsigned long op_handle,
                                             const keymaster_key_param_set_t* in_params,
                                             const keymaster_blob_t* input,
                                             const keymaster_blob_t* signature,
                                             keymaster_key_param_set_t* out_params,
                                             keymaster_blob_t* output) {
  KM_LOGI("KmFinish start");
  ClearOutputs(out_params, nullptr);
  if (input != nullptr && input->data_length > kMaxFinishInput) {
    KM_LOGE("%s : finish input data length invalid,bigger than 4K\n", kLogFailure);
    return KM_ERROR_INVALID_INPUT_LENGTH;
  }
  ClearOutputs(nullptr, output);
  SecretBlob final_input;
  const bool has_input = (input != nullptr && input->data != nullptr) ||
                         (signature != nullptr && signature->data != nullptr);
  if (has_input && BuildFinalInput(input, signature, final_input.blob()) != 0) {
    return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  }
  SerializedParams params;
  if (!params.BuildIfGiven(in_params)) return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  Reply params_reply(kReplyCapacity);
  Reply data_reply(kReplyCapacity, Reply::Content::kSecret);
  if (!params_reply.allocated() || !data_reply.allocated()) {
    return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  }
  const uint32_t tee_result =
      TeeFinish(op_handle, params.data(), params.length(), final_input.bytes(),
                static_cast<uint32_t>(final_input.size()), params_reply.buffer(),
                params_reply.length_in_out(), data_reply.buffer(), data_reply.length_in_out());
  if (tee_result != 0) return ReportFailure("%s : TeeFinish failed, ret=0x%x", tee_result);
  const int32_t result = CopyOutputs(params_reply, data_reply, out_params, output);
  if (result != KM_ERROR_OK) return result;
  KM_LOGI("KmFinish success");
  return KM_ERROR_OK;
}

int32_t KeymasterTivasContext::TivasKmFinishNew(unsigned long op_handle,
                                                const keymaster_key_param_set_t* in_params,
                                                const keymaster_blob_t* input,
                                                const keymaster_blob_t* signature,
                                                keymaster_key_param_set_t* out_params,
                                                keymaster_blob_t* output) {
  if (input != nullptr && input->data_length > kFinishPart) {
    return TivasKmFinishLarge(op_handle, in_params, input, signature, out_params, output);
  }
  return TivasKmFinish(op_handle, in_params, input, signature, out_params, output);
}

int32_t KeymasterTivasContext::TivasKmFinishLarge(unsigned long op_handle,
                                                  const keymaster_key_param_set_t* in_params,
                                                  const keymaster_blob_t* input,
                                                  const keymaster_blob_t* signature,
                                                  keymaster_key_param_set_t* out_params,
                                                  keymaster_blob_t* output) {
  ClearOutputs(out_params, output);
  if (input == nullptr || input->data == nullptr) return KM_ERROR_UNEXPECTED_NULL_POINTER;
  if (input->data_length <= kFinishPart) return KM_ERROR_INVALID_INPUT_LENGTH;
  const size_t update_length = input->data_length - kFinishPart;
  const keymaster_blob_t update_part = {input->data, update_length};
  const keymaster_blob_t finish_part = {input->data + update_length, kFinishPart};

  SecretBlob update_output;
  unsigned long consumed = 0;
  int32_t result =
      TivasKmUpdate(op_handle, in_params, &update_part, &consumed, nullptr, update_output.blob());
  if (result != KM_ERROR_OK) {
    KM_LOGE("KmUpdate failed, %x\n", static_cast<uint32_t>(result));
    return result;
  }
  SecretBlob finish_output;
  result = TivasKmFinish(op_handle, in_params, &finish_part, signature, out_params,
                         finish_output.blob());
  if (result != KM_ERROR_OK) {
    KM_LOGE("KmFinish failed, %x\n", static_cast<uint32_t>(result));
    return result;
  }
  result = JoinOutputs(update_output.get(), finish_output.get(), output);
  if (result != KM_ERROR_OK && out_params != nullptr) ReleaseParamSet(out_params);
  return result;
}

}  // namespace keymaster
