// The raw public key that a TA answers an export with. What is exported must be an encoding that
// libcrypto reads back to the same bytes, of the TA's numbers.
#include <keymaster_tivas_context.h>
#include <openssl/err.h>
#include <openssl/x509.h>

#include "fuzz/scripted_tee.h"

namespace {

constexpr uint32_t kExportKey = 5;

// Checks that two numbers are those of the reply, behind its header of four words.
void CheckNumbers(const fuzz::Bytes& reply, const BIGNUM* first, const BIGNUM* second) {
  fuzz::Input header(reply.data() + 8, 8);
  const uint32_t length = header.U32();
  const uint8_t* at = reply.data() + 16;
  for (const auto& [number, size] : {std::pair{first, length}, {second, header.U32()}}) {
    BIGNUM* sent = BN_bin2bn(at, static_cast<int>(size), nullptr);
    fuzz::Check(BN_cmp(sent, number) == 0, "the exported numbers are the TA's");
    BN_free(sent);
    at += size;
  }
}

void CheckEncoding(const keymaster_blob_t& spki, const fuzz::Bytes& reply) {
  const unsigned char* at = spki.data;
  EVP_PKEY* key = d2i_PUBKEY(nullptr, &at, static_cast<long>(spki.data_length));
  fuzz::Check(key != nullptr, "an exported key can be read");
  fuzz::Check(at == spki.data + spki.data_length, "nothing stands behind the key");
  uint8_t* again = nullptr;
  const int size = i2d_PUBKEY(key, &again);
  fuzz::Check(size > 0 && static_cast<size_t>(size) == spki.data_length &&
                  memcmp(again, spki.data, spki.data_length) == 0,
              "the encoding is the one there is");
  OPENSSL_free(again);
  if (EVP_PKEY_base_id(key) == EVP_PKEY_RSA) {
    const RSA* rsa = EVP_PKEY_get0_RSA(key);
    CheckNumbers(reply, RSA_get0_n(rsa), RSA_get0_e(rsa));
  } else {
    const EC_KEY* ec = EVP_PKEY_get0_EC_KEY(key);
    BIGNUM *x = BN_new(), *y = BN_new();
    EC_POINT_get_affine_coordinates_GFp(EC_KEY_get0_group(ec), EC_KEY_get0_public_key(ec), x, y,
                                        nullptr);
    CheckNumbers(reply, x, y);
    BN_free(x);
    BN_free(y);
  }
  EVP_PKEY_free(key);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::EnsureTeeContext();
  const fuzz::Bytes reply(data, data + size);
  fuzz::AnswerWith(kExportKey, 2, reply);
  static keymaster::KeymasterTivasContext km;
  const uint8_t name[] = {1};
  const keymaster_key_blob_t key = {name, sizeof(name)};
  keymaster_blob_t spki = {};
  const int32_t result = km.TivasKmExportKey(KM_KEY_FORMAT_X509, &key, nullptr, nullptr, &spki);
  if (result == 0) {
    CheckEncoding(spki, reply);
  } else {
    fuzz::Check(spki.data == nullptr && spki.data_length == 0, "a failure leaves nothing");
  }
  fuzz::Release(&spki);
  ERR_clear_error();
  return 0;
}
