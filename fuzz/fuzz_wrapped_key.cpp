// The parser of a wrapped key.
#include <keymaster/wrapped_key.h>
#include <openssl/err.h>

#include "fuzz/input.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  keymaster::TKeymasterBlob<keymaster_key_blob_t> wrapped, transit_key, secure_key;
  keymaster::TKeymasterBlob<keymaster_blob_t> iv, tag, description;
  keymaster::AuthorizationSet list;
  keymaster_key_format_t format = KM_KEY_FORMAT_X509;
  wrapped.key_material = data;
  wrapped.key_material_size = size;
  const bool parsed = parse_wrapped_key(wrapped, &iv, &transit_key, &secure_key, &tag, &list,
                                        &format, &description) == KM_ERROR_OK;
  wrapped.key_material = nullptr;  // the fuzzer's

  const keymaster_blob_t outputs[] = {iv,
                                      tag,
                                      description,
                                      {transit_key.key_material, transit_key.key_material_size},
                                      {secure_key.key_material, secure_key.key_material_size}};
  for (const keymaster_blob_t& output : outputs) {
    fuzz::Check((output.data != nullptr) == parsed, "the outputs are there after a success alone");
    if (output.data_length != 0) fuzz::CheckReadable(output.data, output.data_length);
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
