// The certificate chain that a TA answers an attestation with.
#include <keymaster_tivas_context.h>

#include "fuzz/scripted_tee.h"

namespace {
constexpr uint32_t kAttestKey = 6;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::EnsureTeeContext();
  fuzz::AnswerWith(kAttestKey, 2, fuzz::Bytes(data, data + size));
  static keymaster::KeymasterTivasContext km;
  const uint8_t name[] = {1};
  const keymaster_key_blob_t key = {name, sizeof(name)};
  const keymaster_key_param_set_t params = {};
  keymaster_cert_chain_t chain = {};
  const int32_t result = km.TivasKmAttestKey(&key, &params, &chain);
  if (result == 0) {
    fuzz::Check(chain.entry_count >= 2, "a chain has a leaf and its issuer");
  } else {
    fuzz::Check(chain.entries == nullptr && chain.entry_count == 0, "a failure leaves nothing");
  }
  fuzz::Release(&chain);
  return 0;
}
