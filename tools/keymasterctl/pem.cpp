#include "tools/keymasterctl/pem.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <algorithm>
#include <memory>

#include "tools/keymasterctl/errors.h"

namespace {

using Pkey = std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)>;

// Stands in for libcrypto's own callback, which would ask on the terminal.
int RejectPassphrase(char*, int, int, void*) { return -1; }

Pkey Decode(const Bytes& bytes) {
  const std::unique_ptr<BIO, int (*)(BIO*)> bio(
      BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())), BIO_free);
  const char kMark[] = "-----BEGIN ";
  const bool is_pem =
      std::search(bytes.begin(), bytes.end(), kMark, kMark + sizeof(kMark) - 1) != bytes.end();
  if (is_pem) {
    return Pkey(PEM_read_bio_PrivateKey(bio.get(), nullptr, RejectPassphrase, nullptr),
                EVP_PKEY_free);
  }
  return Pkey(d2i_PrivateKey_bio(bio.get(), nullptr), EVP_PKEY_free);
}

Bytes ToPkcs8(EVP_PKEY* key) {
  const std::unique_ptr<PKCS8_PRIV_KEY_INFO, void (*)(PKCS8_PRIV_KEY_INFO*)> info(
      EVP_PKEY2PKCS8(key), PKCS8_PRIV_KEY_INFO_free);
  const int length = i2d_PKCS8_PRIV_KEY_INFO(info.get(), nullptr);
  Require(length > 0, "the key cannot be encoded as PKCS#8");
  Bytes der(static_cast<size_t>(length));
  uint8_t* end = der.data();
  i2d_PKCS8_PRIV_KEY_INFO(info.get(), &end);
  return der;
}

uint64_t ExponentOf(EVP_PKEY* key) {
  const RSA* rsa = EVP_PKEY_get0_RSA(key);
  const BIGNUM* exponent = rsa != nullptr ? RSA_get0_e(rsa) : nullptr;
  Require(exponent != nullptr && BN_num_bits(exponent) <= 64,
          "the key's public exponent is too large");
  return BN_get_word(exponent);
}

}  // namespace

Bytes ToPem(const char* label, const keymaster_blob_t& der) {
  const std::unique_ptr<BIO, int (*)(BIO*)> bio(BIO_new(BIO_s_mem()), BIO_free);
  Require(bio != nullptr &&
              PEM_write_bio(bio.get(), label, "", der.data, static_cast<long>(der.data_length)) > 0,
          "cannot write PEM");
  char* text = nullptr;
  const long length = BIO_get_mem_data(bio.get(), &text);
  return Bytes(text, text + length);
}

PrivateKey ReadPrivateKey(const Bytes& bytes) {
  const Pkey key = Decode(bytes);
  if (key == nullptr) {
    throw Failure(
        "the input is no unencrypted private key in PEM or DER",
        "decrypt it with: openssl pkey -in FILE -out CLEAR; or give --raw for a symmetric key");
  }
  PrivateKey out;
  const int type = EVP_PKEY_base_id(key.get());
  Require(type == EVP_PKEY_RSA || type == EVP_PKEY_EC,
          "only RSA and EC private keys can be imported");
  out.facts.algorithm = type == EVP_PKEY_RSA ? KM_ALGORITHM_RSA : KM_ALGORITHM_EC;
  out.facts.size = static_cast<uint64_t>(EVP_PKEY_bits(key.get()));
  if (type == EVP_PKEY_RSA) out.facts.exponent = ExponentOf(key.get());
  out.pkcs8 = ToPkcs8(key.get());
  return out;
}
