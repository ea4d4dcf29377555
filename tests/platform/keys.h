// Keys for tests, by what both flavours of libcrypto have.
#ifndef TESTS_PLATFORM_KEYS_H
#define TESTS_PLATFORM_KEYS_H

#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <map>
#include <memory>

#include "tests/platform/bytes.h"

namespace test {

#ifdef OPENSSL_IS_BORINGSSL
constexpr bool kBoringSsl = true;
#else
constexpr bool kBoringSsl = false;
#endif

struct FreeKey {
  void operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); }
};
using Pkey = std::unique_ptr<EVP_PKEY, FreeKey>;

inline Pkey NewRsaKey(int bits, uint64_t exponent = 65537) {
  RSA* const rsa = RSA_new();
  BIGNUM* const e = BN_new();
  Pkey key(EVP_PKEY_new());
  if (BN_set_word(e, exponent) != 1 || RSA_generate_key_ex(rsa, bits, e, nullptr) != 1 ||
      EVP_PKEY_assign_RSA(key.get(), rsa) != 1) {
    abort();
  }
  BN_free(e);
  return key;
}

// ReadPkcs8 decodes a PrivateKeyInfo.
inline Pkey ReadPkcs8(const Bytes& der) {
  const uint8_t* at = der.data();
  return Pkey(d2i_AutoPrivateKey(nullptr, &at, static_cast<long>(der.size())));
}

// The curves that a key size stands for, by libcrypto's number: secp160r1, secp192k1, secp224r1,
// prime256v1, secp384r1, secp521r1.
const std::map<int, int> kCurveOfKeySize = {{160, 709}, {192, 711}, {224, 713},
                                            {256, 415}, {384, 715}, {521, 716}};

// NewEcKey is null for a curve that libcrypto lacks.
inline Pkey NewEcKey(int nid) {
  EC_KEY* ec = EC_KEY_new_by_curve_name(nid);
  if (ec == nullptr) return nullptr;
  Pkey key(EVP_PKEY_new());
  if (EC_KEY_generate_key(ec) != 1 || EVP_PKEY_set1_EC_KEY(key.get(), ec) != 1) abort();
  EC_KEY_free(ec);
  return key;
}

// BigEndian is empty for a number that a key lacks, such as a public one's private part.
inline Bytes BigEndian(const BIGNUM* number) {
  Bytes out(number == nullptr ? 0 : static_cast<size_t>(BN_num_bytes(number)));
  if (!out.empty()) BN_bn2bin(number, out.data());
  return out;
}

// NumbersOf are n, e, d, p, q, dmp1, dmq1 and iqmp of an RSA key; x, y and scalar of an EC key.
inline std::map<std::string, Bytes> NumbersOf(const EVP_PKEY* key) {
  if (EVP_PKEY_id(key) == EVP_PKEY_RSA) {
    const RSA* rsa = EVP_PKEY_get0_RSA(key);
    return {{"n", BigEndian(RSA_get0_n(rsa))},       {"e", BigEndian(RSA_get0_e(rsa))},
            {"d", BigEndian(RSA_get0_d(rsa))},       {"p", BigEndian(RSA_get0_p(rsa))},
            {"q", BigEndian(RSA_get0_q(rsa))},       {"dmp1", BigEndian(RSA_get0_dmp1(rsa))},
            {"dmq1", BigEndian(RSA_get0_dmq1(rsa))}, {"iqmp", BigEndian(RSA_get0_iqmp(rsa))}};
  }
  const EC_KEY* ec = EVP_PKEY_get0_EC_KEY(key);
  const std::unique_ptr<BIGNUM, void (*)(BIGNUM*)> x(BN_new(), BN_free), y(BN_new(), BN_free);
  EC_POINT_get_affine_coordinates_GFp(EC_KEY_get0_group(ec), EC_KEY_get0_public_key(ec), x.get(),
                                      y.get(), nullptr);
  return {{"x", BigEndian(x.get())},
          {"y", BigEndian(y.get())},
          {"scalar", BigEndian(EC_KEY_get0_private_key(ec))}};
}

// DerOf encodes an object with libcrypto's function for it.
template <typename T, typename From>
Bytes DerOf(int (*encode)(T*, uint8_t**), From* object) {
  auto* from = const_cast<T*>(object);
  Bytes out(static_cast<size_t>(encode(from, nullptr)));
  uint8_t* at = out.data();
  encode(from, &at);
  return out;
}
inline Bytes Spki(const EVP_PKEY* key) { return DerOf(i2d_PUBKEY, key); }

}  // namespace test

#endif  // TESTS_PLATFORM_KEYS_H
