// Requests about an existing key: its characteristics, upgrade and deletion.

#include "context/reply.h"
#include "context/serialized_params.h"
#include "keymaster_tivas_context.h"
#include "keymaster_ts.h"
#include "wire/log.h"

using namespace km41;

namespace keymaster {

int32_t KeymasterTivasContext::TivasKmGetKeyCharacteristics(
    const keymaster_key_blob_t* key, const keymaster_blob_t* client_id,
    const keymaster_blob_t* app_data, keymaster_key_characteristics_t* characteristics) {
  KM_LOGI("KmGetKeyCharacteristics start");
  if (key == nullptr || key->key_material == nullptr) return KM_ERROR_UNEXPECTED_NULL_POINTER;
  if (characteristics == nullptr) return KM_ERROR_OUTPUT_PARAMETER_NULL;
  SerializedParams params;
  if (!params.BuildClient(client_id, app_data)) return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  Reply reply(kReplyCapacity);
  if (!reply.allocated()) return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  const uint32_t tee_result = TeeGetKeyCharacteristics(
      params.data(), params.length(), key->key_material,
      static_cast<uint32_t>(key->key_material_size), reply.buffer(), reply.length_in_out());
  if (tee_result != 0) {
    return ReportFailure("%s : TeeGetKeyCharacteristics failed, ret=0x%x", tee_result);
  }
  if (!DecodeCharacteristics(reply, characteristics)) {
    // Emptied here too, where a reply of 3 bytes or fewer left them untouched.
    *characteristics = keymaster_key_characteristics_t{};
    return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  }
  KM_LOGI("KmGetKeyCharacteristics success");
  return KM_ERROR_OK;
}

int32_t KeymasterTivasContext::TivasKmUpgradeKey(const keymaster_key_blob_t* key_to_upgrade,
                                                 const keymaster_key_param_set_t* upgrade_params,
                                                 keymaster_key_blob_t* upgraded_key) {
  KM_LOGI("KmUpgradeKey start");
  if (key_to_upgrade == nullptr || upgrade_params == nullptr) {
    return KM_ERROR_UNEXPECTED_NULL_POINTER;
  }
  if (upgraded_key == nullptr) return KM_ERROR_OUTPUT_PARAMETER_NULL;
  SerializedParams params;
  if (!params.Build(upgrade_params)) return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  Reply reply(kReplyCapacity);
  if (!reply.allocated()) return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  const uint32_t tee_result = TeeUpgrade(
      key_to_upgrade->key_material, static_cast<uint32_t>(key_to_upgrade->key_material_size),
      params.data(), params.length(), reply.buffer(), reply.length_in_out());
  if (tee_result != 0) return ReportFailure("%s : TeeUpgrade failed, ret=0x%x", tee_result);
  if (reply.reported_length() == 0) {
    KM_LOGI("KmUpgradeKey don't need upgradekey");
    return KM_ERROR_OK;
  }
  ReplyReader reader;
  if (!ReadKeyBlob(reply, 0, &reader)) return KM_ERROR_UNKNOWN_ERROR;
  const int32_t result = CopyKeyBlob(reader, upgraded_key);
  if (result == KM_ERROR_UNKNOWN_ERROR) {
    KM_LOGE("%s : memcpy_s upgrade key payload failed", kLogFailure);
  }
  if (result != KM_ERROR_OK) return result;
  KM_LOGI("KmUpgradeKey success");
  return KM_ERROR_OK;
}

int32_t KeymasterTivasContext::TivasKmDeletekey(const keymaster_key_blob_t* key) {
  KM_LOGI("KmDeletekey start");
  if (key == nullptr || key->key_material == nullptr) {
    KM_LOGE("%s : NULL pointers.\n", kLogFailure);
    return KM_ERROR_UNIMPLEMENTED;
  }
  const uint32_t tee_result =
      TeeDeleteKey(key->key_material, static_cast<uint32_t>(key->key_material_size));
  if (tee_result != 0) return ReportFailure("%s : TeeDeleteKey failed, ret=0x%x", tee_result);
  KM_LOGI("km_delete success");
  return KM_ERROR_OK;
}

}  // namespace keymaster
