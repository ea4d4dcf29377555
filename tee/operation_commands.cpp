// The TA commands of an operation: begin, update, finish, abort.

#include <securec.h>
#include <tee_client_api.h>

#include "keymaster_ts.h"
#include "tee/command_frame.h"
#include "tee/tee_context.h"

using namespace km41;

using AfterFailure = CommandFrame::AfterFailure;

uint32_t TeeBegin(uint32_t purpose, const uint8_t* params, uint32_t params_len,
                  const uint8_t* key_material, uint32_t key_material_size, uint8_t* out_params,
                  uint32_t* out_params_len, uint64_t* op_handle) {
  if (op_handle == nullptr || out_params_len == nullptr || out_params == nullptr ||
      key_material == nullptr || GlobalTeeContext() == nullptr) {
    return RefuseArguments();
  }
  CommandFrame command(kCmdBegin, "TeeBegin", AfterFailure::kFetchErrorRecord);
  uint32_t result = command.Start();
  if (result != TEEC_SUCCESS) {
    return result;
  }
  command.Input(0, key_material, key_material_size);
  command.OptionalInput(1, params, params_len);
  command.Output(2, out_params, *out_params_len);
  command.Value(3, TEEC_VALUE_INOUT, purpose, 0);
  result = command.Invoke();
  if (result != TEEC_SUCCESS) {
    return result;
  }
  *out_params_len = command.ReportedSize(2);
  const TEEC_Value& handle = command.ReportedValue(3);
  *op_handle = handle.a | static_cast<uint64_t>(handle.b) << 32;
  return TEEC_SUCCESS;
}

namespace {

// What update and finish share once params[0] and params[1] are filled: the handle travels in
// front of the buffer that comes back with the output parameters.
uint32_t SendOperationData(CommandFrame* command, uint64_t op_handle, uint8_t* out_params,
                           uint32_t* out_params_len, uint8_t* output, uint32_t* output_len) {
  command->InOut(2, out_params, *out_params_len);
  command->Output(3, output, *output_len);
  if (memcpy_s(out_params, *out_params_len, &op_handle, sizeof(op_handle)) != 0) {
    return TEEC_ERROR_GENERIC;
  }
  const uint32_t result = command->Invoke();
  if (result != TEEC_SUCCESS) {
    return result;
  }
  *out_params_len = command->CappedSize(2);
  *output_len = command->ReportedSize(3);
  return TEEC_SUCCESS;
}

}  // namespace

uint32_t TeeUpdate(uint64_t op_handle, const uint8_t* params, uint32_t params_len,
                   const uint8_t* input, const uint32_t* input_len, uint8_t* out_params,
                   uint32_t* out_params_len, uint8_t* output, uint32_t* output_len) {
  if (output_len == nullptr || output == nullptr || out_params_len == nullptr ||
      out_params == nullptr || GlobalTeeContext() == nullptr) {
    return RefuseParams();
  }
  CommandFrame command(kCmdUpdate, "TeeUpdate", AfterFailure::kNothing);
  const uint32_t result = command.Start();
  if (result != TEEC_SUCCESS) {
    return result;
  }
  command.OptionalInput(0, params, params_len);
  command.OptionalInput(1, input, input_len);
  return SendOperationData(&command, op_handle, out_params, out_params_len, output, output_len);
}

uint32_t TeeFinish(uint64_t op_handle, const uint8_t* params, uint32_t params_len,
                   const uint8_t* input, uint32_t input_len, uint8_t* out_params,
                   uint32_t* out_params_len, uint8_t* output, uint32_t* output_len) {
  if (output_len == nullptr || output == nullptr || out_params_len == nullptr ||
      out_params == nullptr || GlobalTeeContext() == nullptr) {
    return RefuseParams();
  }
  CommandFrame command(kCmdFinish, "TeeFinish", AfterFailure::kNothing);
  const uint32_t result = command.Start();
  if (result != TEEC_SUCCESS) {
    return result;
  }
  command.OptionalInput(0, params, params_len);
  if (input_len != 0) {
    command.OptionalInput(1, input, input_len);
  }
  return SendOperationData(&command, op_handle, out_params, out_params_len, output, output_len);
}

uint32_t TeeAbort(uint64_t op_handle) {
  if (GlobalTeeContext() == nullptr) {
    return RefuseArguments();
  }
  CommandFrame command(kCmdAbort, "TeeAbort", AfterFailure::kNothing);
  const uint32_t result = command.Start();
  if (result != TEEC_SUCCESS) {
    return result;
  }
  command.Input(0, reinterpret_cast<const uint8_t*>(&op_handle), sizeof(op_handle));
  return command.Invoke();
}
