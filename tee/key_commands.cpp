// The TA commands that make, describe and remove keys.

#include <tee_client_api.h>

#include "keymaster_ts.h"
#include "tee/command_frame.h"
#include "tee/tee_context.h"
#include "wire/log.h"

using namespace km41;

namespace {

// What characteristics, export, attestation and upgrade send alike: a key blob, parameters that
// may be missing, and room for the reply.
uint32_t SendKey(CommandFrame* command, const uint8_t* key_material, uint32_t key_material_size,
                 const uint8_t* params, uint32_t params_len, uint8_t* out, uint32_t* out_len) {
  const uint32_t result = command->Send({Input(key_material, key_material_size),
                                         InputIfGiven(params, params_len), Output(out, *out_len)});
  if (result == TEEC_SUCCESS) *out_len = command->ReportedSize(2);
  return result;
}

// What attestation and upgrade require, beside the TEE context.
bool HasKeyAndParams(const uint32_t* out_len, const uint8_t* out, const uint8_t* params,
                     const uint8_t* key_material) {
  return out_len != nullptr && out != nullptr && params != nullptr && key_material != nullptr &&
         GlobalTeeContext() != nullptr;
}

}  // namespace

uint32_t TeeGenerateKey(const uint8_t* params, uint32_t params_len, uint8_t* key_blob,
                        uint32_t* key_blob_len, uint8_t* characteristics,
                        uint32_t* characteristics_len) {
  if (key_blob_len == nullptr || key_blob == nullptr || characteristics_len == nullptr ||
      params == nullptr || GlobalTeeContext() == nullptr) {
    return RejectArguments();
  }
  if (*key_blob_len == 0) {
    TEE_LOGE("%s : invalid keyblob len", kLogFailure);
    return TEEC_ERROR_BAD_PARAMETERS;
  }
  const bool has_characteristics = characteristics != nullptr;
  CommandFrame command(kCmdGenerateKey, "TeeGenerateKey", AfterFailure::kFetchErrorRecord);
  const uint32_t result = command.Send(
      {Input(params, params_len), CommandParam{}, Output(key_blob, *key_blob_len),
       has_characteristics ? Output(characteristics, *characteristics_len) : CommandParam{}});
  if (result != TEEC_SUCCESS) return result;
  *key_blob_len = command.ReportedSize(2);
  *characteristics_len = has_characteristics ? command.ReportedSize(3) : 0;
  return TEEC_SUCCESS;
}

uint32_t TeeGetKeyCharacteristics(const uint8_t* params, uint32_t params_len,
                                  const uint8_t* key_material, uint32_t key_material_size,
                                  uint8_t* out, uint32_t* out_len) {
  if (out_len == nullptr || out == nullptr || key_material == nullptr ||
      GlobalTeeContext() == nullptr) {
    return RejectArguments();
  }
  if (*out_len == 0) {
    TEE_LOGE("%s : invalid keyCharacter len", kLogFailure);
    return TEEC_ERROR_BAD_PARAMETERS;
  }
  CommandFrame command(kCmdGetKeyCharacteristics, "TeeGetKeyCharacteristics",
                       AfterFailure::kNothing);
  return SendKey(&command, key_material, key_material_size, params, params_len, out, out_len);
}

uint32_t TeeImportKey(const uint8_t* params, uint32_t params_len, const uint8_t* key_data,
                      uint32_t key_data_len, uint8_t* key_blob, uint32_t* key_blob_len,
                      uint8_t* characteristics, uint32_t* characteristics_len,
                      uint8_t import_type) {
  if (key_blob_len == nullptr || key_blob == nullptr || characteristics_len == nullptr ||
      key_data == nullptr || params == nullptr || GlobalTeeContext() == nullptr) {
    return RejectArguments();
  }
  if (*key_blob_len == 0) {
    TEE_LOGE("%s : invalid keyBlobLen\n", kLogFailure);
    return TEEC_ERROR_BAD_PARAMETERS;
  }
  CommandFrame command(kCmdImportKey, "TeeImportKey", AfterFailure::kFetchErrorRecord);
  const bool has_characteristics = characteristics != nullptr;
  const uint32_t result = command.Send(
      {Input(params, params_len), Input(key_data, key_data_len), Output(key_blob, *key_blob_len),
       InOut(characteristics, has_characteristics ? *characteristics_len : 0)},
      {Front::Kind::kImportSource, 3, import_type});
  if (result != TEEC_SUCCESS) return result;
  *key_blob_len = command.ReportedSize(2);
  *characteristics_len = command.CappedSize(3);
  return TEEC_SUCCESS;
}

uint32_t TeeExportKey(const uint8_t* params, uint32_t params_len, const uint8_t* key_material,
                      uint32_t key_material_size, uint8_t* out, uint32_t* out_len) {
  if (key_material == nullptr || GlobalTeeContext() == nullptr) return RejectArguments();
  if (out == nullptr || out_len == nullptr) {
    TEE_LOGE("%s : pub key out is NULL\n", kLogFailure);
    return TEEC_ERROR_BAD_PARAMETERS;
  }
  CommandFrame command(kCmdExportKey, "TeeExportKey", AfterFailure::kNothing);
  return SendKey(&command, key_material, key_material_size, params, params_len, out, out_len);
}

uint32_t TeeAttestKey(const uint8_t* key_material, uint32_t key_material_size,
                      const uint8_t* params, uint32_t params_len, uint8_t* out, uint32_t* out_len) {
  TEE_LOGI("TEE_AttestKey entered.\n");
  if (!HasKeyAndParams(out_len, out, params, key_material)) return RejectArguments();
  CommandFrame command(kCmdAttestKey, "TeeAttestKey", AfterFailure::kFetchErrorRecord);
  const uint32_t result =
      SendKey(&command, key_material, key_material_size, params, params_len, out, out_len);
  if (result == TEEC_SUCCESS) {
    command.Close();
    TEE_LOGI("TEE_AttestKey success.\n");
  }
  return result;
}

uint32_t TeeUpgrade(const uint8_t* key_material, uint32_t key_material_size, const uint8_t* params,
                    uint32_t params_len, uint8_t* out, uint32_t* out_len) {
  if (!HasKeyAndParams(out_len, out, params, key_material)) return RejectArguments();
  CommandFrame command(kCmdUpgrade, "TeeUpgrade", AfterFailure::kFetchErrorRecord);
  return SendKey(&command, key_material, key_material_size, params, params_len, out, out_len);
}

uint32_t TeeDeleteKey(const uint8_t* key_material, uint32_t key_material_size) {
  if (key_material == nullptr || GlobalTeeContext() == nullptr) return RejectArguments();
  // The one invocation that no watchdog guards.
  CommandFrame command(kCmdDeleteKey, nullptr, AfterFailure::kNothing);
  const uint32_t result = command.Send({Input(key_material, key_material_size)});
  if (result == TEEC_SUCCESS) return result;
  if (command.step() == CommandFrame::Step::kOpen) {
    TEE_LOGE("%s : OpenKmSession failed, ret = 0x%x\n", kLogFailure, result);
  } else if (command.step() == CommandFrame::Step::kClear) {
    command.Close();
    TEE_LOGE("operation initialize failed");
  }
  return result;
}

uint32_t TeeDestroyAttestationIds() {
  if (GlobalTeeContext() == nullptr) return RejectArguments();
  // The TA has no such command: a session is set up and taken down around nothing.
  KmSession session;
  const uint32_t result = session.Open();
  if (result != TEEC_SUCCESS) return result;
  TEEC_Operation operation = {};
  return ClearOperation(&operation) ? TEEC_SUCCESS : TEEC_ERROR_GENERIC;
}
