// RSA keys as they reach the TA.
#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <memory>

#include "tests/ta/ta_client.h"

namespace {

// RSA key material of a libcrypto key: form 1 with d, form 2 with the primes.
Str RsaMaterial(const RSA* rsa, uint32_t form) {
  const BIGNUM *n, *e, *d, *p, *q, *dp, *dq, *qi;
  RSA_get0_key(rsa, &n, &e, &d);
  RSA_get0_factors(rsa, &p, &q);
  RSA_get0_crt_params(rsa, &dp, &dq, &qi);
  std::vector<const BIGNUM*> parts = {n, e, d};
  if (form == 2) parts = {n, e, p, q, dp, dq, qi};
  Str header = Le(form, 4) + Le(static_cast<uint64_t>(BN_num_bytes(n)), 4), body;
  for (const BIGNUM* part : parts) {
    Str bytes(static_cast<size_t>(BN_num_bytes(part)), 0);
    BN_bn2bin(part, reinterpret_cast<uint8_t*>(bytes.data()));
    header += Le(bytes.size(), 4);
    body += bytes;
  }
  header.resize(36);
  return header + body;
}

TEST_F(TaTest, RsaTakesBothFormsOfMaterialAndNothingAltered) {
  const std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)> pkey(EVP_RSA_gen(1024), EVP_PKEY_free);
  const Ps bare = {{KM_TAG_DIGEST, KM_DIGEST_NONE}, kNoPadding};
  const Ps description = Key(KM_ALGORITHM_RSA, kSign, bare) + P(KM_TAG_PURPOSE, kEncrypt);
  for (const uint32_t form : {1u, 2u}) {
    const Str material = RsaMaterial(EVP_PKEY_get0_RSA(pkey.get()), form);
    ASSERT_EQ(ta.Import(description, material), 0u);
    ASSERT_EQ(ta.Operate(kSign, bare, "data", 4), 0u);
    const Str signature = ta.output;
    ASSERT_EQ(ta.Operate(kEncrypt, {kNoPadding}, signature, 100), 0u);
    EXPECT_EQ(ta.output, Str(124, 0) + "data");
    // Every number of the material counts: none can be altered, and nothing may be missing.
    for (size_t at = 0; at < material.size(); at += at < 36 ? 1 : 61) {
      const bool unread = form == 1 && at >= 20 && at < 36;
      EXPECT_EQ(ta.Import(description, Flipped(material, at)) == 0, unread) << form << " " << at;
      EXPECT_NE(ta.Import(description, material.substr(0, at)), 0u);
    }
  }
}

}  // namespace
