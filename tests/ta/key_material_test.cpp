// Keys as they reach the TA from outside, and as their public halves leave it.
#include "tests/platform/keys.h"
#include "tests/ta/ta_client.h"

namespace {

// Fields of a header, then numbers, each behind its length in the header.
Str Material(const Str& head, const std::map<std::string, test::Bytes>& numbers,
             std::initializer_list<const char*> parts, size_t header_size) {
  Str header = head, body;
  for (const char* part : parts) {
    const test::Bytes& number = numbers.at(part);
    header += Le(number.size(), 4);
    body.append(number.begin(), number.end());
  }
  header.resize(header_size);
  return header + body;
}

// RSA key material of a libcrypto key: form 1 with d, form 2 with the primes.
Str RsaMaterial(const EVP_PKEY* key, uint32_t form) {
  const auto numbers = test::NumbersOf(key);
  const Str head = Le(form, 4) + Le(numbers.at("n").size(), 4);
  return form == 1 ? Material(head, numbers, {"n", "e", "d"}, 36)
                   : Material(head, numbers, {"n", "e", "p", "q", "dmp1", "dmq1", "iqmp"}, 36);
}

test::Pkey NewRsaKey(int bits, uint64_t exponent) {
  RSA* const rsa = RSA_new();
  BIGNUM* const e = BN_new();
  test::Pkey key(EVP_PKEY_new());
  EXPECT_TRUE(BN_set_word(e, exponent) && RSA_generate_key_ex(rsa, bits, e, nullptr) &&
              EVP_PKEY_assign_RSA(key.get(), rsa));
  BN_free(e);
  return key;
}

const Ps kBare = {{KM_TAG_DIGEST, KM_DIGEST_NONE}, kNoPadding};
const Ps kRsa = Key(KM_ALGORITHM_RSA, kSign, kBare) + P(KM_TAG_PURPOSE, kEncrypt);

TEST_F(TaTest, RsaTakesBothFormsOfMaterialAndNothingAltered) {
  for (const uint64_t exponent : {uint64_t{3}, uint64_t{65537}, UINT64_MAX - 58}) {
    // BoringSSL has no exponents of more than 33 bits.
    if (exponent >> 33 != 0 && test::kBoringSsl) continue;
    const test::Pkey pkey = NewRsaKey(1024, exponent);
    for (const uint32_t form : {1u, 2u}) {
      const Str material = RsaMaterial(pkey.get(), form);
      ASSERT_EQ(ta.Import(kRsa, material), 0u);
      ASSERT_EQ(ta.Operate(kSign, kBare, "data", 4), 0u);
      const Str signature = ta.output;
      ASSERT_EQ(ta.Operate(kEncrypt, {kNoPadding}, signature, 100), 0u);
      EXPECT_EQ(ta.output, Str(124, 0) + "data");
      if (exponent != 65537) continue;
      EXPECT_EQ(ta.Import(kRsa, Str(material).replace(36 + 128, 3, Be(1, 3))),
                Km(KM_ERROR_INVALID_ARGUMENT));
      // Every number of the material counts: none can be altered, and nothing may be missing.
      for (size_t at = 0; at < material.size(); at += at < 36 ? 1 : 61) {
        const bool unread = form == 1 && at >= 20 && at < 36;
        EXPECT_EQ(ta.Import(kRsa, Flipped(material, at)) == 0, unread) << form << " " << at;
        EXPECT_NE(ta.Import(kRsa, material.substr(0, at)), 0u);
      }
    }
  }
}

TEST_F(TaTest, PublicHalvesLeaveAsTheirNumbers) {
  const auto exported = [this] {
    EXPECT_EQ(ta.Run(kCmdExportKey, In(ta.blob), {}, Out(4096)), 0u);
    return ta.slots[2].out;
  };
  const test::Pkey rsa = test::NewRsaKey(768), ec = test::NewEcKey(NID_secp521r1);
  ASSERT_EQ(ta.Import(kRsa, RsaMaterial(rsa.get(), 2)), 0u);
  EXPECT_EQ(exported(), Material(Le(KM_ALGORITHM_RSA, 4) + Le(768, 4), test::NumbersOf(rsa.get()),
                                 {"n", "e"}, 16));
  const auto numbers = test::NumbersOf(ec.get());
  ASSERT_EQ(ta.Import(Key(KM_ALGORITHM_EC, kSign, {kSha256}),
                      Material(Le(521, 4) + Le(4, 4), numbers, {"x", "y", "scalar"}, 20)),
            0u);
  EXPECT_EQ(exported(), Material(Le(KM_ALGORITHM_EC, 4) + Le(521, 4), numbers, {"x", "y"}, 16));
  ASSERT_EQ(ta.Generate(Key(KM_ALGORITHM_AES, kEncrypt, {{KM_TAG_KEY_SIZE, 128}})), 0u);
  EXPECT_EQ(ta.Run(kCmdExportKey, In(ta.blob), {}, Out(4096)), Km(KM_ERROR_UNSUPPORTED_KEY_FORMAT));
}

}  // namespace
