// The uses that a key allows, and the operations that they begin.
#include "tests/ta/ta_client.h"

namespace {

const P kMac128 = {KM_TAG_MAC_LENGTH, 128}, kPkcs7 = {KM_TAG_PADDING, KM_PAD_PKCS7},
        kSha384 = {KM_TAG_DIGEST, KM_DIGEST_SHA_2_384}, kNoDigest = {KM_TAG_DIGEST, KM_DIGEST_NONE},
        kOaepAlone = {KM_TAG_PADDING, KM_PAD_RSA_OAEP}, kPss = {KM_TAG_PADDING, KM_PAD_RSA_PSS},
        kPkcs1Encrypt = {KM_TAG_PADDING, KM_PAD_RSA_PKCS1_1_5_ENCRYPT},
        kDecrypts = {KM_TAG_PURPOSE, kDecrypt}, kVerifies = {KM_TAG_PURPOSE, kVerify},
        kCtr = {KM_TAG_BLOCK_MODE, KM_MODE_CTR}, kNonce = {KM_TAG_NONCE, Str(12, 'n')},
        kPastOrigination = {KM_TAG_ORIGINATION_EXPIRE_DATETIME, 1},
        kPastUsage = {KM_TAG_USAGE_EXPIRE_DATETIME, 1};
const Ps kGcm128 = kGcmMode + kMac128;
const Ps kRsaWrap = Key(KM_ALGORITHM_RSA, KM_PURPOSE_WRAP_KEY, kRsa);
const Ps kRsaCipher = Key(KM_ALGORITHM_RSA, kEncrypt, kRsa + kDecrypts + kPkcs1Encrypt);
const Ps kUnpads = Key(KM_ALGORITHM_AES, kDecrypt, With(kEcb, kPkcs7) + k128);

Ps RsaKey(uint32_t purpose, uint64_t size) {
  return Key(KM_ALGORITHM_RSA, purpose, With(kRsa, {KM_TAG_KEY_SIZE, size}) + kPss + kSha256);
}

struct Use {
  Ps key;
  uint32_t purpose;
  Ps params;
  keymaster_error_t error;
  size_t size = 0;       // of data that are no ciphertext
  size_t signature = 0;  // its size
};

const Use kUses[] = {
    {kAes, kSign, kEcb, KM_ERROR_UNSUPPORTED_PURPOSE},
    {kAes, kDecrypt, kEcb, KM_ERROR_INCOMPATIBLE_PURPOSE},
    {kAes, kEncrypt, kEcb + kCtr, KM_ERROR_UNSUPPORTED_BLOCK_MODE},
    {kAes, kEncrypt, With(kEcb, kPkcs7), KM_ERROR_INCOMPATIBLE_PADDING_MODE},
    {kAes + kCtr + kPkcs7, kEncrypt, {kCtr, kPkcs7}, KM_ERROR_INCOMPATIBLE_PADDING_MODE},
    {kGcm, kEncrypt, kGcmMode, KM_ERROR_MISSING_MAC_LENGTH},
    {kGcm, kEncrypt, kGcmMode + P(KM_TAG_MAC_LENGTH, 96), KM_ERROR_INVALID_MAC_LENGTH},
    {kGcm, kEncrypt, kGcmMode + P(KM_TAG_MAC_LENGTH, 136), KM_ERROR_UNSUPPORTED_MAC_LENGTH},
    {kGcm + P(KM_TAG_CALLER_NONCE, 1), kEncrypt, kGcm128 + P(KM_TAG_NONCE, Str(13, 'n')),
     KM_ERROR_INVALID_NONCE},
    {kGcm + kDecrypts, kDecrypt, kGcm128, KM_ERROR_MISSING_NONCE},
    {kGcm + kPkcs7, kEncrypt, With(kGcm128, kPkcs7), KM_ERROR_INCOMPATIBLE_PADDING_MODE},
    {kHmac, kSign, {{KM_TAG_MAC_LENGTH, 129}}, KM_ERROR_UNSUPPORTED_MAC_LENGTH},
    {kHmac, kSign, {{KM_TAG_MAC_LENGTH, 264}}, KM_ERROR_UNSUPPORTED_MAC_LENGTH},
    {kEc, kSign, {}, KM_ERROR_UNSUPPORTED_DIGEST},
    {kRsaSign, kSign, {kSha1, kNoPadding}, KM_ERROR_INCOMPATIBLE_DIGEST},
    {kRsaSign, kSign, {kSha1, kOaepAlone}, KM_ERROR_UNSUPPORTED_PADDING_MODE},
    {RsaKey(kSign, 616), kSign, {kSha384, kPkcs1}, KM_ERROR_INCOMPATIBLE_DIGEST},
    {RsaKey(kSign, 624), kSign, {kSha384, kPkcs1}, KM_ERROR_OK},
    {RsaKey(kSign, 520), kSign, {kSha256, kPss}, KM_ERROR_INCOMPATIBLE_DIGEST},
    {RsaKey(kSign, 528), kSign, {kSha256, kPss}, KM_ERROR_OK},
    {RsaKey(kSign, 528), kSign, {kNoDigest, kPss}, KM_ERROR_INCOMPATIBLE_DIGEST},
    {RsaKey(kDecrypt, 520), kDecrypt, {kSha256, kOaepAlone}, KM_ERROR_INCOMPATIBLE_DIGEST},
    {RsaKey(kDecrypt, 528), kDecrypt, {kSha256, kOaepAlone}, KM_ERROR_OK},
    {RsaKey(kDecrypt, 528), kDecrypt, {kNoDigest, kOaepAlone}, KM_ERROR_INCOMPATIBLE_DIGEST},
    {RsaKey(kDecrypt, 528), kDecrypt, {kPkcs1}, KM_ERROR_UNSUPPORTED_PADDING_MODE},
    {kRsaWrap, KM_PURPOSE_WRAP_KEY, kOaep, KM_ERROR_UNSUPPORTED_PURPOSE},
    {kRsaWrap, kDecrypt, {kNoPadding}, KM_ERROR_INCOMPATIBLE_PURPOSE},
    {kRsaWrap, kEncrypt, kOaep, KM_ERROR_INCOMPATIBLE_PURPOSE},
    {kAes + kPastOrigination, kEncrypt, kEcb, KM_ERROR_KEY_EXPIRED},
    {kAes + kPastUsage, kEncrypt, kEcb, KM_ERROR_OK},
    {kAes + kDecrypts + kPastOrigination, kDecrypt, kEcb, KM_ERROR_OK},
    {kAes + kDecrypts + kPastUsage, kDecrypt, kEcb, KM_ERROR_KEY_EXPIRED},
    {kAes + P(KM_TAG_BOOTLOADER_ONLY, 1), kEncrypt, kEcb, KM_ERROR_INVALID_KEY_BLOB},
    {kAes + P(KM_TAG_STORAGE_KEY, 1), kEncrypt, kEcb, KM_ERROR_STORAGE_KEY_UNSUPPORTED},
    {kAes + P(KM_TAG_STORAGE_KEY, 0x100), kEncrypt, kEcb, KM_ERROR_OK},  // false: one byte counts
    {kAes + P(KM_TAG_TRUSTED_USER_PRESENCE_REQUIRED, 1), kEncrypt, kEcb,
     KM_ERROR_PROOF_OF_PRESENCE_REQUIRED},
    {kAes + P(KM_TAG_TRUSTED_CONFIRMATION_REQUIRED, 1), kEncrypt, kEcb,
     KM_ERROR_NO_USER_CONFIRMATION},
    // Anybody may check a signature.
    {kEc + kVerifies + P(KM_TAG_USER_SECURE_ID, 7) + P(KM_TAG_AUTH_TIMEOUT, 60) +
         P(KM_TAG_ACTIVE_DATETIME, 4102444800000),
     kVerify,
     {kSha256},
     KM_ERROR_OK},
    // Data that do not fit.
    {kRsaCipher, kEncrypt, {kPkcs1Encrypt}, KM_ERROR_INVALID_INPUT_LENGTH, 54},
    {kRsaCipher, kEncrypt, kOaep, KM_ERROR_INVALID_INPUT_LENGTH, 23},
    {kRsaCipher, kEncrypt, {kNoPadding}, KM_ERROR_INVALID_ARGUMENT, 64},
    {kRsaCipher, kEncrypt, {kNoPadding}, KM_ERROR_INVALID_INPUT_LENGTH, 65},
    {kRsaCipher, kDecrypt, kOaep, KM_ERROR_UNKNOWN_ERROR, 64},
    {kRsaSign, kSign, {kNoDigest, kPkcs1}, KM_ERROR_INVALID_INPUT_LENGTH, 54},
    {kRsaSign, kSign, {kNoDigest, kNoPadding}, KM_ERROR_INVALID_ARGUMENT, 64},
    {kAes, kEncrypt, kEcb, KM_ERROR_INVALID_INPUT_LENGTH, 17},
    {kUnpads, kDecrypt, With(kEcb, kPkcs7), KM_ERROR_INVALID_INPUT_LENGTH, 31},
    {kGcm + kDecrypts, kDecrypt, kGcm128 + kNonce, KM_ERROR_INVALID_INPUT_LENGTH, 15},
    {kHmac + kVerifies, kVerify, {}, KM_ERROR_INVALID_MAC_LENGTH, 1, 15},
    {kHmac + kVerifies, kVerify, {}, KM_ERROR_VERIFICATION_FAILED, 1, 65},
};

TEST_F(TaTest, AllowsTheUsesThatTheKeyAllows) {
  for (const Use& use : kUses) {
    SCOPED_TRACE(&use - kUses);
    ASSERT_EQ(ta.Generate(use.key), 0u);
    const uint32_t begun = ta.TryBegin(use.purpose, use.params);
    EXPECT_EQ(begun, use.size == 0 ? Km(use.error) : 0u);
    if (use.size == 0) continue;
    const Str data(use.size, '\xFF'), signature(use.signature, 's');
    EXPECT_EQ(ta.Operate(use.purpose, use.params, data, 100, signature), Km(use.error));
  }
}

TEST_F(TaTest, TakesAssociatedDataBeforeTheMessageOnly) {
  // From Python's cryptography: key, nonce and message of one letter each, "abcd" along with them.
  const Str sealed = Hex(
      "036d708fee0420bf38eddd0c0d808c2d1fbb8262629aa28bb5906cc6545c3b49483230e30570b43da82ff22e025e"
      "fd4b20c2ef48184c99ca");
  const struct {
    const char* with[4];  // each chunk, of 0, 20, 20 and 0 bytes, the last with the finish
    keymaster_error_t error;
  } rows[] = {
      {{nullptr, "abcd", "abcd", "abcd"}, KM_ERROR_OK},
      {{"ab", "cd", "cd", nullptr}, KM_ERROR_OK},
      {{nullptr, "abcd", "abce", nullptr}, KM_ERROR_INVALID_TAG},
      {{nullptr, "abcd", "abcd", ""}, KM_ERROR_INVALID_TAG},
      {{nullptr, nullptr, "abcd", nullptr}, KM_ERROR_INVALID_TAG},
  };
  ASSERT_EQ(ta.Import(kGcm + P(KM_TAG_CALLER_NONCE, 1), Str(16, 'g')), 0u);
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    ASSERT_EQ(ta.Begin(kEncrypt, kGcm128 + kNonce), 0u);
    ta.output.clear();
    uint32_t result = 0;
    for (int i = 0; result == 0 && i < 4; ++i) {
      const Ps with = row.with[i] == nullptr ? Ps() : Ps{{KM_TAG_ASSOCIATED_DATA, row.with[i]}};
      const Str chunk(i == 1 || i == 2 ? 20 : 0, 'm');
      result = i == 3 ? ta.Finish({}, with) : ta.Update(chunk, with);
    }
    EXPECT_EQ(result, Km(row.error));
    EXPECT_EQ(row.error == KM_ERROR_OK ? ta.output : sealed, sealed);
    EXPECT_EQ(ta.Finish(), Km(KM_ERROR_INVALID_OPERATION_HANDLE));
  }
  // No other operation has any.
  ASSERT_EQ(ta.Generate(kAes), 0u);
  ASSERT_EQ(ta.Begin(kEncrypt, kEcb), 0u);
  EXPECT_EQ(ta.Update("", {{KM_TAG_ASSOCIATED_DATA, "abcd"}}), Km(KM_ERROR_INVALID_TAG));
}

TEST_F(TaTest, HoldsABoundedNumberOfOperations) {
  ASSERT_EQ(ta.Generate(kAes), 0u);
  std::vector<uint64_t> handles;
  while (ta.Begin(kEncrypt, kEcb) == 0 && handles.size() < 100) {
    handles.push_back(ta.handle);
  }
  EXPECT_EQ(ta.Begin(kEncrypt, kEcb), Km(KM_ERROR_TOO_MANY_OPERATIONS));
  EXPECT_EQ(handles.size(), 16u);
  for (const uint64_t handle : handles) {
    EXPECT_EQ(Ta().Run(kCmdAbort, In(Le(handle, 8))), 0u);  // from another session
    EXPECT_EQ(ta.Run(kCmdAbort, In(Le(handle, 8))), Km(KM_ERROR_INVALID_OPERATION_HANDLE));
  }
}

}  // namespace
