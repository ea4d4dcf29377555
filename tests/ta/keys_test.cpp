// The keys that can be, and the blobs that they are kept in.
#include "tests/platform/keys.h"

#include "tests/ta/ta_client.h"

namespace {

const Ps kDes = Key(KM_ALGORITHM_TRIPLE_DES, kEncrypt, kEcb);
const Ps kEcOfNoCurve = Key(KM_ALGORITHM_EC, kSign, {kSha256});

// What becomes of a description with one change.
const struct {
  const Ps& base;
  P change;
  keymaster_error_t error;
} kDescribed[] = {
    {{}, {KM_TAG_KEY_SIZE, 128}, KM_ERROR_UNSUPPORTED_ALGORITHM},
    {kAes, {KM_TAG_PURPOSE, kSign}, KM_ERROR_UNSUPPORTED_PURPOSE},
    {kAes, {KM_TAG_PADDING, KM_PAD_RSA_PSS}, KM_ERROR_UNSUPPORTED_PADDING_MODE},
    {kAes, {KM_TAG_BLOCK_MODE, KM_MODE_GCM}, KM_ERROR_MISSING_MIN_MAC_LENGTH},
    {kDes, {KM_TAG_BLOCK_MODE, KM_MODE_CTR}, KM_ERROR_UNSUPPORTED_BLOCK_MODE},
    {kHmac, {KM_TAG_DIGEST, KM_DIGEST_NONE}, KM_ERROR_UNSUPPORTED_DIGEST},
    {kEc, {KM_TAG_EC_CURVE, 4}, KM_ERROR_UNSUPPORTED_EC_CURVE},
    {kEc, {KM_TAG_KEY_SIZE, 384}, KM_ERROR_INVALID_ARGUMENT},
    {kEcOfNoCurve, {KM_TAG_KEY_SIZE, 225}, KM_ERROR_UNSUPPORTED_KEY_SIZE},
    {kEcOfNoCurve, {KM_TAG_KEY_SIZE, 224}, KM_ERROR_OK},
    {kEcOfNoCurve, {KM_TAG_USER_ID, 1}, KM_ERROR_UNSUPPORTED_KEY_SIZE},
    {kRsaSign, {KM_TAG_KEY_SIZE, 504}, KM_ERROR_UNSUPPORTED_KEY_SIZE},
    {kRsaSign, {KM_TAG_KEY_SIZE, 4104}, KM_ERROR_UNSUPPORTED_KEY_SIZE},
    {kRsaSign, {KM_TAG_RSA_PUBLIC_EXPONENT, 65536}, KM_ERROR_INVALID_ARGUMENT},
    {kRsaSign, {KM_TAG_RSA_PUBLIC_EXPONENT, 3}, KM_ERROR_OK},
};

// The numbers that a description can have, of all from 0 on.
const struct {
  const Ps& base;
  keymaster_tag_t tag;
  uint64_t least, most, step;
  keymaster_error_t error;  // of the others
} kRanges[] = {
    {kAes, KM_TAG_KEY_SIZE, 128, 256, 64, KM_ERROR_UNSUPPORTED_KEY_SIZE},
    {kDes, KM_TAG_KEY_SIZE, 168, 168, 168, KM_ERROR_UNSUPPORTED_KEY_SIZE},
    {kHmac, KM_TAG_KEY_SIZE, 64, 512, 8, KM_ERROR_UNSUPPORTED_KEY_SIZE},
    {kHmac, KM_TAG_MIN_MAC_LENGTH, 64, 256, 8, KM_ERROR_UNSUPPORTED_MIN_MAC_LENGTH},
    {kGcm, KM_TAG_MIN_MAC_LENGTH, 96, 128, 8, KM_ERROR_UNSUPPORTED_MIN_MAC_LENGTH},
};

TEST_F(TaTest, MakesTheKeysThatCanBe) {
  for (const auto& row : kDescribed) {
    EXPECT_EQ(ta.Generate(With(row.base, row.change)), Km(row.error)) << &row - kDescribed;
  }
  for (const auto& row : kRanges) {
    for (uint64_t number = 0; number < 600; number += 4) {
      const bool can = number >= row.least && number <= row.most && number % row.step == 0;
      EXPECT_EQ(ta.Generate(With(row.base, {row.tag, number})), can ? 0u : Km(row.error)) << number;
    }
  }
  EXPECT_EQ(ta.Generate(kHmac + kSha1), Km(KM_ERROR_UNSUPPORTED_DIGEST));
  const auto blob_size = [this](uint64_t bits) {
    return ta.Generate(With(kHmac, {KM_TAG_KEY_SIZE, bits})) == 0 ? ta.blob.size() : 0;
  };
  EXPECT_EQ(blob_size(64) + 56, blob_size(512)) << "a key is as long as it says";
  // For a user, and for anybody.
  EXPECT_EQ(ta.Generate(kAes + P(KM_TAG_USER_SECURE_ID, 7) + P(KM_TAG_NO_AUTH_REQUIRED, 1)),
            Km(KM_ERROR_INVALID_ARGUMENT));
}

TEST_F(TaTest, ImportsWhatTheDescriptionSays) {
  constexpr char kGenerated = 0, kImported = 1, kUnknown = 3;
  // Form, lengths and a point that is not on the curve.
  const Str ec = Le(256, 4) + Le(4, 4) + Le(32, 4) + Le(32, 4) + Le(32, 4) + Str(96, 'x');
  const struct {
    Ps description;
    Str material;
    char origin;
    keymaster_error_t error;
  } rows[] = {
      {kAes, Str(32, 'k'), kImported, KM_ERROR_IMPORT_PARAMETER_MISMATCH},
      {kAes, Str(16, 'k'), kGenerated, KM_ERROR_INVALID_ARGUMENT},
      {kAes, Str(16, 'k'), kUnknown, KM_ERROR_INVALID_ARGUMENT},
      {kAes, "", kImported, KM_ERROR_UNSUPPORTED_KEY_SIZE},
      {kDes, Str(21, 'k'), kImported, KM_ERROR_UNSUPPORTED_KEY_SIZE},
      {kHmac, Str(65, 'k'), kImported, KM_ERROR_UNSUPPORTED_KEY_SIZE},
      {kEc, Le(192, 4) + Str(16, 0), kImported, KM_ERROR_UNSUPPORTED_EC_CURVE},
      {kEc, ec, kImported, KM_ERROR_INVALID_ARGUMENT},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(ta.Import(row.description, row.material, row.origin), Km(row.error)) << &row - rows;
  }
}

// RSA key material of a libcrypto key: form 1 with d, form 2 with the primes.
Str RsaMaterial(const EVP_PKEY* key, uint32_t form) {
  const auto numbers = test::NumbersOf(key);
  const char* const parts[][7] = {{"n", "e", "d"}, {"n", "e", "p", "q", "dmp1", "dmq1", "iqmp"}};
  Str header = Le(form, 4) + Le(numbers.at("n").size(), 4), body;
  for (const char* part : parts[form - 1]) {
    const Str number = part == nullptr ? "" : ToStr(numbers.at(part));
    header += Le(number.size(), 4);
    body += number;
  }
  return header + body;
}

TEST_F(TaTest, RsaTakesBothFormsOfMaterialAndNothingAltered) {
  const Ps bare = {{KM_TAG_DIGEST, KM_DIGEST_NONE}, kNoPadding};
  const Ps description = Key(KM_ALGORITHM_RSA, kSign, bare) + P(KM_TAG_PURPOSE, kEncrypt);
  // BoringSSL has no exponents of more than 33 bits.
  for (const uint64_t exponent : {uint64_t{3}, test::kBoringSsl ? 65537 : UINT64_MAX - 58}) {
    const test::Pkey pkey = test::NewRsaKey(1024, exponent);
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
}

TEST_F(TaTest, BlobsOpenForTheirOwnersOnly) {
  const auto named = [](const Str& id, const Str& data) {
    return Ps{{KM_TAG_APPLICATION_ID, id}, {KM_TAG_APPLICATION_DATA, data}};
  };
  const auto open = [this](const Str& blob, const Ps& who) {
    return ta.Run(kCmdGetKeyCharacteristics, In(blob), In(Wire(who)), Out(4096));
  };
  const Ps owner = named("app", "data");
  const uint32_t refused = Km(KM_ERROR_INVALID_KEY_BLOB);
  ASSERT_EQ(ta.Generate(kAes + owner), 0u);
  EXPECT_EQ(open(ta.blob, owner), 0u);
  EXPECT_EQ(open(ta.blob, named("appd", "ata")), refused);
  for (size_t i = 0; i < ta.blob.size(); ++i) {
    EXPECT_EQ(open(Flipped(ta.blob, i), owner), refused) << i;
    EXPECT_EQ(open(ta.blob.substr(0, i), owner), refused) << i;
    EXPECT_EQ(ta.Run(kCmdDeleteKey, In(Flipped(ta.blob, i))), refused) << i;
  }
  EXPECT_EQ(ta.Run(kCmdDeleteKey, In(ta.blob)), 0u);
  EXPECT_EQ(open(ta.blob, owner), refused);
}

}  // namespace
