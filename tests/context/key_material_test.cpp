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

TEST_F(KeyMaterial, RsaNumbersMustFitTheBuffer) {
  const struct {
    int length[8];
    const char* message;
  } kRows[] = {{{4061, 1, 8}, "rsa->n is too big, size=4061"},
               {{4060, 1, 8}, "rsa->e is too big, size=1"},
               {{4050, 3, 8}, "rsa->d is too big, size=8"},
               {{4055, 1, 0, 5, 1, 1, 1, 1}, "rsa->p is too big, size=5"},
               {{4055, 1, 0, 1, 5, 1, 1, 1}, "rsa->q is too big, size=5"},
               {{4055, 1, 0, 1, 1, 5, 1, 1}, "rsa->dmp1 is too big, size=5"},
               {{4055, 1, 0, 1, 1, 1, 5, 1}, "rsa->dmq1 is too big, size=5"},
               {{4055, 1, 0, 1, 1, 1, 1, 5}, "rsa->iqmp is too big, size=5"},
               {{5, 1}, "bn or name is NULL"}};
  uint32_t length = 0;
  Bytes buffer(4096);
  for (const auto& row : kRows) {
    EXPECT_EQ(-1000, km41::BuildRsaKeyMaterial(buffer.data(), RsaOf(row.length).get(), &length));
    EXPECT_EQ(std::string("E KeyMaster_Ts: ") + row.message, Log().back());
  }
  EXPECT_EQ(-32, km41::BuildRsaKeyMaterial(buffer.data(), RsaOf({}).get(), &length));
}

// The three numbers at their places: an import's test.
// The three numbers at their places: an import's test.
TEST_F(KeyMaterial, EcHeaderTellsCurveAndForm) {
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
  const std::unique_ptr<EC_KEY, Free> no_point(EC_KEY_new_by_curve_name(NID_X9_62_prime256v1));
  EXPECT_EQ(-1000, km41::BuildEcKeyMaterial(buffer.data(), no_point.get(), &length));
  EXPECT_EQ("E KeyMaster_Ts: [error] : EC_KEY_get0_public_key error\n", Log().back());
}

TEST_F(KeyMaterial, NumbersFitBehindTheirOffset) {
  const auto key = RsaOf({2, 1});
  const std::unique_ptr<BIGNUM, Free> zero(BN_new());
  const BIGNUM* two = RSA_get0_n(key.get());
  const struct {
    uint32_t offset, limit;
    const BIGNUM* number;
    const char *label, *message;  // no message: it fits
  } kRows[] = {{4096, 4096, zero.get(), "x", nullptr},
               {0xFFFFFFFD, 0xFFFFFFFF, two, "x", nullptr},
               {4097, 4096, zero.get(), "x", "x is too big, size=0"},
               {0xFFFFFFFE, 0xFFFFFFFF, two, "x", "x is too big, size=2"},
               {0xFFFFFFFE, 4096, two, "x", "x is too big, size=2"},
               {0, 4096, nullptr, "x", "bn or name is NULL"},
               {0, 4096, two, nullptr, "bn or name is NULL"}};
  for (const auto& row : kRows) {
    platform().ClearRecords();
    const bool fits = row.message == nullptr;
    EXPECT_EQ(fits ? 0 : -1, CheckBnSize(row.offset, row.limit, row.number, row.label));
    EXPECT_EQ(fits ? Lines() : Lines{std::string("E KeyMaster_Ts: ") + row.message}, Log());
  }
}

TEST_F(KeyMaterial, SixCurvesHaveAKeySizeAndSevenAreKnown) {
  std::map<int, int> sizes,
      nids = {{160, 709}, {192, 711}, {224, 713}, {256, 415}, {384, 715}, {521, 716}};
  for (int i = -1; i < 2000; ++i) {
    EXPECT_EQ(nids.count(i) != 0 ? nids[i] : 0, GetNidFromKeySize(i));
    if (GetKeySizeFromNid(i) != 0) sizes[i] = GetKeySizeFromNid(i);
  }
  EXPECT_EQ(
      (std::map<int, int>{
          {709, 160}, {711, 192}, {713, 224}, {415, 256}, {714, 256}, {715, 384}, {716, 521}}),
      sizes);
}

}  // namespace
}  // namespace test
