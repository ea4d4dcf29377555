// Owners of libcrypto objects, and what the TA has libcrypto do in more than one place.
#ifndef TA_EVP_H
#define TA_EVP_H

#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <memory>

#include "ta/bytes.h"

namespace ta {

template <typename T, void (*Free)(T*)>
struct CallFree {
  void operator()(T* object) const { Free(object); }
};

using PkeyPtr = std::unique_ptr<EVP_PKEY, CallFree<EVP_PKEY, EVP_PKEY_free>>;
using PkeyCtxPtr = std::unique_ptr<EVP_PKEY_CTX, CallFree<EVP_PKEY_CTX, EVP_PKEY_CTX_free>>;
using CipherCtxPtr = std::unique_ptr<EVP_CIPHER_CTX, CallFree<EVP_CIPHER_CTX, EVP_CIPHER_CTX_free>>;
using MdCtxPtr = std::unique_ptr<EVP_MD_CTX, CallFree<EVP_MD_CTX, EVP_MD_CTX_free>>;
// Numbers may be parts of private keys: they are wiped.
using BnPtr = std::unique_ptr<BIGNUM, CallFree<BIGNUM, BN_clear_free>>;
using BnCtxPtr = std::unique_ptr<BN_CTX, CallFree<BN_CTX, BN_CTX_free>>;
using EcKeyPtr = std::unique_ptr<EC_KEY, CallFree<EC_KEY, EC_KEY_free>>;
using RsaPtr = std::unique_ptr<RSA, CallFree<RSA, RSA_free>>;
using X509Ptr = std::unique_ptr<X509, CallFree<X509, X509_free>>;
using PointPtr = std::unique_ptr<EC_POINT, CallFree<EC_POINT, EC_POINT_free>>;

// RequireCrypto throws, which ends the command, when libcrypto failed at what it must be able to.
void RequireCrypto(bool success);
// FillRandom makes random bytes.
void FillRandom(void* out, size_t size);
// HmacSha256 returns 32 bytes.
SecureBytes HmacSha256(ByteView key, ByteView message);
// ToPkey makes a general key of an RSA or EC key, with libcrypto's function for it.
template <typename Owner, typename Set>
PkeyPtr ToPkey(const Owner& key, Set set) {
  PkeyPtr pkey(EVP_PKEY_new());
  RequireCrypto(pkey != nullptr && set(pkey.get(), key.get()) == 1);
  return pkey;
}
// NewEcPkey generates a key on libcrypto's curve of that number.
PkeyPtr NewEcPkey(int curve);
// StartCipher readies a cipher; nonce may be null for a mode without one.
CipherCtxPtr StartCipher(const EVP_CIPHER* cipher, const SecureBytes& key, const uint8_t* nonce,
                         bool encrypts);
// FeedCipher runs input of any size through ctx and appends what comes out to output.
void FeedCipher(EVP_CIPHER_CTX* ctx, ByteView input, SecureBytes* output);

// ToDer encodes an object with libcrypto's function for it.
template <typename Container = Bytes, typename T, typename Encode>
Container ToDer(T* object, Encode encode) {
  const int size = encode(object, nullptr);
  RequireCrypto(size > 0);
  Container der(static_cast<size_t>(size));
  uint8_t* end = der.data();
  RequireCrypto(encode(object, &end) == size);
  return der;
}

}  // namespace ta

#endif  // TA_EVP_H
