// The certificate chain that a TA answers an attestation with.
#include "fuzz/serve.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::ServeReply("AttestKey", 2, fuzz::Bytes(data, data + size),
                   [](int32_t result, const test::Args& args) {
                     fuzz::Check(result != 0 || args.chain->entry_count >= 2,
                                 "a chain has a leaf and its issuer");
                   });
  return 0;
}
