// The TA commands of an operation: begin, update, finish, abort.

#include <tee_client_api.h>

#include "keymaster_ts.h"
#include "tee/command_frame.h"
#include "tee/tee_context.h"
#include "wire/little_endian.h"

using namespace km41;

uint32_t TeeBegin(uint32_t purpose, const uint8_t* params, uint32_t params_len,
                  const uint8_t* key_material, uint32_t key_material_size, uint8_t* out_params,
                  uint32_t* out_params_len, uint64_t* op_handle) {
  if (op_handle == nullptr || out_params_len == nullptr || out_params == nullptr ||
      key_material == nullptr || GlobalTeeContext() == nullptr) {
    return RejectArguments();
  }
  CommandFrame command(kCmdBegin, "TeeBegin", AfterFailure::kFetchErrorRecord);
  const uint32_t result =
      command.Send({Input(key_material, key_material_size), InputIfGiven(params, params_len),
                    Output(out_params, *out_params_len), ValueInOut(purpose, 0)});
  if (result != TEEC_SUCCESS) return result;
  *out_params_len = command.ReportedSize(2);
  const TEEC_Value& handle = command.ReportedValue(3);
  *op_handle = handle.a | static_cast<uint64_t>(handle.b) << 32;
  return TEEC_SUCCESS;
}

uint32_t TeeUpdate(uint64_t op_handle, const uint8_t* params, uint32_t params_len,
                   const uint8_t* input, const uint32_t* input_len, uint8_t* out_params,
                   uint32_t* out_params_len, uint8_t* output, uint32_t* output_len) {
  if (output_len == nullptr || output == nullptr || out_params_len == nullptr ||
      out_params == nullptr || GlobalTeeContext() == nullptr) {
    return RejectParams();
  }
  CommandFrame command(kCmdUpdate, "TeeUpdate", AfterFailure::kNothing);
  const uint32_t result =
      command.Send({InputIfGiven(params, params_len), InputOfGivenSize(input, input_len),
                    InOut(out_params, *out_params_len), Output(output, *output_len)},
                   {Front::Kind::kOperationHandle, 2, op_handle});
  if (result != TEEC_SUCCESS) return result;
  *out_params_len = command.CappedSize(2);
  *output_len = command.ReportedSize(3);
  return TEEC_SUCCESS;
}

uint32_t TeeFinish(uint64_t op_handle, const uint8_t* params, uint32_t params_len,
                   const uint8_t* input, uint32_t input_len, uint8_t* out_params,
                   uint32_t* out_params_len, uint8_t* output, uint32_t* output_len) {
  if (output_len == nullptr || output == nullptr || out_params_len == nullptr ||
      out_params == nullptr || GlobalTeeContext() == nullptr) {
    return RejectParams();
  }
  CommandFrame command(kCmdFinish, "TeeFinish", AfterFailure::kNothing);
  const uint32_t result = command.Send(
      {InputIfGiven(params, params_len), InputIfGiven(input_len != 0 ? input : nullptr, input_len),
       InOut(out_params, *out_params_len), Output(output, *output_len)},
      {Front::Kind::kOperationHandle, 2, op_handle});
  if (result != TEEC_SUCCESS) return result;
  *out_params_len = command.CappedSize(2);
  *output_len = command.ReportedSize(3);
  return TEEC_SUCCESS;
}

uint32_t TeeAbort(uint64_t op_handle) {
  if (GlobalTeeContext() == nullptr) return RejectArguments();
  uint64_t wire = 0;
  auto* const handle = reinterpret_cast<uint8_t*>(&wire);
  PutU64(handle, op_handle);
  CommandFrame command(kCmdAbort, "TeeAbort", AfterFailure::kNothing);
  return command.Send({Input(handle, sizeof(wire))});
}
