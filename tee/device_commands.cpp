// The TA commands about the device: configuration, authorization, state, HMAC sharing.

#include <tee_client_api.h>

#include "keymaster_ts.h"
#include "tee/command_frame.h"
#include "tee/tee_context.h"
#include "wire/log.h"

using namespace km41;

uint32_t TeeKmConfigure(uint32_t os_version, uint32_t os_patchlevel) {
  if (GlobalTeeContext() == nullptr) return RejectArguments();
  CommandFrame command(kCmdConfigure, "TeeKmConfigure", AfterFailure::kNothing);
  return command.Send({ValueInput(os_version, os_patchlevel)});
}

uint32_t TeeVerifyAuthorization(const uint8_t* params, uint32_t params_len, const uint8_t* input,
                                const uint32_t* input_len, uint8_t* out_params,
                                uint32_t* out_params_len, uint8_t* token, uint64_t* token_len) {
  if (token_len == nullptr || token == nullptr || out_params_len == nullptr ||
      out_params == nullptr || GlobalTeeContext() == nullptr) {
    return RejectParams();
  }
  CommandFrame command(kCmdVerifyAuthorization, "TeeVerifyAuthorization", AfterFailure::kNothing);
  const uint32_t result = command.Send(
      {InputIfGiven(params, params_len), InputOfGivenSize(input, input_len),
       InOut(out_params, *out_params_len), Output(token, static_cast<uint32_t>(*token_len))});
  if (result != TEEC_SUCCESS) return result;
  *out_params_len = command.CappedSize(2);
  *token_len = command.ReportedSize(3);
  return TEEC_SUCCESS;
}

uint32_t TeeEarlyBootEnded() {
  if (GlobalTeeContext() == nullptr) return RejectArguments();
  CommandFrame command(kCmdEarlyBootEnded, "TeeEarlyBootEnded", AfterFailure::kNothing);
  return command.Send();
}

uint32_t TeeDeviceLocked(uint32_t password_only) {
  if (GlobalTeeContext() == nullptr) return RejectArguments();
  CommandFrame command(kCmdDeviceLocked, "TeeDeviceLocked", AfterFailure::kNothing);
  return command.Send({ValueInput(password_only, 0)});
}

uint32_t TeegetHmacSharingParameters(uint8_t* hmac_out1, uint32_t hmac_out1_len, uint8_t* hmac_out2,
                                     uint32_t hmac_out2_len) {
  if (hmac_out1 == nullptr || hmac_out2 == nullptr || GlobalTeeContext() == nullptr) {
    return RejectArguments();
  }
  CommandFrame command(kCmdGetHmacSharingParameters, "TeegetHmacSharingParameters",
                       AfterFailure::kNothing);
  const uint32_t result =
      command.Send({Output(hmac_out1, hmac_out1_len), Output(hmac_out2, hmac_out2_len)});
  if (command.step() == CommandFrame::Step::kClear) {
    TEE_LOGE("TeegetHmacSharingParameters memset_s failed\n");
  }
  return result;
}

uint32_t TeecomputeSharedHmac(const uint8_t* sharing_params, uint32_t sharing_params_len,
                              uint8_t* sharing_check, uint32_t* sharing_check_len) {
  if (sharing_params == nullptr || sharing_check == nullptr || sharing_check_len == nullptr ||
      GlobalTeeContext() == nullptr) {
    return RejectArguments();
  }
  CommandFrame command(kCmdComputeSharedHmac, "TeecomputeSharedHmac", AfterFailure::kNothing);
  const uint32_t result = command.Send(
      {Input(sharing_params, sharing_params_len), Output(sharing_check, *sharing_check_len)});
  if (command.step() == CommandFrame::Step::kClear) {
    TEE_LOGE("TeecomputeSharedHmac memset_s failed\n");
  }
  if (result != TEEC_SUCCESS) return result;
  *sharing_check_len = command.ReportedSize(1);
  return TEEC_SUCCESS;
}
