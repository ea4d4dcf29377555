// The parser of a wrapped key.
#include <keymaster/wrapped_key.h>
#include <openssl/err.h>

#include "fuzz/input.h"

namespace {

// Lends the fuzzer's bytes to an owning blob.
struct Lent : keymaster::TKeymasterBlob<keymaster_key_blob_t> {
  Lent(const uint8_t* data, size_t size) {
    key_material = data;
    key_material_size = size;
  }
  ~Lent() { key_material = nullptr; }
};

template <typename Blob>
void CheckOutput(Blob& blob, bool parsed) {
  const uint8_t* bytes = keymaster::BlobData(blob);
  const size_t length = keymaster::BlobSize(blob);
  fuzz::Check((bytes != nullptr) == parsed, "the outputs are there after a success alone");
  if (length != 0) fuzz::CheckReadable(bytes, length);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const Lent wrapped(data, size);
  keymaster::TKeymasterBlob<keymaster_blob_t> iv, tag, description;
  keymaster::TKeymasterBlob<keymaster_key_blob_t> transit_key, secure_key;
  keymaster::AuthorizationSet list;
  keymaster_key_format_t format = KM_KEY_FORMAT_X509;
  const bool parsed = parse_wrapped_key(wrapped, &iv, &transit_key, &secure_key, &tag, &list,
                                        &format, &description) == KM_ERROR_OK;
  for (auto* blob : {&iv, &tag, &description}) {
    CheckOutput(*blob, parsed);
  }
  for (auto* blob : {&transit_key, &secure_key}) {
    CheckOutput(*blob, parsed);
  }
  fuzz::Check(parsed || list.empty(), "a failure leaves no parameters");
  for (const keymaster_key_param_t& param : list) {
    if (test::IsByteValued(param.tag) && param.blob.data_length != 0) {
      fuzz::CheckReadable(param.blob.data, param.blob.data_length);
    }
  }
  fuzz::Check(ERR_peek_error() == 0, "no libcrypto error is left behind");
  return 0;
}
