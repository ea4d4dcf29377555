// Ownership of libcrypto objects, each with its own release, the same in both of its flavours.
#ifndef CONTEXT_LIBCRYPTO_H
#define CONTEXT_LIBCRYPTO_H

#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <memory>

namespace km41 {

struct CryptoDeleter {
  void operator()(BIGNUM* number) const { BN_free(number); }
  void operator()(EC_KEY* key) const { EC_KEY_free(key); }
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
  void operator()(PKCS8_PRIV_KEY_INFO* info) const { PKCS8_PRIV_KEY_INFO_free(info); }
  void operator()(RSA* key) const { RSA_free(key); }
};

template <typename T>
using CryptoPtr = std::unique_ptr<T, CryptoDeleter>;

}  // namespace km41

#endif  // CONTEXT_LIBCRYPTO_H
