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
    bool crt;
  } kRows[] = {{{256, 3, 256, 128, 127, 126, 125, 124}, true},
               {{1024, 3, 0, 512, 512, 512, 512, 512}, true},
               {{5, 1, 4, 0, 0, 0, 0, 0}, false},
               {{5, 1, 4, 3, 3, 0, 0, 0}, false},
               {{5, 1, 4, 0, 0, 2, 2, 2}, false},
               {{4050, 3, 7, 0, 0, 0, 0, 0}, false}};  // to the last byte
  for (const auto& row : kRows) {
    const auto size = [&row](size_t i) { return static_cast<uint32_t>(row.length[i]); };
    Bytes buffer(4096, 0xEE), numbers,
        expected = Cat({Le32(row.crt ? 2 : 1), Le32(size(0)), Le32(size(0)), Le32(size(1))});
    for (size_t i = 0; i < 8; ++i) {
      const bool is_sent = i < 2 || (row.crt ? i > 2 : i == 2);
      if (i > 1 && is_sent) expected = Cat({expected, Le32(size(i))});
      if (is_sent) numbers = Cat({numbers, Bytes(size(i), static_cast<uint8_t>(i + 1))});
    }
    expected.resize(36);
    expected = Cat({expected, numbers});
    uint32_t length = 0;
    EXPECT_EQ(0, km41::BuildRsaKeyMaterial(buffer.data(), RsaOf(row.length).get(), &length));
    EXPECT_EQ(expected.size(), length);
    expected.resize(4096, 0xEE);
    EXPECT_EQ(expected, buffer);
  }
  EXPECT_EQ(Lines(), Log());
}

TEST_F(KeyMaterial, RsaRefusals) {
  uint32_t length = 0;
  Bytes buffer(4096);
  const auto refusal = [&](const int(&lengths)[8]) {
    EXPECT_EQ(-1000, km41::BuildRsaKeyMaterial(buffer.data(), RsaOf(lengths).get(), &length));
    return Log().back().substr(16);
  };
  EXPECT_EQ("rsa->n is too big, size=4061", refusal({4061, 1, 8}));
  EXPECT_EQ("rsa->e is too big, size=1", refusal({4060, 1, 8}));
  EXPECT_EQ("rsa->d is too big, size=8", refusal({4050, 3, 8}));
  EXPECT_EQ("rsa->p is too big, size=5", refusal({4055, 1, 0, 5, 1, 1, 1, 1}));
  EXPECT_EQ("rsa->q is too big, size=5", refusal({4055, 1, 0, 1, 5, 1, 1, 1}));
  EXPECT_EQ("rsa->dmp1 is too big, size=5", refusal({4055, 1, 0, 1, 1, 5, 1, 1}));
  EXPECT_EQ("rsa->dmq1 is too big, size=5", refusal({4055, 1, 0, 1, 1, 1, 5, 1}));
  EXPECT_EQ("rsa->iqmp is too big, size=5", refusal({4055, 1, 0, 1, 1, 1, 1, 5}));
  EXPECT_EQ("bn or name is NULL", refusal({5, 1}));
  const auto key = RsaOf({5, 1, 4}), empty = RsaOf({});
  EXPECT_EQ(-32, km41::BuildRsaKeyMaterial(buffer.data(), empty.get(), &length));
  EXPECT_EQ(-32, km41::BuildRsaKeyMaterial(nullptr, key.get(), &length));
  EXPECT_EQ(-32, km41::BuildRsaKeyMaterial(buffer.data(), nullptr, &length));
  EXPECT_EQ(-32, km41::BuildRsaKeyMaterial(buffer.data(), key.get(), nullptr));
  FailCall(Call::kMemcpyS, 1);
  EXPECT_EQ("[error] : copy key header failed", refusal({5, 1, 4}));
}

// The three numbers at their places: an import's test.
TEST_F(KeyMaterial, EcHeaderTellsCurveAndForm) {
  const std::tuple<int, point_conversion_form_t, uint32_t> kRows[] = {
      {NID_X9_62_prime256v1, POINT_CONVERSION_COMPRESSED, 256},
      {NID_secp521r1, POINT_CONVERSION_HYBRID, 521},
      {NID_secp256k1, POINT_CONVERSION_UNCOMPRESSED, 256},
      {NID_secp160r2, POINT_CONVERSION_UNCOMPRESSED, 0}};
  for (const auto& [nid, form, bits] : kRows) {
    const std::unique_ptr<EC_KEY, Free> key(EC_KEY_new_by_curve_name(nid));
    // BoringSSL has NIST's curves only.
    const bool known = !kBoringSsl || nid == NID_X9_62_prime256v1 || nid == NID_secp521r1;
    ASSERT_EQ(known, key != nullptr) << nid;
    if (!known) continue;
    ASSERT_EQ(1, EC_KEY_generate_key(key.get()));
    EC_KEY_set_conv_form(key.get(), form);
    Bytes buffer(4096, 0xEE);
    uint32_t length = 0;
    EXPECT_EQ(0, km41::BuildEcKeyMaterial(buffer.data(), key.get(), &length));
    EXPECT_EQ(Cat({Le32(bits), Le32(form)}), Bytes(buffer.begin(), buffer.begin() + 8));
  }
}

TEST_F(KeyMaterial, EcKeyMustBeWhole) {
  Bytes buffer(4096);
  uint32_t length = 0;
  const std::unique_ptr<EC_KEY, Free> key(EC_KEY_new_by_curve_name(NID_X9_62_prime256v1));
  const auto refusal = [&] {
    EXPECT_EQ(-1000, km41::BuildEcKeyMaterial(buffer.data(), key.get(), &length));
    return Log().back();
  };
  EXPECT_EQ("E KeyMaster_Ts: [error] : EC_KEY_get0_public_key error\n", refusal());
  const EC_GROUP* group = EC_KEY_get0_group(key.get());
  EC_KEY_set_public_key(key.get(), EC_GROUP_get0_generator(group));
  EXPECT_EQ("E KeyMaster_Ts: bn or name is NULL", refusal()) << "no private number";
  EC_POINT* infinity = EC_POINT_new(group);
  EC_KEY_set_public_key(key.get(), infinity);
  EC_POINT_free(infinity);
  EXPECT_EQ("E KeyMaster_Ts: [error] : failed to get affine_coordinates\n", refusal());
}

TEST_F(KeyMaterial, GuardAndCurveTables) {
  const auto key = RsaOf({2, 1});
  const std::unique_ptr<BIGNUM, Free> zero(BN_new());
  const BIGNUM* two = RSA_get0_n(key.get());
  EXPECT_EQ(0, CheckBnSize(4096, 4096, zero.get(), "x") + CheckBnSize(4094, 4096, two, "x") +
                   CheckBnSize(0, 0xFFFFFFFF, two, "x"));
  EXPECT_EQ(Lines(), Log());
  EXPECT_EQ(-1, CheckBnSize(4097, 4096, zero.get(), "x"));
  EXPECT_EQ(-1, CheckBnSize(4095, 4096, two, "x"));
  EXPECT_EQ(-1, CheckBnSize(0, 4096, nullptr, "x"));
  EXPECT_EQ(-1, CheckBnSize(0, 4096, two, nullptr));
  const std::string tag = "E KeyMaster_Ts: ", null = tag + "bn or name is NULL";
  EXPECT_EQ((Lines{tag + "x is too big, size=0", tag + "x is too big, size=2", null, null}), Log());
  using Table = std::map<int, int>;
  Table nids, sizes;
  for (int i = -1; i < 2000; ++i) {
    if (GetNidFromKeySize(i) != 0) nids[GetNidFromKeySize(i)] = i;
    if (GetKeySizeFromNid(i) != 0) sizes[i] = GetKeySizeFromNid(i);
  }
  Table both = {{709, 160}, {711, 192}, {713, 224}, {415, 256}, {715, 384}, {716, 521}};
  EXPECT_EQ(both, nids);
  both[714] = 256;
  EXPECT_EQ(both, sizes);
}

}  // namespace
}  // namespace test
