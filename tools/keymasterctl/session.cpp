#include "session.h"

#include <stdlib.h>
#include <string.h>

#include "errors.h"

namespace {

void Release(keymaster_key_param_set_t* set) {
  for (size_t i = 0; i < set->length; ++i) {
    const keymaster_tag_type_t type = keymaster_tag_get_type(set->params[i].tag);
    if (type == KM_BYTES || type == KM_BIGNUM) free(const_cast<uint8_t*>(set->params[i].blob.data));
  }
  free(set->params);
  *set = {};
}

// The user's own filter stays.
void ShowErrorsFromHere() {
  const char* tags = getenv("ANDROID_LOG_TAGS");
  if (tags != nullptr && strcmp(tags, kConnectingLogTags) == 0) {
    setenv("ANDROID_LOG_TAGS", kConnectedLogTags, 1);
  }
}

}  // namespace

Session::Session(Start start) {
  if (start == Start::kConfigured) {
    const int32_t result = context_.Initialize(keymaster::KmVersion::KEYMASTER_4_1);
    // The TEE context is up after a failed configuration, and no destructor will run.
    if (result != 0) context_.FinishTeeContext();
    CheckConnected("connecting to the keymaster TA", result);
  } else {
    CheckConnected("connecting to the TEE", context_.InitTeeContext());
  }
  ShowErrorsFromHere();
}

Session::~Session() { context_.FinishTeeContext(); }

OwnedParamSet::~OwnedParamSet() { Release(this); }

OwnedCharacteristics::~OwnedCharacteristics() {
  Release(&hw_enforced);
  Release(&sw_enforced);
}

OwnedChain::~OwnedChain() {
  for (size_t i = 0; i < entry_count; ++i) free(const_cast<uint8_t*>(entries[i].data));
  free(entries);
}

keymaster_blob_t View(const Bytes& bytes) { return {bytes.data(), bytes.size()}; }

keymaster_key_blob_t KeyView(const Bytes& bytes) { return {bytes.data(), bytes.size()}; }

Bytes Copy(const keymaster_blob_t& blob) { return Bytes(blob.data, blob.data + blob.data_length); }

Bytes Copy(const keymaster_key_blob_t& blob) {
  return Bytes(blob.key_material, blob.key_material + blob.key_material_size);
}
