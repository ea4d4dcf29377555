#include "context/serialized_params.h"

#include "keymaster_ts.h"
#include "marshal/param_set.h"

namespace km41 {

namespace {

struct KmParamsOwner {
  ~KmParamsOwner() { FreeKmParams(&record); }
  KmParams record = {};
};

bool AddBytes(KmParams* record, keymaster_tag_t tag, const keymaster_blob_t& value) {
  const keymaster_key_param_t param = BytesParam(tag, value);
  return AddKmParams(record, &param) == 0;
}

}  // namespace

bool SerializedParams::BuildClient(const keymaster_blob_t* client_id,
                                   const keymaster_blob_t* app_data) {
  KmParamsOwner owner;
  if (InitKmParams(&owner.record) != 0) return false;
  if (client_id != nullptr && !AddBytes(&owner.record, KM_TAG_APPLICATION_ID, *client_id)) {
    return false;
  }
  if (app_data != nullptr && !AddBytes(&owner.record, KM_TAG_APPLICATION_DATA, *app_data)) {
    return false;
  }
  if (client_id == nullptr && app_data == nullptr) return true;
  uint8_t* bytes = nullptr;
  const bool built = SerializeKmParams(nullptr, &owner.record, &bytes, &length_) == 0;
  bytes_.reset(bytes);
  return built;
}

}  // namespace km41
