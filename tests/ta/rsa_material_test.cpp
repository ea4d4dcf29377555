// RSA keys as they reach the TA.
#include "tests/platform/keys.h"
#include "tests/ta/ta_client.h"

namespace {

// RSA key material of a libcrypto key: form 1 with d, form 2 with the primes.
Str RsaMaterial(const EVP_PKEY* key, uint32_t form) {
  auto numbers = test::NumbersOf(key);
  std::vector<const char*> parts = {"n", "e", "d"};
  if (form == 2) {
    parts = {"n", "e", "p", "q", "dmp1", "dmq1", "iqmp"};
  }
  Str header = Le(form, 4) + Le(numbers["n"].size(), 4), body;
  for (const char* part : parts) {
    header += Le(numbers[part].size(), 4);
    body.append(numbers[part].begin(), numbers[part].end());
  }
  header.resize(36);
  return header + body;
}

TEST_F(TaTest, RsaTakesBothFormsOfMaterialAndNothingAltered) {
  const test::Pkey pkey = test::NewRsaKey(1024);
  const Ps bare = {{KM_TAG_DIGEST, KM_DIGEST_NONE}, kNoPadding};
  const Ps description = Key(KM_ALGORITHM_RSA, kSign, bare) + P(KM_TAG_PURPOSE, kEncrypt);
  for (const uint32_t form : {1u, 2u}) {
    const Str material = RsaMaterial(pkey.get(), form);
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
