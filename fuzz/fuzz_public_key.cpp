// The raw public key that a TA answers an export with. What is exported must be an encoding that
// libcrypto reads back to the same bytes.
#include <keymaster_tivas_context.h>
#include <openssl/err.h>
#include <openssl/x509.h>

#include "fuzz/scripted_tee.h"

namespace {

constexpr uint32_t kExportKey = 5;

void CheckEncoding(const keymaster_blob_t& spki) {
  const unsigned char* at = spki.data;
  EVP_PKEY* key = d2i_PUBKEY(nullptr, &at, static_cast<long>(spki.data_length));
  fuzz::Check(key != nullptr, "an exported key can be read");
  fuzz::Check(at == spki.data + spki.data_length, "nothing stands behind the key");
  EVP_PKEY_free(key);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::EnsureTeeContext();
  fuzz::AnswerWith(kExportKey, 2, fuzz::Bytes(data, data + size));
  static keymaster::KeymasterTivasContext km;
  const uint8_t name[] = {1};
  const keymaster_key_blob_t key = {name, sizeof(name)};
  keymaster_blob_t spki = {};
  const int32_t result = km.TivasKmExportKey(KM_KEY_FORMAT_X509, &key, nullptr, nullptr, &spki);
  if (result == 0) {
    CheckEncoding(spki);
  } else {
    fuzz::Check(spki.data == nullptr && spki.data_length == 0, "a failure leaves nothing");
  }
  fuzz::Release(&spki);
  ERR_clear_error();
  return 0;
}
