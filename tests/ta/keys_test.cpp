// The keys that can be, and the blobs that they are kept in.
#include "tests/platform/keys.h"

#include <fstream>

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
    {kRsaSign, {KM_TAG_RSA_PUBLIC_EXPONENT, 1}, KM_ERROR_INVALID_ARGUMENT},
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

TEST_F(TaTest, ReadsWhatEarlierVersionsLeft) {
  // A blob of AES key 00 to 0f for application "app", of id 0123456789abcdef twice,
  // sealed under a device key "kkkk.." by Python's cryptography; and what the key makes of a block.
  ta.blob = Hex(
      "016e6e6e6e6e6e6e6e6e6e6e6e99a261044edd1c82526fbf9605f080fedc41aece6d9e017d33983b4a6216916775"
      "a3a3b4bb436b38107c30b173e8ad17bd9f41d6a689b9e40585e6f0a814c20b9b932b9a32b701726eb2872bd3fd9b"
      "8de856765229ba2f68ab7167e83a602e6e524632b879e9f2a19c2edb813506123ead6033b0175004a028be465ec0"
      "2685d4305a2d8fdef3fc30c91b66c00447a69de1bb1e7bcbc123645d358d1984886356a598d8c3caec3c7c8b29a7"
      "0af0130a58dbe80fca7a6c65e14934479e9772c27f09de1d7286d2866fb059b7918560403c6331d80c91d571e8de"
      "7d6cb3");
  std::ofstream(ta.folder + "/device_key") << Str(32, 'k');
  std::ofstream(ta.folder + "/hmac_sharing_seed") << Str(32, 's');
  const Ps app = kEcb + P(KM_TAG_APPLICATION_ID, "app");
  EXPECT_EQ(ta.Operate(kEncrypt, app, Str(16, 'p'), 16), 0u);
  EXPECT_EQ(ta.output, Hex("4cd8ba79a9f1e320aa59c44334601a71"));
  EXPECT_EQ(ta.SharingParameters().substr(0, 32), Str(32, 's'));
  std::ofstream(ta.folder + "/deleted_0123456789abcdef0123456789abcdef") << "";
  EXPECT_EQ(ta.Begin(kEncrypt, app), Km(KM_ERROR_INVALID_KEY_BLOB));
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
  EXPECT_EQ(open(ta.blob, named("appd", "ata")), refused);
  for (size_t i = 0; i < ta.blob.size(); ++i) {
    EXPECT_EQ(open(Flipped(ta.blob, i), owner), refused) << i;
    EXPECT_EQ(open(ta.blob.substr(0, i), owner), refused) << i;
    EXPECT_EQ(ta.Run(kCmdDeleteKey, In(Flipped(ta.blob, i))), refused) << i;
  }
  // A deletion reaches the blobs of both system versions.
  const Str old = ta.blob;
  ASSERT_EQ(ta.Configure(kOsVersion, kPatchlevel + 1), 0u);
  ASSERT_EQ(ta.Run(kCmdUpgrade, In(old), In(Wire(owner)), Out(4096)), 0u);
  const Str upgraded = ta.slots[2].out;
  EXPECT_EQ(open(upgraded, owner), 0u);
  EXPECT_EQ(ta.Run(kCmdDeleteKey, In(upgraded)), 0u);
  EXPECT_EQ(open(old, owner), refused);
  EXPECT_EQ(open(upgraded, owner), refused);
}

TEST_F(TaTest, BlobsFollowTheSystemAndDoNotGoBack) {
  const struct {
    uint32_t os_version, patchlevel;  // of the system, after the key was made
    keymaster_error_t use, upgrade;
  } rows[] = {
      {kOsVersion, kPatchlevel, KM_ERROR_OK, KM_ERROR_OK},
      {kOsVersion + 1, kPatchlevel, KM_ERROR_KEY_REQUIRES_UPGRADE, KM_ERROR_OK},
      {kOsVersion, kPatchlevel + 1, KM_ERROR_KEY_REQUIRES_UPGRADE, KM_ERROR_OK},
      {kOsVersion - 1, kPatchlevel + 1, KM_ERROR_INVALID_KEY_BLOB, KM_ERROR_INVALID_ARGUMENT},
      {kOsVersion + 1, kPatchlevel - 1, KM_ERROR_INVALID_KEY_BLOB, KM_ERROR_INVALID_ARGUMENT},
  };
  ASSERT_EQ(ta.Generate(kAes), 0u);
  for (const auto& row : rows) {
    ASSERT_EQ(ta.Configure(row.os_version, row.patchlevel), 0u);
    EXPECT_EQ(ta.TryBegin(kEncrypt, kEcb), Km(row.use)) << &row - rows;
    EXPECT_EQ(ta.Run(kCmdUpgrade, In(ta.blob), In(Wire({})), Out(4096)), Km(row.upgrade));
  }
}

}  // namespace
