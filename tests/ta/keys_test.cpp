// The keys that can be, and the blobs that they are kept in.
#include <fstream>

#include "tests/ta/descriptions.h"

namespace {

// What becomes of a description with one change.
const struct {
  const Ps& base;
  P change;
  keymaster_error_t error;
} kDescribed[] = {
    {{}, {KM_TAG_KEY_SIZE, 128}, KM_ERROR_UNSUPPORTED_ALGORITHM},
    {kAes, {KM_TAG_ALGORITHM, 2}, KM_ERROR_UNSUPPORTED_ALGORITHM},
    {kAes, {KM_TAG_KEY_SIZE, 64}, KM_ERROR_UNSUPPORTED_KEY_SIZE},
    {kAes, {KM_TAG_KEY_SIZE, 129}, KM_ERROR_UNSUPPORTED_KEY_SIZE},
    {kAes, {KM_TAG_KEY_SIZE, 192}, KM_ERROR_OK},
    {kAes, {KM_TAG_KEY_SIZE, 256}, KM_ERROR_OK},
    {kAes, {KM_TAG_KEY_SIZE, 320}, KM_ERROR_UNSUPPORTED_KEY_SIZE},
    {kAes, {KM_TAG_PURPOSE, kSign}, KM_ERROR_UNSUPPORTED_PURPOSE},
    {kAes, {KM_TAG_PADDING, KM_PAD_RSA_PSS}, KM_ERROR_UNSUPPORTED_PADDING_MODE},
    {kAes, {KM_TAG_BLOCK_MODE, 9}, KM_ERROR_UNSUPPORTED_BLOCK_MODE},
    {kAes, {KM_TAG_BLOCK_MODE, KM_MODE_GCM}, KM_ERROR_MISSING_MIN_MAC_LENGTH},
    {kGcm, {KM_TAG_MIN_MAC_LENGTH, 88}, KM_ERROR_UNSUPPORTED_MIN_MAC_LENGTH},
    {kGcm, {KM_TAG_MIN_MAC_LENGTH, 96}, KM_ERROR_OK},
    {kGcm, {KM_TAG_MIN_MAC_LENGTH, 128}, KM_ERROR_OK},
    {kGcm, {KM_TAG_MIN_MAC_LENGTH, 136}, KM_ERROR_UNSUPPORTED_MIN_MAC_LENGTH},
    {kHmac, {KM_TAG_MIN_MAC_LENGTH, 56}, KM_ERROR_UNSUPPORTED_MIN_MAC_LENGTH},
    {kHmac, {KM_TAG_MIN_MAC_LENGTH, 64}, KM_ERROR_OK},
    {kHmac, {KM_TAG_MIN_MAC_LENGTH, 129}, KM_ERROR_UNSUPPORTED_MIN_MAC_LENGTH},
    {kHmac, {KM_TAG_MIN_MAC_LENGTH, 256}, KM_ERROR_OK},
    {kHmac, {KM_TAG_MIN_MAC_LENGTH, 264}, KM_ERROR_UNSUPPORTED_MIN_MAC_LENGTH},
    {kHmac, {KM_TAG_DIGEST, KM_DIGEST_NONE}, KM_ERROR_UNSUPPORTED_DIGEST},
    {kHmac, {KM_TAG_KEY_SIZE, 56}, KM_ERROR_UNSUPPORTED_KEY_SIZE},
    {kHmac, {KM_TAG_KEY_SIZE, 64}, KM_ERROR_OK},
    {kHmac, {KM_TAG_KEY_SIZE, 512}, KM_ERROR_OK},
    {kHmac, {KM_TAG_KEY_SIZE, 520}, KM_ERROR_UNSUPPORTED_KEY_SIZE},
    {kEc, {KM_TAG_EC_CURVE, 4}, KM_ERROR_UNSUPPORTED_EC_CURVE},
    {kEc, {KM_TAG_KEY_SIZE, 384}, KM_ERROR_INVALID_ARGUMENT},
    {kEc, {KM_TAG_KEY_SIZE, 256}, KM_ERROR_OK},
    {kEc, {KM_TAG_PADDING, KM_PAD_PKCS7}, KM_ERROR_OK},  // which says nothing of an EC key
    {kEcOfNoCurve, {KM_TAG_KEY_SIZE, 225}, KM_ERROR_UNSUPPORTED_KEY_SIZE},
    {kEcOfNoCurve, {KM_TAG_KEY_SIZE, 224}, KM_ERROR_OK},
    {kEcOfNoCurve, {KM_TAG_KEY_SIZE, 521}, KM_ERROR_OK},
    {kEcOfNoCurve, {KM_TAG_USER_ID, 1}, KM_ERROR_UNSUPPORTED_KEY_SIZE},
    {kDes, {KM_TAG_KEY_SIZE, 168}, KM_ERROR_OK},
    {kDes, {KM_TAG_KEY_SIZE, 112}, KM_ERROR_UNSUPPORTED_KEY_SIZE},
    {kDes, {KM_TAG_BLOCK_MODE, KM_MODE_CTR}, KM_ERROR_UNSUPPORTED_BLOCK_MODE},
    {kRsaSign, {KM_TAG_KEY_SIZE, 504}, KM_ERROR_UNSUPPORTED_KEY_SIZE},
    {kRsaSign, {KM_TAG_KEY_SIZE, 516}, KM_ERROR_UNSUPPORTED_KEY_SIZE},
    {kRsaSign, {KM_TAG_KEY_SIZE, 4104}, KM_ERROR_UNSUPPORTED_KEY_SIZE},
    {kRsaSign, {KM_TAG_RSA_PUBLIC_EXPONENT, 65536}, KM_ERROR_INVALID_ARGUMENT},
    {kRsaSign, {KM_TAG_RSA_PUBLIC_EXPONENT, 1}, KM_ERROR_INVALID_ARGUMENT},
    {kRsaSign, {KM_TAG_RSA_PUBLIC_EXPONENT, 3}, KM_ERROR_OK},
};

TEST_F(TaTest, MakesTheKeysThatCanBe) {
  for (const auto& row : kDescribed) {
    EXPECT_EQ(ta.Generate(With(row.base, row.change)), Km(row.error)) << &row - kDescribed;
  }
  EXPECT_EQ(ta.Generate(kHmac + kSha1), Km(KM_ERROR_UNSUPPORTED_DIGEST));
  // For a user, and for anybody.
  EXPECT_EQ(ta.Generate(kAes + P(KM_TAG_USER_SECURE_ID, 7) + P(KM_TAG_NO_AUTH_REQUIRED, 1)),
            Km(KM_ERROR_INVALID_ARGUMENT));
}

TEST_F(TaTest, ImportsWhatTheDescriptionSays) {
  // Form, lengths and a point that is not on the curve.
  const Str ec = Le(256, 4) + Le(4, 4) + Le(32, 4) + Le(32, 4) + Le(32, 4) + Str(96, 'x');
  const struct {
    Ps description;
    Str material;
    char origin;
    keymaster_error_t error;
  } rows[] = {
      {kAes, Str(16, 'k'), kImported, KM_ERROR_OK},
      {kAes, Str(16, 'k'), kWrapped, KM_ERROR_OK},
      {kAes, Str(32, 'k'), kImported, KM_ERROR_IMPORT_PARAMETER_MISMATCH},
      {kAes, Str(16, 'k'), kGenerated, KM_ERROR_INVALID_ARGUMENT},
      {kAes, Str(16, 'k'), 3, KM_ERROR_INVALID_ARGUMENT},
      {kAes, "", kImported, KM_ERROR_UNSUPPORTED_KEY_SIZE},
      {kDes, Str(24, 'k'), kImported, KM_ERROR_OK},
      {kDes, Str(21, 'k'), kImported, KM_ERROR_UNSUPPORTED_KEY_SIZE},
      {kHmac, Str(65, 'k'), kImported, KM_ERROR_UNSUPPORTED_KEY_SIZE},
      {kEc, Le(192, 4) + Str(16, 0), kImported, KM_ERROR_UNSUPPORTED_EC_CURVE},
      {kEc, ec, kImported, KM_ERROR_INVALID_ARGUMENT},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(ta.Import(row.description, row.material, row.origin), Km(row.error)) << &row - rows;
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
  const auto write = [this](const Str& name, const Str& content) {
    std::ofstream(ta.folder + "/" + name) << content;
  };
  write("device_key", Str(32, 'k'));
  write("hmac_sharing_seed", Str(32, 's'));
  const Ps app = kEcb + P(KM_TAG_APPLICATION_ID, "app");
  EXPECT_EQ(ta.Operate(kEncrypt, app, Str(16, 'p'), 16), 0u);
  EXPECT_EQ(ta.output, Hex("4cd8ba79a9f1e320aa59c44334601a71"));
  EXPECT_EQ(ta.Run(kCmdGetHmacSharingParameters, Out(32), Out(32)), 0u);
  EXPECT_EQ(ta.slots[0].out, Str(32, 's'));
  write("deleted_0123456789abcdef0123456789abcdef", "");
  EXPECT_EQ(ta.Begin(kEncrypt, app), Km(KM_ERROR_INVALID_KEY_BLOB));
}

TEST_F(TaTest, BlobsOpenForTheirOwnersOnly) {
  const P id = {KM_TAG_APPLICATION_ID, "app"}, resists = {KM_TAG_ROLLBACK_RESISTANCE, 0x102};
  const Ps owner = {id, {KM_TAG_APPLICATION_DATA, "data"}};
  ASSERT_EQ(ta.Generate(kAes + owner + P(KM_TAG_USER_ID, 5) + resists), 0u);
  const auto open = [this](const Str& blob, const Ps& who) {
    return ta.Run(kCmdGetKeyCharacteristics, In(blob), In(Wire(who)), Out(4096));
  };
  ASSERT_EQ(open(ta.blob, owner), 0u);
  const Str lists = ta.slots[2].out;
  const size_t software = 4 + 16 * UnLe(lists, 0, 4);
  const auto find = [&](uint32_t tag, uint64_t value) {
    return lists.find(Le(tag, 8) + Le(value, 8));
  };
  EXPECT_LT(find(KM_TAG_ORIGIN, KM_ORIGIN_GENERATED), software);
  EXPECT_LT(find(KM_TAG_OS_PATCHLEVEL, kPatchlevel), software);
  EXPECT_LT(find(KM_TAG_KEY_SIZE, 128), software);
  EXPECT_LT(find(KM_TAG_ROLLBACK_RESISTANCE, 1), software);  // a boolean is 0 or 1
  EXPECT_TRUE(find(KM_TAG_USER_ID, 5) > software && find(KM_TAG_USER_ID, 5) != Str::npos);
  EXPECT_EQ(lists.find("app"), Str::npos);
  const Ps strangers[] = {{},
                          {id},
                          {id, {KM_TAG_APPLICATION_DATA, "dat"}},
                          {{KM_TAG_APPLICATION_ID, "appd"}, {KM_TAG_APPLICATION_DATA, "ata"}}};
  const uint32_t refused = Km(KM_ERROR_INVALID_KEY_BLOB);
  for (const Ps& stranger : strangers) {
    EXPECT_EQ(open(ta.blob, stranger), refused);
  }
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
  for (const Str& blob : {old, upgraded}) {
    EXPECT_EQ(open(blob, owner), refused);
  }
}

TEST_F(TaTest, BlobsFollowTheSystemAndDoNotGoBack) {
  const struct {
    int os_version, patchlevel;  // of the system, beside those of the key
    keymaster_error_t use, upgrade;
    bool is_new;
  } rows[] = {
      {0, 0, KM_ERROR_OK, KM_ERROR_OK, false},
      {1, 0, KM_ERROR_KEY_REQUIRES_UPGRADE, KM_ERROR_OK, true},
      {0, 1, KM_ERROR_KEY_REQUIRES_UPGRADE, KM_ERROR_OK, true},
      {-1, 0, KM_ERROR_INVALID_KEY_BLOB, KM_ERROR_INVALID_ARGUMENT, false},
      {0, -1, KM_ERROR_INVALID_KEY_BLOB, KM_ERROR_INVALID_ARGUMENT, false},
      {1, -1, KM_ERROR_INVALID_KEY_BLOB, KM_ERROR_INVALID_ARGUMENT, false},
  };
  ASSERT_EQ(ta.Generate(kAes), 0u);
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    ASSERT_EQ(ta.Configure(kOsVersion + static_cast<uint32_t>(row.os_version),
                           kPatchlevel + static_cast<uint32_t>(row.patchlevel)),
              0u);
    EXPECT_EQ(ta.TryBegin(kEncrypt, kEcb), Km(row.use));
    ASSERT_EQ(ta.Run(kCmdUpgrade, In(ta.blob), In(Wire({})), Out(4096)), Km(row.upgrade));
    EXPECT_EQ(!ta.slots[2].out.empty(), row.is_new);
    if (row.is_new) {
      Ta other;
      other.blob = ta.slots[2].out;
      EXPECT_EQ(other.TryBegin(kEncrypt, kEcb), 0u);
    }
  }
}

}  // namespace
