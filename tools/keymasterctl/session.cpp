#include "tools/keymasterctl/session.h"

#include <stdlib.h>

#include "tools/keymasterctl/errors.h"
#include "tools/keymasterctl/names.h"
#include "tools/keymasterctl/params.h"
#include "tools/keymasterctl/state.h"

namespace {

// Check for the making of a session: what the TEE says is kExitNoTa.
void CheckConnected(const char* what, int32_t result) {
  if (result != 0) {
    Failure failure = ResultFailure(what, result);
    failure.status = IsTeeResult(result) ? kExitNoTa : kExitFailed;
    throw Failure(failure);
  }
}

}  // namespace

Session::Session(Start start) {
  const std::string trouble = StateTrouble();
  if (!trouble.empty()) throw Failure(trouble, kStateAdvice);
  if (start == Start::kBare) {
    CheckConnected("connecting to the TEE", context_.InitTeeContext());
    return;
  }
  const int32_t result = context_.Initialize(keymaster::KmVersion::KEYMASTER_4_1);
  // The TEE context is up after a failed configuration, and no destructor will run.
  if (result != 0) (void)context_.FinishTeeContext();
  CheckConnected("connecting to the keymaster TA", result);
}

Session::~Session() { (void)context_.FinishTeeContext(); }

void Session::Configure(uint32_t os_version, uint32_t patch_level) {
  ParamList params;
  params.Add(KM_TAG_OS_VERSION, os_version);
  params.Add(KM_TAG_OS_PATCHLEVEL, patch_level);
  Check("configure", context_.TivasKmConfigure(params.set()));
}

void Release(keymaster_key_param_set_t* set) {
  for (size_t i = 0; i < set->length; ++i) {
    if (IsBytes(set->params[i].tag)) free(const_cast<uint8_t*>(set->params[i].blob.data));
  }
  free(set->params);
}

void Release(keymaster_key_characteristics_t* characteristics) {
  Release(&characteristics->hw_enforced);
  Release(&characteristics->sw_enforced);
}

void Release(keymaster_cert_chain_t* chain) {
  for (size_t i = 0; i < chain->entry_count; ++i) {
    free(const_cast<uint8_t*>(chain->entries[i].data));
  }
  free(chain->entries);
}

keymaster_blob_t View(const Bytes& bytes) { return {bytes.data(), bytes.size()}; }

keymaster_key_blob_t KeyView(const Bytes& bytes) { return {bytes.data(), bytes.size()}; }

Bytes Copy(const keymaster_blob_t& blob) { return Bytes(blob.data, blob.data + blob.data_length); }

Bytes Copy(const keymaster_key_blob_t& blob) {
  return Bytes(blob.key_material, blob.key_material + blob.key_material_size);
}
