// The encoders of key material, on keys that no import or generation yields.
#include "context/key_material.h"

#include <keymaster_ts.h>
#include <openssl/ec.h>
#include <openssl/obj_mac.h>
#include <openssl/rsa.h>
#include <string.h>

#include <map>
#include <memory>

#include "tests/platform/keymaster_test.h"

namespace test {
namespace {

using KeyMaterial = KeymasterTest;

struct Free {
  void operator()(RSA* p) const { RSA_free(p); }
  void operator()(EC_KEY* p) const { EC_KEY_free(p); }
  void operator()(BIGNUM* p) const { BN_free(p); }
};
using Rsa = std::unique_ptr<RSA, Free>;
using Ec = std::unique_ptr<EC_KEY, Free>;

// A number of so many bytes, all equal to fill; 0 bytes give none.
BIGNUM* Filled(uint8_t fill, int length) {
  return length == 0 ? nullptr : BN_bin2bn(Bytes(4096, fill).data(), length, nullptr);
}

// A key whose numbers n, e, d, p, q, dmp1, dmq1 and iqmp have the given lengths and are filled
// with 1, 2, 3 and so on.
Rsa RsaOf(const int (&length)[8]) {
  Rsa key(RSA_new());
  BIGNUM* n[8];
  for (size_t i = 0; i < 8; ++i) n[i] = Filled(static_cast<uint8_t>(i + 1), length[i]);
  if (n[0] != nullptr) RSA_set0_key(key.get(), n[0], n[1], n[2]);
  if (n[3] != nullptr) RSA_set0_factors(key.get(), n[3], n[4]);
  if (n[5] != nullptr) RSA_set0_crt_params(key.get(), n[5], n[6], n[7]);
  return key;
}

TEST_F(KeyMaterial, RsaFormFollowsTheNumbersAtHand) {
  struct Row {
    int length[8];
    std::vector<uint32_t> header;
    uint32_t total;
  };
  const Row kRows[] = {
      {{256, 3, 256, 128, 128, 128, 128, 128}, {2, 256, 256, 3, 128, 128, 128, 128, 128}, 935},
      {{5, 1, 4, 0, 0, 0, 0, 0}, {1, 5, 5, 1, 4, 0, 0, 0, 0}, 46},
      {{5, 1, 4, 3, 3, 0, 0, 0}, {1, 5, 5, 1, 4, 0, 0, 0, 0}, 46},
      {{5, 1, 4, 0, 0, 2, 2, 2}, {1, 5, 5, 1, 4, 0, 0, 0, 0}, 46},
      {{1024, 3, 0, 512, 512, 512, 512, 512}, {2, 1024, 1024, 3, 512, 512, 512, 512, 512}, 3623},
      // To the last byte.
      {{4050, 3, 7, 0, 0, 0, 0, 0}, {1, 4050, 4050, 3, 7, 0, 0, 0, 0}, 4096}};
  for (const Row& row : kRows) {
    SCOPED_TRACE(::testing::PrintToString(row.length));
    Bytes buffer(4096, 0xEE), expected;
    uint32_t length = 0;
    EXPECT_EQ(0, BuildRsaKeyMaterial(buffer.data(), RsaOf(row.length).get(), &length));
    EXPECT_EQ(row.total, length);
    for (const uint32_t word : row.header) expected = Cat({expected, Le32(word)});
    for (size_t i = 0; i < 8; ++i) {
      const bool sent = i < 2 || (row.header[0] == 2 ? i > 2 : i == 2);
      const Bytes number(sent ? static_cast<size_t>(row.length[i]) : 0,
                         static_cast<uint8_t>(i + 1));
      expected = Cat({expected, number});
    }
    expected.resize(4096, 0xEE);
    EXPECT_EQ(expected, buffer);
  }
  EXPECT_EQ(Lines(), Log());
}

TEST_F(KeyMaterial, RsaRefusals) {
  struct Row {
    int length[8];
    std::string log;
  };
  const Row kRows[] = {{{4050, 3, 8, 0, 0, 0, 0, 0}, "rsa->d is too big, size=8"},
                       {{4061, 1, 8, 0, 0, 0, 0, 0}, "rsa->n is too big, size=4061"},
                       {{4060, 1, 8, 0, 0, 0, 0, 0}, "rsa->e is too big, size=1"},
                       {{1024, 3, 0, 800, 800, 800, 800, 1}, "rsa->dmq1 is too big, size=800"},
                       {{1024, 3, 0, 600, 600, 600, 600, 634}, "rsa->iqmp is too big, size=634"},
                       {{5, 1, 0, 0, 0, 0, 0, 0}, "bn or name is NULL"}};
  for (const Row& row : kRows) {
    platform().ClearRecords();
    Bytes buffer(4096);
    uint32_t length = 0;
    EXPECT_EQ(-1000, BuildRsaKeyMaterial(buffer.data(), RsaOf(row.length).get(), &length));
    EXPECT_EQ(Lines{"E KeyMaster_Ts: " + row.log}, Log());
  }
  uint32_t length = 0;
  Bytes buffer(4096);
  const Rsa key = RsaOf({5, 1, 4, 0, 0, 0, 0, 0}), empty = RsaOf({});
  EXPECT_EQ(-32, BuildRsaKeyMaterial(buffer.data(), empty.get(), &length));
  EXPECT_EQ(-32, BuildRsaKeyMaterial(nullptr, key.get(), &length));
  EXPECT_EQ(-32, BuildRsaKeyMaterial(buffer.data(), nullptr, &length));
  EXPECT_EQ(-32, BuildRsaKeyMaterial(buffer.data(), key.get(), nullptr));
  FailCall(Call::kMemcpyS, 1);
  EXPECT_EQ(-1000, BuildRsaKeyMaterial(buffer.data(), key.get(), &length));
  EXPECT_EQ("E KeyMaster_Ts: [error] : copy key header failed", Log().back());
}

TEST_F(KeyMaterial, EcHeaderTellsCurveAndForm) {
  struct Row {
    int nid;
    point_conversion_form_t form;
    uint32_t bits;
  };
  const Row kRows[] = {{NID_X9_62_prime256v1, POINT_CONVERSION_UNCOMPRESSED, 256},
                       {NID_X9_62_prime256v1, POINT_CONVERSION_COMPRESSED, 256},
                       {NID_secp521r1, POINT_CONVERSION_HYBRID, 521},
                       {NID_secp256k1, POINT_CONVERSION_UNCOMPRESSED, 256},
                       {NID_secp160r2, POINT_CONVERSION_UNCOMPRESSED, 0}};
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.nid);
    Ec key(EC_KEY_new_by_curve_name(row.nid));
    ASSERT_EQ(1, EC_KEY_generate_key(key.get()));
    EC_KEY_set_conv_form(key.get(), row.form);
    Bytes buffer(4096, 0xEE);
    uint32_t length = 0;
    EXPECT_EQ(0, BuildEcKeyMaterial(buffer.data(), key.get(), &length));
    EXPECT_EQ(Cat({Le32(row.bits), Le32(row.form)}), Bytes(buffer.begin(), buffer.begin() + 8));
    // The three numbers are the key's.
    uint32_t sizes[3];
    memcpy(sizes, &buffer[8], sizeof(sizes));
    ASSERT_EQ(20 + sizes[0] + sizes[1] + sizes[2], length);
    BIGNUM* number[3];
    const uint8_t* at = &buffer[20];
    for (size_t i = 0; i < 3; at += sizes[i++]) {
      EXPECT_NE(0, *at);
      number[i] = BN_bin2bn(at, static_cast<int>(sizes[i]), nullptr);
    }
    Ec copy(EC_KEY_new_by_curve_name(row.nid));
    EXPECT_EQ(1, EC_KEY_set_public_key_affine_coordinates(copy.get(), number[0], number[1]));
    EXPECT_EQ(1, EC_KEY_set_private_key(copy.get(), number[2]));
    EXPECT_EQ(1, EC_KEY_check_key(copy.get()));
    EXPECT_EQ(0, BN_cmp(number[2], EC_KEY_get0_private_key(key.get())));
    for (BIGNUM* one : number) BN_free(one);
  }
}

TEST_F(KeyMaterial, EcKeyMustBeWhole) {
  Bytes buffer(4096);
  uint32_t length = 0;
  const Ec key(EC_KEY_new_by_curve_name(NID_X9_62_prime256v1));
  EXPECT_NE(0, BuildEcKeyMaterial(buffer.data(), key.get(), &length));
  EXPECT_EQ("E KeyMaster_Ts: [error] : EC_KEY_get0_public_key error\n", Log().back());
  const EC_GROUP* group = EC_KEY_get0_group(key.get());
  EC_KEY_set_public_key(key.get(), EC_GROUP_get0_generator(group));
  EXPECT_NE(0, BuildEcKeyMaterial(buffer.data(), key.get(), &length));
  EXPECT_EQ("E KeyMaster_Ts: bn or name is NULL", Log().back()) << "no private number";
  EC_POINT* infinity = EC_POINT_new(group);
  EC_KEY_set_public_key(key.get(), infinity);
  EC_POINT_free(infinity);
  EXPECT_NE(0, BuildEcKeyMaterial(buffer.data(), key.get(), &length));
  EXPECT_EQ("E KeyMaster_Ts: [error] : failed to get affine_coordinates\n", Log().back());
}

TEST_F(KeyMaterial, GuardAndCurveTables) {
  const std::unique_ptr<BIGNUM, Free> zero(BN_new()), two(Filled(1, 2));
  struct Row {
    uint32_t offset, limit;
    const BIGNUM* number;
    int result;
    Lines log;
  };
  const Row kRows[] = {{4096, 4096, zero.get(), 0, {}},
                       {4097, 4096, zero.get(), -1, {"E KeyMaster_Ts: x is too big, size=0"}},
                       {4094, 4096, two.get(), 0, {}},
                       {4095, 4096, two.get(), -1, {"E KeyMaster_Ts: x is too big, size=2"}},
                       {0, 0xFFFFFFFF, two.get(), 0, {}},
                       {0, 4096, nullptr, -1, {"E KeyMaster_Ts: bn or name is NULL"}}};
  for (const Row& row : kRows) {
    platform().ClearRecords();
    EXPECT_EQ(row.result, CheckBnSize(row.offset, row.limit, row.number, "x"));
    EXPECT_EQ(row.log, Log());
  }
  EXPECT_EQ(-1, CheckBnSize(0, 1, zero.get(), nullptr));
  std::map<int, int> nids, sizes;
  for (int i = -1; i < 2000; ++i) {
    if (GetNidFromKeySize(i) != 0) nids[i] = GetNidFromKeySize(i);
    if (GetKeySizeFromNid(i) != 0) sizes[i] = GetKeySizeFromNid(i);
  }
  EXPECT_EQ(
      (std::map<int, int>{{160, 709}, {192, 711}, {224, 713}, {256, 415}, {384, 715}, {521, 716}}),
      nids);
  EXPECT_EQ(
      (std::map<int, int>{
          {709, 160}, {711, 192}, {713, 224}, {714, 256}, {415, 256}, {715, 384}, {716, 521}}),
      sizes);
}

}  // namespace
}  // namespace test
