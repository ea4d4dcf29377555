// The uses that a key allows, and the operations that they begin.
#include <unistd.h>

#include <atomic>
#include <thread>

#include "ta/auth.h"
#include "tests/ta/descriptions.h"

namespace {

const P kMac128 = {KM_TAG_MAC_LENGTH, 128}, kUser = {KM_TAG_USER_SECURE_ID, 7},
        kPkcs7 = {KM_TAG_PADDING, KM_PAD_PKCS7}, kSha384 = {KM_TAG_DIGEST, KM_DIGEST_SHA_2_384},
        kNoDigest = {KM_TAG_DIGEST, KM_DIGEST_NONE}, kOaepAlone = {KM_TAG_PADDING, KM_PAD_RSA_OAEP},
        kPss = {KM_TAG_PADDING, KM_PAD_RSA_PSS}, kDecrypts = {KM_TAG_PURPOSE, kDecrypt},
        kCtr = {KM_TAG_BLOCK_MODE, KM_MODE_CTR};
const P kPastOrigination = {KM_TAG_ORIGINATION_EXPIRE_DATETIME, 1},
        kPastUsage = {KM_TAG_USAGE_EXPIRE_DATETIME, 1};
const Ps kGcm128 = kGcmMode + kMac128;

Ps RsaKey(uint32_t purpose, uint64_t size) {
  return Key(KM_ALGORITHM_RSA, purpose, With(kRsa, {KM_TAG_KEY_SIZE, size}) + kPss + kSha256);
}

const struct {
  Ps key;
  uint32_t purpose;
  Ps params;
  keymaster_error_t error;
} kUses[] = {
    {kAes, kEncrypt, kEcb, KM_ERROR_OK},
    {kAes, kSign, kEcb, KM_ERROR_UNSUPPORTED_PURPOSE},
    {kAes, 99, kEcb, KM_ERROR_UNSUPPORTED_PURPOSE},
    {kAes, kDecrypt, kEcb, KM_ERROR_INCOMPATIBLE_PURPOSE},
    {kAes, kEncrypt, {}, KM_ERROR_UNSUPPORTED_BLOCK_MODE},
    {kAes, kEncrypt, kEcb + kCtr, KM_ERROR_UNSUPPORTED_BLOCK_MODE},
    {kAes, kEncrypt, With(kEcb, kCtr), KM_ERROR_INCOMPATIBLE_BLOCK_MODE},
    {kAes, kEncrypt, With(kEcb, kPkcs7), KM_ERROR_INCOMPATIBLE_PADDING_MODE},
    {kAes + kCtr + kPkcs7, kEncrypt, {kCtr, kPkcs7}, KM_ERROR_INCOMPATIBLE_PADDING_MODE},
    {kGcm, kEncrypt, kGcmMode + kMac104, KM_ERROR_OK},
    {kGcm, kEncrypt, kGcmMode, KM_ERROR_MISSING_MAC_LENGTH},
    {kGcm, kEncrypt, kGcmMode + P(KM_TAG_MAC_LENGTH, 96), KM_ERROR_INVALID_MAC_LENGTH},
    {kGcm, kEncrypt, kGcmMode + P(KM_TAG_MAC_LENGTH, 136), KM_ERROR_UNSUPPORTED_MAC_LENGTH},
    {kGcm, kEncrypt, kGcm128 + P(KM_TAG_NONCE, Str(12, 'n')), KM_ERROR_CALLER_NONCE_PROHIBITED},
    {kGcm + P(KM_TAG_CALLER_NONCE, 1), kEncrypt, kGcm128 + P(KM_TAG_NONCE, Str(13, 'n')),
     KM_ERROR_INVALID_NONCE},
    {kGcm + kDecrypts, kDecrypt, kGcm128, KM_ERROR_MISSING_NONCE},
    {kGcm + kPkcs7, kEncrypt, With(kGcm128, kPkcs7), KM_ERROR_INCOMPATIBLE_PADDING_MODE},
    {kHmac, kSign, {}, KM_ERROR_MISSING_MAC_LENGTH},
    {kHmac, kSign, {{KM_TAG_MAC_LENGTH, 120}}, KM_ERROR_INVALID_MAC_LENGTH},
    {kHmac, kSign, {{KM_TAG_MAC_LENGTH, 129}}, KM_ERROR_UNSUPPORTED_MAC_LENGTH},
    {kHmac, kSign, {{KM_TAG_MAC_LENGTH, 256}}, KM_ERROR_OK},
    {kHmac, kSign, {{KM_TAG_MAC_LENGTH, 264}}, KM_ERROR_UNSUPPORTED_MAC_LENGTH},
    {kEc, kEncrypt, {}, KM_ERROR_UNSUPPORTED_PURPOSE},
    {kEc, kSign, {}, KM_ERROR_UNSUPPORTED_DIGEST},
    {kEc, kSign, {kNoDigest}, KM_ERROR_INCOMPATIBLE_DIGEST},
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
    {kRsaWrap, kDecrypt, kOaep, KM_ERROR_OK},
    {kRsaWrap, kDecrypt, {kNoPadding}, KM_ERROR_INCOMPATIBLE_PURPOSE},
    {kRsaWrap, kEncrypt, kOaep, KM_ERROR_INCOMPATIBLE_PURPOSE},
    {kAes + kPastOrigination, kEncrypt, kEcb, KM_ERROR_KEY_EXPIRED},
    {kAes + kPastUsage, kEncrypt, kEcb, KM_ERROR_OK},
    {kAes + kDecrypts + kPastOrigination, kDecrypt, kEcb, KM_ERROR_OK},
    {kAes + kDecrypts + kPastUsage, kDecrypt, kEcb, KM_ERROR_KEY_EXPIRED},
    {kHmac + kPastOrigination, kSign, {kMac128}, KM_ERROR_KEY_EXPIRED},
    {kAes + P(KM_TAG_ORIGINATION_EXPIRE_DATETIME, kFuture), kEncrypt, kEcb, KM_ERROR_OK},
    {kAes + P(KM_TAG_ACTIVE_DATETIME, kFuture), kEncrypt, kEcb, KM_ERROR_KEY_NOT_YET_VALID},
    {kAes + P(KM_TAG_ACTIVE_DATETIME, 1), kEncrypt, kEcb, KM_ERROR_OK},
    {kAes + P(KM_TAG_BOOTLOADER_ONLY, 1), kEncrypt, kEcb, KM_ERROR_INVALID_KEY_BLOB},
    {kAes + P(KM_TAG_STORAGE_KEY, 1), kEncrypt, kEcb, KM_ERROR_STORAGE_KEY_UNSUPPORTED},
    {kAes + P(KM_TAG_TRUSTED_USER_PRESENCE_REQUIRED, 1), kEncrypt, kEcb,
     KM_ERROR_PROOF_OF_PRESENCE_REQUIRED},
    {kAes + P(KM_TAG_TRUSTED_CONFIRMATION_REQUIRED, 1), kEncrypt, kEcb,
     KM_ERROR_NO_USER_CONFIRMATION},
    {kAes + P(KM_TAG_MAX_USES_PER_BOOT, 0), kEncrypt, kEcb, KM_ERROR_KEY_MAX_OPS_EXCEEDED},
    // Anybody may check a signature.
    {kEc + kUser + P(KM_TAG_PURPOSE, kVerify) + P(KM_TAG_AUTH_TIMEOUT, 60) +
         P(KM_TAG_ACTIVE_DATETIME, kFuture),
     kVerify,
     {kSha256},
     KM_ERROR_OK},
};

TEST_F(TaTest, AllowsTheUsesThatTheKeyAllows) {
  for (const auto& row : kUses) {
    ASSERT_EQ(ta.Generate(row.key), 0u) << &row - kUses;
    EXPECT_EQ(ta.TryBegin(row.purpose, row.params), Km(row.error)) << &row - kUses;
  }
}

TEST_F(TaTest, RefusesDataThatDoNotFit) {
  const P pkcs1 = {KM_TAG_PADDING, KM_PAD_RSA_PKCS1_1_5_ENCRYPT},
          verifies = {KM_TAG_PURPOSE, kVerify};
  const Ps rsa = Key(KM_ALGORITHM_RSA, kEncrypt, kRsa + kDecrypts + pkcs1),
           padded = Key(KM_ALGORITHM_AES, kDecrypt, With(kEcb, kPkcs7) + k128),
           gcm = kGcm128 + P(KM_TAG_NONCE, Str(12, 'n'));
  const struct {
    Ps key;
    uint32_t purpose;
    Ps params;
    size_t size;  // of data that are no ciphertext
    size_t signature;
    keymaster_error_t error;
  } rows[] = {
      {rsa, kEncrypt, {pkcs1}, 53, 0, KM_ERROR_OK},
      {rsa, kEncrypt, {pkcs1}, 54, 0, KM_ERROR_INVALID_INPUT_LENGTH},
      {rsa, kEncrypt, kOaep, 23, 0, KM_ERROR_INVALID_INPUT_LENGTH},
      {rsa, kEncrypt, {kNoPadding}, 64, 0, KM_ERROR_INVALID_ARGUMENT},
      {rsa, kEncrypt, {kNoPadding}, 65, 0, KM_ERROR_INVALID_INPUT_LENGTH},
      {rsa, kDecrypt, kOaep, 64, 0, KM_ERROR_UNKNOWN_ERROR},
      {kRsaSign, kSign, {kNoDigest, kPkcs1}, 53, 0, KM_ERROR_OK},
      {kRsaSign, kSign, {kNoDigest, kPkcs1}, 54, 0, KM_ERROR_INVALID_INPUT_LENGTH},
      {kRsaSign, kSign, {kNoDigest, kNoPadding}, 64, 0, KM_ERROR_INVALID_ARGUMENT},
      {kAes, kEncrypt, kEcb, 17, 0, KM_ERROR_INVALID_INPUT_LENGTH},
      {padded, kDecrypt, With(kEcb, kPkcs7), 0, 0, KM_ERROR_INVALID_INPUT_LENGTH},
      {padded, kDecrypt, With(kEcb, kPkcs7), 31, 0, KM_ERROR_INVALID_INPUT_LENGTH},
      {kGcm + kDecrypts, kDecrypt, gcm, 15, 0, KM_ERROR_INVALID_INPUT_LENGTH},
      {kGcm + kDecrypts, kDecrypt, gcm, 16, 0, KM_ERROR_VERIFICATION_FAILED},
      {kHmac + verifies, kVerify, {}, 1, 15, KM_ERROR_INVALID_MAC_LENGTH},
      {kHmac + verifies, kVerify, {}, 1, 16, KM_ERROR_VERIFICATION_FAILED},
      {kHmac + verifies, kVerify, {}, 1, 65, KM_ERROR_VERIFICATION_FAILED},
  };
  for (const auto& row : rows) {
    ASSERT_EQ(ta.Generate(row.key), 0u);
    EXPECT_EQ(
        ta.Operate(row.purpose, row.params, Str(row.size, '\xFF'), 100, Str(row.signature, 's')),
        Km(row.error))
        << &row - rows;
  }
}

TEST_F(TaTest, LimitsTheRateOfUsesAcrossSessions) {
  ASSERT_EQ(ta.Generate(kAes + P(KM_TAG_MIN_SECONDS_BETWEEN_OPS, 3600)), 0u);
  EXPECT_EQ(ta.TryBegin(kEncrypt, kEcb), 0u);
  Ta other;
  other.blob = ta.blob;
  EXPECT_EQ(other.Begin(kEncrypt, kEcb), Km(KM_ERROR_KEY_RATE_LIMIT_EXCEEDED));
  ASSERT_EQ(ta.Generate(kAes + P(KM_TAG_MIN_SECONDS_BETWEEN_OPS, 1)), 0u);
  const uint64_t before = ta::MillisSinceBoot();
  EXPECT_EQ(ta.TryBegin(kEncrypt, kEcb), 0u);
  while (ta.TryBegin(kEncrypt, kEcb) != 0) {
    usleep(1000);
  }
  EXPECT_GE(ta::MillisSinceBoot() - before, 1000u);
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
      {{"abcd", nullptr, nullptr, nullptr}, KM_ERROR_OK},
      {{nullptr, "abcd", nullptr, nullptr}, KM_ERROR_OK},
      {{"ab", "cd", nullptr, nullptr}, KM_ERROR_OK},
      {{nullptr, "abcd", "abcd", "abcd"}, KM_ERROR_OK},
      {{"ab", "cd", "cd", nullptr}, KM_ERROR_OK},
      {{nullptr, "abcd", "abce", nullptr}, KM_ERROR_INVALID_TAG},
      {{nullptr, "abcd", "abcd", ""}, KM_ERROR_INVALID_TAG},
      {{nullptr, nullptr, "abcd", nullptr}, KM_ERROR_INVALID_TAG},
      {{"abcd", nullptr, nullptr, "ab"}, KM_ERROR_INVALID_TAG},
  };
  ASSERT_EQ(ta.Import(kGcm + P(KM_TAG_CALLER_NONCE, 1), Str(16, 'g')), 0u);
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    const Ps begin = kGcmMode + P(KM_TAG_MAC_LENGTH, 128) + P(KM_TAG_NONCE, Str(12, 'n'));
    ASSERT_EQ(ta.Begin(kEncrypt, begin), 0u);
    ta.output.clear();
    uint32_t result = 0;
    for (int i = 0; result == 0 && i < 4; ++i) {
      const Ps with = row.with[i] == nullptr ? Ps() : Ps{{KM_TAG_ASSOCIATED_DATA, row.with[i]}};
      const Str chunk(i == 1 || i == 2 ? 20 : 0, 'm');
      result = i == 3 ? ta.Finish({}, {}, with) : ta.Update(chunk, with);
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

P Token(uint64_t challenge, uint64_t user) {
  const Str head = TokenHead(challenge, user, 1, ta::MillisSinceBoot());
  const ta::SecureBytes mac =
      ta::SharedHmac({reinterpret_cast<const uint8_t*>(head.data()), head.size()});
  return {KM_TAG_AUTH_TOKEN, head + Str(mac.begin(), mac.end())};
}

TEST_F(TaTest, WantsTheUsersTokenForEachOperation) {
  const Ps users = kAes + P(KM_TAG_USER_SECURE_ID, 7);
  const Str data(16, 'p');
  const uint32_t refused = Km(KM_ERROR_KEY_USER_NOT_AUTHENTICATED);
  ASSERT_EQ(ta.Generate(users + P(KM_TAG_USER_AUTH_TYPE, 1)), 0u);
  for (const auto& [offset, user] : {std::pair{0, 7}, {0, 8}, {1, 7}}) {
    const bool right = offset == 0 && user == 7;
    ASSERT_EQ(ta.Begin(kEncrypt, kEcb), 0u);
    const P token = Token(ta.handle + static_cast<uint64_t>(offset), static_cast<uint64_t>(user));
    EXPECT_EQ(ta.Update(data, {token}), right ? 0u : refused);
    // A failed update has ended the operation; a good one does not make up for the finish.
    EXPECT_EQ(ta.Finish(), right ? refused : Km(KM_ERROR_INVALID_OPERATION_HANDLE));
  }
  ASSERT_EQ(ta.Generate(users + P(KM_TAG_AUTH_TIMEOUT, 60)), 0u);
  EXPECT_EQ(ta.Begin(kEncrypt, kEcb + Token(0, 7)), 0u);
  EXPECT_EQ(ta.Finish(data), 0u);
}

TEST_F(TaTest, HoldsABoundedNumberOfOperations) {
  ASSERT_EQ(ta.Generate(kAes), 0u);
  std::vector<uint64_t> handles;
  while (ta.Begin(kEncrypt, kEcb) == 0 && handles.size() < 100) {
    EXPECT_NE(ta.handle, 0u);
    handles.push_back(ta.handle);
  }
  EXPECT_EQ(ta.Begin(kEncrypt, kEcb), Km(KM_ERROR_TOO_MANY_OPERATIONS));
  EXPECT_EQ(handles.size(), 16u);
  for (const uint64_t handle : handles) {
    EXPECT_EQ(Ta().Run(kCmdAbort, In(Le(handle, 8))), 0u);  // from another session
    EXPECT_EQ(ta.Run(kCmdAbort, In(Le(handle, 8))), Km(KM_ERROR_INVALID_OPERATION_HANDLE));
    ta.handle = handle;
    EXPECT_EQ(ta.Update("x"), Km(KM_ERROR_INVALID_OPERATION_HANDLE));
  }
}

TEST_F(TaTest, LetsOneThreadFinishAnOperation) {
  ASSERT_EQ(ta.Generate(kAes), 0u);
  ASSERT_EQ(ta.Begin(kEncrypt, kEcb), 0u);
  std::atomic<int> finished{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      Ta own;
      own.handle = ta.handle;
      while (own.Update(Str(16, 'p')) == 0 && own.output.size() < 320) {
      }
      if (own.Finish() == 0) ++finished;
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(finished, 1);
}

}  // namespace
