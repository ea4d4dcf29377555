// The encoders of key material, on keys that no import or generation yields.
#include "context/key_material.h"

#include <keymaster_ts.h>

#include <map>
#include <memory>

#include "tests/platform/keymaster_test.h"
#include "tests/platform/keys.h"

namespace test {
namespace {

using KeyMaterial = KeymasterTest;

struct Free {
  void operator()(RSA* p) const { RSA_free(p); }
  void operator()(EC_KEY* p) const { EC_KEY_free(p); }
  void operator()(BIGNUM* p) const { BN_free(p); }
};

// A key whose numbers n, e, d, p, q, dmp1, dmq1 and iqmp have the given lengths and are filled
// with 1, 2, 3 and so on; 0 bytes give none.
std::unique_ptr<RSA, Free> RsaOf(const int (&length)[8]) {
  std::unique_ptr<RSA, Free> key(RSA_new());
  BIGNUM* n[8] = {};
  for (size_t i = 0; i < 8; ++i) {
    const Bytes bytes(4096, static_cast<uint8_t>(i + 1));
    if (length[i] != 0) n[i] = BN_bin2bn(bytes.data(), length[i], nullptr);
  }
  if (n[0] != nullptr) RSA_set0_key(key.get(), n[0], n[1], n[2]);
  if (n[3] != nullptr) RSA_set0_factors(key.get(), n[3], n[4]);
  if (n[5] != nullptr) RSA_set0_crt_params(key.get(), n[5], n[6], n[7]);
  return key;
}

TEST_F(KeyMaterial, RsaFormFollowsTheNumbersAtHand) {
  const struct {
    int length[8];
    uint32_t header[9];
  } kRows[] = {{{256, 3, 256, 128, 127, 126, 125, 124}, {2, 256, 256, 3, 128, 127, 126, 125, 124}},
               {{5, 1, 4, 3, 3}, {1, 5, 5, 1, 4}},
               {{5, 1, 4, 0, 0, 2, 2, 2}, {1, 5, 5, 1, 4}},
               {{4050, 3, 7}, {1, 4050, 4050, 3, 7}}};  // to the last byte
  for (const auto& [lengths, header] : kRows) {
    Bytes buffer(4096, 0xEE), expected;
    for (const uint32_t word : header) {
      expected = Cat({expected, Le32(word)});
    }
    for (uint8_t i = 2; i < 9; ++i) {
      const auto number = static_cast<uint8_t>(i < 4 ? i - 1 : header[0] == 1 ? 3 : i);
      expected.resize(expected.size() + header[i], number);
    }
    uint32_t length = 0;
    EXPECT_EQ(0, km41::BuildRsaKeyMaterial(buffer.data(), RsaOf(lengths).get(), &length));
    EXPECT_EQ(expected.size(), length);
    expected.resize(4096, 0xEE);
    EXPECT_EQ(expected, buffer);
  }
}

TEST_F(KeyMaterial, RsaNumbersMustFitTheBuffer) {
  const struct {
    int lengths[8];
    const char* message;
  } kRows[] = {{{4061, 1, 8}, "n is too big, size=4061"},
               {{4060, 1, 8}, "e is too big, size=1"},
               {{4050, 3, 8}, "d is too big, size=8"},
               {{4055, 1, 0, 5, 1, 1, 1, 1}, "p is too big, size=5"},
               {{4055, 1, 0, 1, 5, 1, 1, 1}, "q is too big, size=5"},
               {{4055, 1, 0, 1, 1, 5, 1, 1}, "dmp1 is too big, size=5"},
               {{4055, 1, 0, 1, 1, 1, 5, 1}, "dmq1 is too big, size=5"},
               {{4055, 1, 0, 1, 1, 1, 1, 5}, "iqmp is too big, size=5"}};
  uint32_t length = 0;
  Bytes buffer(4096);
  for (const auto& [lengths, message] : kRows) {
    EXPECT_EQ(-1000, km41::BuildRsaKeyMaterial(buffer.data(), RsaOf(lengths).get(), &length));
    EXPECT_EQ(std::string("E KeyMaster_Ts: rsa->") + message, Log().back());
  }
  EXPECT_EQ(-1000, km41::BuildRsaKeyMaterial(buffer.data(), RsaOf({5, 1}).get(), &length));
  EXPECT_EQ(-32, km41::BuildRsaKeyMaterial(buffer.data(), RsaOf({}).get(), &length));
  const auto rsa = RsaOf({5, 1, 4});
  EXPECT_EQ(-32, km41::BuildRsaKeyMaterial(nullptr, rsa.get(), &length));
  EXPECT_EQ(-32, km41::BuildRsaKeyMaterial(buffer.data(), nullptr, &length));
  EXPECT_EQ(-32, km41::BuildRsaKeyMaterial(buffer.data(), rsa.get(), nullptr));
}

// The three numbers at their places: an import's test.
TEST_F(KeyMaterial, EcHeaderTellsCurveAndFormOfAWholeKey) {
  Bytes buffer(4096, 0xEE);
  uint32_t length = 0;
  const std::tuple<int, point_conversion_form_t, uint32_t> kRows[] = {
      {NID_X9_62_prime256v1, POINT_CONVERSION_COMPRESSED, 256},
      {NID_secp521r1, POINT_CONVERSION_HYBRID, 521},
      {NID_secp160r2, POINT_CONVERSION_UNCOMPRESSED, 0}};
  for (const auto& [nid, form, bits] : kRows) {
    const Pkey pkey = NewEcKey(nid);
    // BoringSSL has NIST's curves only.
    ASSERT_EQ(!kBoringSsl || bits != 0, pkey != nullptr);
    if (pkey == nullptr) continue;
    EC_KEY* key = const_cast<EC_KEY*>(EVP_PKEY_get0_EC_KEY(pkey.get()));
    EC_KEY_set_conv_form(key, form);
    EXPECT_EQ(0, km41::BuildEcKeyMaterial(buffer.data(), key, &length));
    EXPECT_EQ(Cat({Le32(bits), Le32(form)}), Bytes(buffer.begin(), buffer.begin() + 8));
  }
  const std::unique_ptr<EC_KEY, Free> bare(EC_KEY_new_by_curve_name(NID_X9_62_prime256v1));
  EXPECT_EQ(-1000, km41::BuildEcKeyMaterial(buffer.data(), bare.get(), &length));
  EXPECT_EQ("E KeyMaster_Ts: [error] : EC_KEY_get0_public_key error\n", Log().back());
  EC_KEY_set_public_key(bare.get(), EC_GROUP_get0_generator(EC_KEY_get0_group(bare.get())));
  EXPECT_EQ(-1000, km41::BuildEcKeyMaterial(buffer.data(), bare.get(), &length));
  EXPECT_EQ("E KeyMaster_Ts: bn or name is NULL", Log().back()) << "the private number";
  EXPECT_EQ(-1000, km41::BuildEcKeyMaterial(nullptr, bare.get(), &length));
  EXPECT_EQ(-1000, km41::BuildEcKeyMaterial(buffer.data(), nullptr, &length));
  EXPECT_EQ(-1000, km41::BuildEcKeyMaterial(buffer.data(), bare.get(), nullptr));
}

TEST_F(KeyMaterial, NumbersFitBehindTheirOffset) {
  const auto key = RsaOf({2, 1});
  const std::unique_ptr<BIGNUM, Free> zero(BN_new());
  const BIGNUM* two = RSA_get0_n(key.get());
  const std::tuple<uint32_t, uint32_t, const BIGNUM*, const char*, Lines> kRows[] = {
      {4096, 4096, zero.get(), "x", {}},
      {0xFFFFFFFD, 0xFFFFFFFF, two, "x", {}},
      {4097, 4096, zero.get(), "x", {"E KeyMaster_Ts: x is too big, size=0"}},
      {0xFFFFFFFE, 0xFFFFFFFF, two, "x", {"E KeyMaster_Ts: x is too big, size=2"}},
      {0xFFFFFFFE, 4096, two, "x", {"E KeyMaster_Ts: x is too big, size=2"}},
      {0, 4096, nullptr, "x", {"E KeyMaster_Ts: bn or name is NULL"}},
      {0, 4096, two, nullptr, {"E KeyMaster_Ts: bn or name is NULL"}}};
  for (const auto& [offset, limit, number, label, log] : kRows) {
    platform().ClearRecords();
    EXPECT_EQ(log.empty() ? 0 : -1, CheckBnSize(offset, limit, number, label));
    EXPECT_EQ(log, Log());
  }
}

TEST_F(KeyMaterial, SixCurvesHaveAKeySizeAndSevenAreKnown) {
  std::map<int, int> nids = kCurveOfKeySize, sizes = {{714, 256}};  // and secp256k1
  for (const auto& [size, nid] : nids) {
    sizes[nid] = size;
  }
  for (int i = -1; i < 2000; ++i) {
    EXPECT_EQ(nids.count(i) != 0 ? nids[i] : 0, GetNidFromKeySize(i));
    EXPECT_EQ(sizes.count(i) != 0 ? sizes[i] : 0, GetKeySizeFromNid(i));
  }
}

}  // namespace
}  // namespace test
