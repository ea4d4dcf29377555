// Ownership of libcrypto objects, each with its own release, the same in both of its flavours; and
// of its error queue.
#ifndef CONTEXT_LIBCRYPTO_H
#define CONTEXT_LIBCRYPTO_H

#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/err.h>
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

// ErrorQueueScope leaves libcrypto's error queue of this thread as it found it, so that the
// caller's next libcrypto call is not judged by a failure of the library's.
class ErrorQueueScope {
 public:
  // In an empty queue there is nothing to mark; popping then empties it.
  ErrorQueueScope() { ERR_set_mark(); }
  ~ErrorQueueScope() { ERR_pop_to_mark(); }
  ErrorQueueScope(const ErrorQueueScope&) = delete;
  ErrorQueueScope& operator=(const ErrorQueueScope&) = delete;
};

}  // namespace km41

#endif  // CONTEXT_LIBCRYPTO_H
