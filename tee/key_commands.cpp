// The TA commands that make, describe and remove keys.

#include <tee_client_api.h>

#include "keymaster_ts.h"
#include "tee/command_frame.h"
#include "tee/tee_context.h"
#include "wire/log.h"

using namespace km41;

using AfterFailure = CommandFrame::AfterFailure;

namespace {

// What characteristics, export, attestation and upgrade send alike: a key blob, parameters that
// may be missing, and room for the reply.
uint32_t SendKey(CommandFrame* command, const uint8_t* key_material, uint32_t key_material_size,
                 const uint8_t* params, uint32_t params_len, uint8_t* out, uint32_t* out_len) {
  uint32_t result = command->Start();
  if (result != TEEC_SUCCESS) {
    return result;
  }
  command->Input(0, key_material, key_material_size);
  command->OptionalInput(1, params, params_len);
  command->Output(2, out, *out_len);
  result = command->Invoke();
  if (result != TEEC_SUCCESS) {
    return result;
  }
  *out_len = command->ReportedSize(2);
  command->Close();
  return TEEC_SUCCESS;
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
    return RefuseArguments();
  }
  if (*key_blob_len == 0) {
    TEE_LOGE("%s : invalid keyblob len", kLogFailure);
    return TEEC_ERROR_BAD_PARAMETERS;
  }
  CommandFrame command(kCmdGenerateKey, "TeeGenerateKey", AfterFailure::kFetchErrorRecord);
  uint32_t result = command.Start();
  if (result != TEEC_SUCCESS) {
    return result;
  }
  command.Input(0, params, params_len);
  command.Output(2, key_blob, *key_blob_len);
  if (characteristics != nullptr) {
    command.Output(3, characteristics, *characteristics_len);
  }
  result = command.Invoke();
  if (result != TEEC_SUCCESS) {
    return result;
  }
  *key_blob_len = command.ReportedSize(2);
  *characteristics_len = characteristics != nullptr ? command.ReportedSize(3) : 0;
  return TEEC_SUCCESS;
}

uint32_t TeeGetKeyCharacteristics(const uint8_t* params, uint32_t params_len,
                                  const uint8_t* key_material, uint32_t key_material_size,
                                  uint8_t* out, uint32_t* out_len) {
  if (out_len == nullptr || out == nullptr || key_material == nullptr ||
      GlobalTeeContext() == nullptr) {
    return RefuseArguments();
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
    return RefuseArguments();
  }
  if (*key_blob_len == 0) {
    TEE_LOGE("%s : invalid keyBlobLen\n", kLogFailure);
    return TEEC_ERROR_BAD_PARAMETERS;
  }
  CommandFrame command(kCmdImportKey, "TeeImportKey", AfterFailure::kFetchErrorRecord);
  uint32_t result = command.Start();
  if (result != TEEC_SUCCESS) {
    return result;
  }
  command.Input(0, params, params_len);
  command.Input(1, key_data, key_data_len);
  command.Output(2, key_blob, *key_blob_len);
  if (characteristics != nullptr) {
    command.InOut(3, characteristics, *characteristics_len);
    // The TA reads where the key came from in the first byte of the buffer it then fills.
    if (*characteristics_len != 0) {
      characteristics[0] = import_type;
    }
  } else {
    command.InOut(3, nullptr, 0);
  }
  result = command.Invoke();
  if (result != TEEC_SUCCESS) {
    return result;
  }
  *key_blob_len = command.ReportedSize(2);
  *characteristics_len = command.CappedSize(3);
  return TEEC_SUCCESS;
}

uint32_t TeeExportKey(const uint8_t* params, uint32_t params_len, const uint8_t* key_material,
                      uint32_t key_material_size, uint8_t* out, uint32_t* out_len) {
  if (key_material == nullptr || GlobalTeeContext() == nullptr) {
    return RefuseArguments();
  }
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
  if (!HasKeyAndParams(out_len, out, params, key_material)) {
    return RefuseArguments();
  }
  CommandFrame command(kCmdAttestKey, "TeeAttestKey", AfterFailure::kFetchErrorRecord);
  const uint32_t result =
      SendKey(&command, key_material, key_material_size, params, params_len, out, out_len);
  if (result == TEEC_SUCCESS) {
    TEE_LOGI("TEE_AttestKey success.\n");
  }
  return result;
}

uint32_t TeeUpgrade(const uint8_t* key_material, uint32_t key_material_size, const uint8_t* params,
                    uint32_t params_len, uint8_t* out, uint32_t* out_len) {
  if (!HasKeyAndParams(out_len, out, params, key_material)) {
    return RefuseArguments();
  }
  CommandFrame command(kCmdUpgrade, "TeeUpgrade", AfterFailure::kFetchErrorRecord);
  return SendKey(&command, key_material, key_material_size, params, params_len, out, out_len);
}

uint32_t TeeDeleteKey(const uint8_t* key_material, uint32_t key_material_size) {
  if (key_material == nullptr || GlobalTeeContext() == nullptr) {
    return RefuseArguments();
  }
  CommandFrame command(kCmdDeleteKey, "TeeDeleteKey", AfterFailure::kNothing);
  uint32_t result = command.OpenSession();
  if (result != TEEC_SUCCESS) {
    TEE_LOGE("%s : OpenKmSession failed, ret = 0x%x\n", kLogFailure, result);
    return result;
  }
  result = command.ClearRecord();
  if (result != TEEC_SUCCESS) {
    command.Close();
    TEE_LOGE("operation initialize failed");
    return result;
  }
  command.Input(0, key_material, key_material_size);
  return command.InvokeUnguarded();
}

uint32_t TeeDestroyAttestationIds() {
  if (GlobalTeeContext() == nullptr) {
    return RefuseArguments();
  }
  // The TA has no such command: the frame is set up and taken down around nothing.
  CommandFrame command(TaCommandId{}, "TeeDestroyAttestationIds", AfterFailure::kNothing);
  return command.Start();
}
