// Owners of libcrypto objects.
#ifndef TA_EVP_H
#define TA_EVP_H

#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/evp.h>

#include <memory>

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
using GroupPtr = std::unique_ptr<EC_GROUP, CallFree<EC_GROUP, EC_GROUP_free>>;
using PointPtr = std::unique_ptr<EC_POINT, CallFree<EC_POINT, EC_POINT_free>>;

}  // namespace ta

#endif  // TA_EVP_H
