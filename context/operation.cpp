// Cryptographic operations: begin, update, finish, abort. Their state lives in the TA.

#include <securec.h>

#include <initializer_list>

#include "context/caller_blob.h"
#include "keymaster_tivas_context.h"
#include "keymaster_ts.h"
#include "marshal/log.h"
#include "marshal/param_set.h"

namespace {

constexpr uint32_t kMaxFinishInput = 4096;
// What of a long input goes with the finish; the rest goes before it as an update.
constexpr uint32_t kFinishPart = 4032;
constexpr uint32_t kMaxPiece = 0x80000;
constexpr uint32_t kBlock = 16;

void ClearOutputs(keymaster_key_param_set_t* out_params, keymaster_blob_t* output) {
  if (out_params != nullptr) {
    *out_params = keymaster_key_param_set_t{};
  }
  if (output != nullptr) {
    *output = keymaster_blob_t{};
  }
}

// Input of 2^32 - 17 bytes at most, so this does not wrap.
uint32_t RoundedUp(uint32_t length) {
  return length == 0 ? kBlock : (length + kBlock - 1) / kBlock * kBlock;
}

// Decodes a reply into the caller's cleared set. An empty reply, or no set, is nothing to decode.
bool DecodeOutParams(ReplyBuffer* reply, keymaster_key_param_set_t* out_params) {
  if (out_params == nullptr || reply->length() == 0) {
    return true;
  }
  return reply->fits() && BuildKeyParamSet(out_params, reply->data(), reply->length()) == 0;
}

int32_t RefuseNoAssociatedData() {
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
  if (in_params->length == 0) {
    return RefuseNoAssociatedData();
  }
  if (in_params->params == nullptr) {
    KM_LOGE("%s : invalid inParams->params", kLogFailure);
    return KM_ERROR_UNEXPECTED_NULL_POINTER;
  }
  if (FindParam(*in_params, KM_TAG_ASSOCIATED_DATA) == nullptr) {
    return RefuseNoAssociatedData();
  }
  ClearOutputs(out_params, output);
  SerializedParams params;
  if (!params.Build(in_params)) {
    return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  }
  ReplyBuffer params_reply(kReplyCapacity);
  SecretBuffer data_reply(kBlock);
  if (!params_reply.allocated() || !data_reply.allocated()) {
    return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  }
  const uint32_t tee_result =
      TeeUpdate(op_handle, params.data(), params.length(), nullptr, nullptr, params_reply.data(),
                params_reply.length_in_out(), data_reply.data(), data_reply.length_in_out());
  if (tee_result != 0) {
    KM_LOGE("%s : TeeUpdate failed, ret=0x%x", kLogFailure, tee_result);
  }
  return static_cast<int32_t>(tee_result);
}

// UpdateOutput is the one buffer that all pieces of an update write into. It is wiped unless it
// is given away.
class UpdateOutput {
 public:
  explicit UpdateOutput(uint32_t capacity) : bytes_(AllocateBytes(capacity)), capacity_(capacity) {}
  ~UpdateOutput() {
    if (bytes_ != nullptr) {
      OPENSSL_cleanse(bytes_.get(), produced_);
    }
  }

  bool allocated() const { return bytes_ != nullptr; }
  uint8_t* end() { return bytes_.get() + produced_; }
  // Counts what a piece produced; false when it reports more than it was offered.
  bool Produce(uint32_t offered, uint32_t reported) {
    if (reported > offered || reported > capacity_ - produced_) {
      return false;
    }
    produced_ += reported;
    return true;
  }
  uint32_t produced() const { return produced_; }
  void GiveTo(keymaster_blob_t* output) {
    output->data = bytes_.release();
    output->data_length = produced_;
  }

 private:
  MallocBuffer bytes_;
  const uint32_t capacity_;
  uint32_t produced_ = 0;
};

// Sends input in pieces. params_reply holds the last piece's output parameters.
int32_t SendPieces(uint64_t op_handle, const SerializedParams& params,
                   const keymaster_blob_t& input, ReplyBuffer* params_reply,
                   UpdateOutput* data_reply) {
  const auto length = static_cast<uint32_t>(input.data_length);
  uint32_t consumed = 0;
  do {
    const uint32_t left = length - consumed;
    const uint32_t piece = left < kMaxPiece ? left : kMaxPiece;
    const uint32_t offered = RoundedUp(piece);
    uint32_t reported = offered;
    *params_reply->length_in_out() = params_reply->capacity();
    const uint8_t* bytes = input.data != nullptr ? input.data + consumed : nullptr;
    const uint32_t tee_result =
        TeeUpdate(op_handle, params.data(), params.length(), bytes, &piece, params_reply->data(),
                  params_reply->length_in_out(), data_reply->end(), &reported);
    if (tee_result != 0) {
      KM_LOGE("%s : TeeUpdate failed, ret=0x%x", kLogFailure, tee_result);
      return static_cast<int32_t>(tee_result);
    }
    if (!data_reply->Produce(offered, reported)) {
      KM_LOGE("%s : too large outDataLen:%u\n", kLogFailure, reported);
      return KM_ERROR_UNKNOWN_ERROR;
    }
    consumed += piece;
  } while (consumed < length);
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
  if (result != KM_ERROR_OK) {
    return result;
  }
  ClearOutputs(out_params, output);
  SerializedParams params;
  if (in_params != nullptr && !params.Build(in_params)) {
    return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  }
  ReplyBuffer params_reply(kReplyCapacity);
  if (!params_reply.allocated()) {
    return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  }
  UpdateOutput data_reply(RoundedUp(static_cast<uint32_t>(input.data_length)));
  if (!data_reply.allocated()) {
    return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  }
  result = SendPieces(op_handle, params, input, &params_reply, &data_reply);
  if (result != KM_ERROR_OK) {
    return result;
  }
  if (!DecodeOutParams(&params_reply, out_params)) {
    KM_LOGE("update build key parame fail");
    TeeAbort(op_handle);
    return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  }
  if (output != nullptr && data_reply.produced() != 0) {
    data_reply.GiveTo(output);
  }
  *input_consumed = input.data_length;
  KM_LOGI("KmUpdate success");
  return KM_ERROR_OK;
}

// Joins what update and finish produced in a new buffer that output receives.
int32_t JoinOutputs(const keymaster_blob_t& update, const keymaster_blob_t& finish,
                    keymaster_blob_t* output) {
  if (output == nullptr) {
    return KM_ERROR_UNEXPECTED_NULL_POINTER;
  }
  const size_t size = update.data_length + finish.data_length;
  if (size >= UINT32_MAX || size == 0) {
    KM_LOGE("length invalid, update %zu, finish %zu\n", update.data_length, finish.data_length);
    return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  }
  SecretBlob joined;
  joined.blob.data = AllocateBytes(size).release();
  if (joined.blob.data == nullptr) {
    KM_LOGE("out_data malloc failed, size %zu\n", size);
    return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  }
  joined.blob.data_length = size;
  auto* at = const_cast<uint8_t*>(joined.blob.data);
  size_t room = size;
  for (const keymaster_blob_t* part : {&update, &finish}) {
    if (part->data_length != 0 && memcpy_s(at, room, part->data, part->data_length) != 0) {
      return KM_ERROR_MEMORY_ALLOCATION_FAILED;
    }
    at += part->data_length;
    room -= part->data_length;
  }
  *output = joined.blob;
  joined.blob = keymaster_blob_t{};
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
  if (key == nullptr || key->key_material == nullptr) {
    return KM_ERROR_UNEXPECTED_NULL_POINTER;
  }
  if (op_handle == nullptr) {
    return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  }
  ClearOutputs(out_params, nullptr);
  SerializedParams params;
  if (in_params != nullptr && !params.Build(in_params)) {
    return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  }
  ReplyBuffer reply(kReplyCapacity);
  if (!reply.allocated()) {
    return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  }
  uint64_t handle = 0;
  const uint32_t tee_result = TeeBegin(purpose, params.data(), params.length(), key->key_material,
                                       static_cast<uint32_t>(key->key_material_size), reply.data(),
                                       reply.length_in_out(), &handle);
  if (tee_result != 0) {
    KM_LOGE("%s : TeeBegin failed, ret=0x%x", kLogFailure, tee_result);
    return static_cast<int32_t>(tee_result);
  }
  if (out_params == nullptr) {
    KM_LOGI("out_params is NULL");
  }
  KM_LOGI("out_params_buffer_len = %u", reply.length());
  if (!DecodeOutParams(&reply, out_params)) {
    KM_LOGE("build key parame fail");
    TeeAbort(handle);
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
  if (has_input && BuildFinalInput(input, signature, &final_input.blob) != 0) {
    return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  }
  SerializedParams params;
  if (in_params != nullptr && !params.Build(in_params)) {
    return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  }
  ReplyBuffer params_reply(kReplyCapacity);
  SecretBuffer data_reply(kReplyCapacity);
  if (!params_reply.allocated() || !data_reply.allocated()) {
    return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  }
  const uint32_t tee_result =
      TeeFinish(op_handle, params.data(), params.length(), final_input.blob.data,
                static_cast<uint32_t>(final_input.blob.data_length), params_reply.data(),
                params_reply.length_in_out(), data_reply.data(), data_reply.length_in_out());
  if (tee_result != 0) {
    KM_LOGE("%s : TeeFinish failed, ret=0x%x", kLogFailure, tee_result);
    return static_cast<int32_t>(tee_result);
  }
  if (!DecodeOutParams(&params_reply, out_params)) {
    return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  }
  const int32_t result = CopyOutputData(output, data_reply.length(), data_reply.data());
  if (result != KM_ERROR_OK) {
    if (out_params != nullptr) {
      ReleaseParamSet(out_params);
    }
    return result;
  }
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
  if (input == nullptr || input->data == nullptr) {
    return KM_ERROR_UNEXPECTED_NULL_POINTER;
  }
  if (input->data_length <= kFinishPart) {
    return KM_ERROR_INVALID_INPUT_LENGTH;
  }
  const size_t update_length = input->data_length - kFinishPart;
  const keymaster_blob_t update_part = {input->data, update_length};
  const keymaster_blob_t finish_part = {input->data + update_length, kFinishPart};

  SecretBlob update_output;
  unsigned long consumed = 0;
  int32_t result =
      TivasKmUpdate(op_handle, in_params, &update_part, &consumed, nullptr, &update_output.blob);
  if (result != KM_ERROR_OK) {
    KM_LOGE("KmUpdate failed, %x\n", static_cast<uint32_t>(result));
    return result;
  }
  SecretBlob finish_output;
  result =
      TivasKmFinish(op_handle, in_params, &finish_part, signature, out_params, &finish_output.blob);
  if (result != KM_ERROR_OK) {
    KM_LOGE("KmFinish failed, %x\n", static_cast<uint32_t>(result));
    return result;
  }
  result = JoinOutputs(update_output.blob, finish_output.blob, output);
  if (result != KM_ERROR_OK && out_params != nullptr) {
    ReleaseParamSet(out_params);
  }
  return result;
}

int32_t KeymasterTivasContext::TivasKmAbort(unsigned long op_handle) {
  KM_LOGI("KmAbort start");
  const uint32_t tee_result = TeeAbort(op_handle);
  if (tee_result != 0) {
    KM_LOGE("%s : TeeAbort failed, ret=0x%x", kLogFailure, tee_result);
    return static_cast<int32_t>(tee_result);
  }
  KM_LOGI("KmAbort success");
  return KM_ERROR_OK;
}

}  // namespace keymaster
