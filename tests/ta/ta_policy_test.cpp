// What the TA refuses: keys that cannot be, uses that a key does not allow, blobs and requests that
// are not what they claim.
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "ta/device_state.h"
#include "ta/hmac_sharing.h"
#include "tests/ta/ta_client.h"

namespace {

// Where an imported key comes from.
constexpr char kGenerated = 0, kImported = 1, kWrapped = 2;
constexpr uint64_t kFuture = 4102444800000;  // the year 2100, in milliseconds
const P kMac104 = {KM_TAG_MAC_LENGTH, 104}, k128 = {KM_TAG_KEY_SIZE, 128};
const Ps kEcb = {{KM_TAG_BLOCK_MODE, KM_MODE_ECB}, kNoPadding};
const Ps kGcmMode = {{KM_TAG_BLOCK_MODE, KM_MODE_GCM}, kNoPadding};
const Ps kAes = Key(KM_ALGORITHM_AES, kEncrypt, kEcb + k128);
const Ps kGcm = Key(KM_ALGORITHM_AES, kEncrypt, kGcmMode + k128 + P(KM_TAG_MIN_MAC_LENGTH, 104));
const Ps kHmac = Key(KM_ALGORITHM_HMAC, kSign, {k128, kSha256, {KM_TAG_MIN_MAC_LENGTH, 128}});
const Ps kEc = Key(KM_ALGORITHM_EC, kSign, {{KM_TAG_EC_CURVE, KM_EC_CURVE_P_256}, kSha256});
const Ps kEcOfNoCurve = Key(KM_ALGORITHM_EC, kSign, {kSha256});
const Ps kDes = Key(KM_ALGORITHM_TRIPLE_DES, kEncrypt, kEcb);
const Ps kRsa = kOaep + kNoPadding + kPkcs1 + P(KM_TAG_KEY_SIZE, 512) +
                P(KM_TAG_RSA_PUBLIC_EXPONENT, 65537) + P(KM_TAG_DIGEST, KM_DIGEST_SHA_2_384) +
                P(KM_TAG_DIGEST, KM_DIGEST_NONE);
const Ps kRsaSign = Key(KM_ALGORITHM_RSA, kSign, kRsa);
const Ps kRsaWrap = Key(KM_ALGORITHM_RSA, KM_PURPOSE_WRAP_KEY, kRsa);

// The description with its parameters of the change's tag replaced by it.
Ps With(const Ps& base, const P& change) {
  Ps out;
  for (const P& p : base) {
    if (p.tag != change.tag) {
      out.push_back(p);
    }
  }
  return out + change;
}

TEST_F(TaTest, MakesTheKeysThatCanBe) {
  const struct {
    const Ps& base;
    P change;
    keymaster_error_t error;
  } rows[] = {
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
  for (const auto& row : rows) {
    EXPECT_EQ(ta.Generate(With(row.base, row.change)), Km(row.error)) << &row - rows;
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

TEST_F(TaTest, AllowsTheUsesThatTheKeyAllows) {
  const P mac128 = {KM_TAG_MAC_LENGTH, 128}, user = {KM_TAG_USER_SECURE_ID, 7},
          pkcs7 = {KM_TAG_PADDING, KM_PAD_PKCS7}, sha384 = {KM_TAG_DIGEST, KM_DIGEST_SHA_2_384},
          no_digest = {KM_TAG_DIGEST, KM_DIGEST_NONE}, oaep = {KM_TAG_PADDING, KM_PAD_RSA_OAEP},
          pss = {KM_TAG_PADDING, KM_PAD_RSA_PSS}, decrypts = {KM_TAG_PURPOSE, kDecrypt},
          ctr = {KM_TAG_BLOCK_MODE, KM_MODE_CTR};
  const P past_origination = {KM_TAG_ORIGINATION_EXPIRE_DATETIME, 1},
          past_usage = {KM_TAG_USAGE_EXPIRE_DATETIME, 1};
  const Ps gcm = kGcmMode + mac128;
  const auto rsa = [&](uint32_t purpose, uint64_t size) {
    return Key(KM_ALGORITHM_RSA, purpose, With(kRsa, {KM_TAG_KEY_SIZE, size}) + pss + kSha256);
  };
  const struct {
    Ps key;
    uint32_t purpose;
    Ps params;
    keymaster_error_t error;
  } rows[] = {
      {kAes, kEncrypt, kEcb, KM_ERROR_OK},
      {kAes, kSign, kEcb, KM_ERROR_UNSUPPORTED_PURPOSE},
      {kAes, 99, kEcb, KM_ERROR_UNSUPPORTED_PURPOSE},
      {kAes, kDecrypt, kEcb, KM_ERROR_INCOMPATIBLE_PURPOSE},
      {kAes, kEncrypt, {}, KM_ERROR_UNSUPPORTED_BLOCK_MODE},
      {kAes, kEncrypt, kEcb + ctr, KM_ERROR_UNSUPPORTED_BLOCK_MODE},
      {kAes, kEncrypt, With(kEcb, ctr), KM_ERROR_INCOMPATIBLE_BLOCK_MODE},
      {kAes, kEncrypt, With(kEcb, pkcs7), KM_ERROR_INCOMPATIBLE_PADDING_MODE},
      {kAes + ctr + pkcs7, kEncrypt, {ctr, pkcs7}, KM_ERROR_INCOMPATIBLE_PADDING_MODE},
      {kGcm, kEncrypt, kGcmMode + kMac104, KM_ERROR_OK},
      {kGcm, kEncrypt, kGcmMode, KM_ERROR_MISSING_MAC_LENGTH},
      {kGcm, kEncrypt, kGcmMode + P(KM_TAG_MAC_LENGTH, 96), KM_ERROR_INVALID_MAC_LENGTH},
      {kGcm, kEncrypt, kGcmMode + P(KM_TAG_MAC_LENGTH, 136), KM_ERROR_UNSUPPORTED_MAC_LENGTH},
      {kGcm, kEncrypt, gcm + P(KM_TAG_NONCE, Str(12, 'n')), KM_ERROR_CALLER_NONCE_PROHIBITED},
      {kGcm + P(KM_TAG_CALLER_NONCE, 1), kEncrypt, gcm + P(KM_TAG_NONCE, Str(13, 'n')),
       KM_ERROR_INVALID_NONCE},
      {kGcm + decrypts, kDecrypt, gcm, KM_ERROR_MISSING_NONCE},
      {kGcm + pkcs7, kEncrypt, With(gcm, pkcs7), KM_ERROR_INCOMPATIBLE_PADDING_MODE},
      {kHmac, kSign, {}, KM_ERROR_MISSING_MAC_LENGTH},
      {kHmac, kSign, {{KM_TAG_MAC_LENGTH, 120}}, KM_ERROR_INVALID_MAC_LENGTH},
      {kHmac, kSign, {{KM_TAG_MAC_LENGTH, 129}}, KM_ERROR_UNSUPPORTED_MAC_LENGTH},
      {kHmac, kSign, {{KM_TAG_MAC_LENGTH, 256}}, KM_ERROR_OK},
      {kHmac, kSign, {{KM_TAG_MAC_LENGTH, 264}}, KM_ERROR_UNSUPPORTED_MAC_LENGTH},
      {kEc, kEncrypt, {}, KM_ERROR_UNSUPPORTED_PURPOSE},
      {kEc, kSign, {}, KM_ERROR_UNSUPPORTED_DIGEST},
      {kEc, kSign, {no_digest}, KM_ERROR_INCOMPATIBLE_DIGEST},
      {kRsaSign, kSign, {kSha1, kNoPadding}, KM_ERROR_INCOMPATIBLE_DIGEST},
      {kRsaSign, kSign, {kSha1, oaep}, KM_ERROR_UNSUPPORTED_PADDING_MODE},
      {rsa(kSign, 616), kSign, {sha384, kPkcs1}, KM_ERROR_INCOMPATIBLE_DIGEST},
      {rsa(kSign, 624), kSign, {sha384, kPkcs1}, KM_ERROR_OK},
      {rsa(kSign, 520), kSign, {kSha256, pss}, KM_ERROR_INCOMPATIBLE_DIGEST},
      {rsa(kSign, 528), kSign, {kSha256, pss}, KM_ERROR_OK},
      {rsa(kSign, 528), kSign, {no_digest, pss}, KM_ERROR_INCOMPATIBLE_DIGEST},
      {rsa(kDecrypt, 520), kDecrypt, {kSha256, oaep}, KM_ERROR_INCOMPATIBLE_DIGEST},
      {rsa(kDecrypt, 528), kDecrypt, {kSha256, oaep}, KM_ERROR_OK},
      {rsa(kDecrypt, 528), kDecrypt, {no_digest, oaep}, KM_ERROR_INCOMPATIBLE_DIGEST},
      {rsa(kDecrypt, 528), kDecrypt, {kPkcs1}, KM_ERROR_UNSUPPORTED_PADDING_MODE},
      {kRsaWrap, kDecrypt, kOaep, KM_ERROR_OK},
      {kRsaWrap, kDecrypt, {kNoPadding}, KM_ERROR_INCOMPATIBLE_PURPOSE},
      {kRsaWrap, kEncrypt, kOaep, KM_ERROR_INCOMPATIBLE_PURPOSE},
      {kAes + past_origination, kEncrypt, kEcb, KM_ERROR_KEY_EXPIRED},
      {kAes + past_usage, kEncrypt, kEcb, KM_ERROR_OK},
      {kAes + decrypts + past_origination, kDecrypt, kEcb, KM_ERROR_OK},
      {kAes + decrypts + past_usage, kDecrypt, kEcb, KM_ERROR_KEY_EXPIRED},
      {kHmac + past_origination, kSign, {mac128}, KM_ERROR_KEY_EXPIRED},
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
      {kEc + user + P(KM_TAG_PURPOSE, kVerify) + P(KM_TAG_AUTH_TIMEOUT, 60) +
           P(KM_TAG_ACTIVE_DATETIME, kFuture),
       kVerify,
       {kSha256},
       KM_ERROR_OK},
  };
  for (const auto& row : rows) {
    ASSERT_EQ(ta.Generate(row.key), 0u) << &row - rows;
    EXPECT_EQ(ta.TryBegin(row.purpose, row.params), Km(row.error)) << &row - rows;
  }
}

TEST_F(TaTest, RefusesDataThatDoNotFit) {
  const P pkcs1 = {KM_TAG_PADDING, KM_PAD_RSA_PKCS1_1_5_ENCRYPT},
          decrypts = {KM_TAG_PURPOSE, kDecrypt}, pkcs7 = {KM_TAG_PADDING, KM_PAD_PKCS7},
          verifies = {KM_TAG_PURPOSE, kVerify}, bare = {KM_TAG_DIGEST, KM_DIGEST_NONE};
  const Ps rsa = Key(KM_ALGORITHM_RSA, kEncrypt, kRsa + decrypts + pkcs1),
           padded = Key(KM_ALGORITHM_AES, kDecrypt, With(kEcb, pkcs7) + k128),
           gcm = kGcmMode + P(KM_TAG_MAC_LENGTH, 128) + P(KM_TAG_NONCE, Str(12, 'n'));
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
      {kRsaSign, kSign, {bare, kPkcs1}, 53, 0, KM_ERROR_OK},
      {kRsaSign, kSign, {bare, kPkcs1}, 54, 0, KM_ERROR_INVALID_INPUT_LENGTH},
      {kRsaSign, kSign, {bare, kNoPadding}, 64, 0, KM_ERROR_INVALID_ARGUMENT},
      {kAes, kEncrypt, kEcb, 17, 0, KM_ERROR_INVALID_INPUT_LENGTH},
      {padded, kDecrypt, With(kEcb, pkcs7), 0, 0, KM_ERROR_INVALID_INPUT_LENGTH},
      {padded, kDecrypt, With(kEcb, pkcs7), 31, 0, KM_ERROR_INVALID_INPUT_LENGTH},
      {kGcm + decrypts, kDecrypt, gcm, 15, 0, KM_ERROR_INVALID_INPUT_LENGTH},
      {kGcm + decrypts, kDecrypt, gcm, 16, 0, KM_ERROR_VERIFICATION_FAILED},
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

TEST_F(TaTest, NeedsToBeConfiguredForKeys) {
  Instance fresh(false);
  EXPECT_EQ(fresh.Generate(kAes), Km(KM_ERROR_KEYMASTER_NOT_CONFIGURED));
  EXPECT_EQ(fresh.Run(kCmdEarlyBootEnded), 0u);
  EXPECT_EQ(fresh.Configure(kOsVersion, kPatchlevel), 0u);
  EXPECT_EQ(fresh.Generate(kAes), 0u);
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

TEST_F(TaTest, RemembersASessionsLastFailure) {
  const auto record = [](Ta* session) {
    EXPECT_EQ(session->Run(kCmdGetErrorRecord, Out(1024)), 0u);
    return session->slots[0].out;
  };
  EXPECT_EQ(record(&ta), Str(12, 0));
  Str lines;
  for (const auto& [description, error] :
       {std::pair{Ps(), KM_ERROR_UNSUPPORTED_ALGORITHM},
        {With(kAes, {KM_TAG_PURPOSE, kSign}), KM_ERROR_UNSUPPORTED_PURPOSE}}) {
    EXPECT_EQ(ta.Generate(description), Km(error));
    const Str kept = record(&ta);
    lines += kept.substr(4, 4);
    const Str function = "CheckKeyDescription";
    EXPECT_EQ(kept, Le(Km(error), 4) + kept.substr(4, 4) + Le(function.size(), 4) + function);
    ASSERT_EQ(ta.Generate(kAes), 0u);
    EXPECT_EQ(record(&ta), kept);
  }
  EXPECT_LT(UnLe(lines, 0, 4), UnLe(lines, 4, 4));
  Ta other;
  EXPECT_EQ(record(&other), Str(12, 0));
  EXPECT_EQ(other.Run(kCmdGetErrorRecord, Out(11)), TEEC_ERROR_SHORT_BUFFER);
}

TEST_F(TaTest, IsNoFirstSessionOfItsOwn) {
  for (const uint32_t type : {TEEC_VALUE_OUTPUT, TEEC_VALUE_INOUT, TEEC_VALUE_INPUT}) {
    TaParam params[4];
    params[0].a = 5;
    void* session = nullptr;
    EXPECT_EQ(kKeymasterTrustedApp.open_session(kKeymasterLoginMethod, type, params, &session), 0u);
    EXPECT_EQ(params[0].a, type == TEEC_VALUE_INPUT ? 5u : 0u);
    kKeymasterTrustedApp.close_session(session);
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

TEST_F(TaTest, ServesThreadsAtOnceAndOneOfThemPerOperation) {
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
      if (own.Finish() == 0) {
        ++finished;
      }
      EXPECT_EQ(own.Generate(kEc), 0u);
      EXPECT_EQ(own.Operate(kSign, {kSha256}, "data", 4), 0u);
      EXPECT_EQ(own.Run(kCmdDeleteKey, In(own.blob)), 0u);
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(finished, 1);
}

TEST_F(TaTest, SurvivesRequestsCutShortAndTypesOfAnyKind) {
  const Str request = Wire(kAes + P(KM_TAG_APPLICATION_ID, "id"));
  for (size_t size = 0; size < request.size(); ++size) {
    EXPECT_EQ(ta.Run(kCmdGenerateKey, In(request.substr(0, size)), {}, Out(4096), Out(4096)),
              Km(KM_ERROR_INVALID_ARGUMENT))
        << size;
  }
  ASSERT_EQ(ta.Generate(kAes), 0u);
  const Str finish = Str(1, 0) + Le(16, 4) + Str(16, 'p') + Str(1, 1) + Le(0, 4);
  for (size_t size = 1; size <= finish.size(); ++size) {
    ASSERT_EQ(ta.Begin(kEncrypt, kEcb), 0u);
    EXPECT_EQ(
        ta.Run(kCmdFinish, {}, In(finish.substr(0, size)), InOut(Le(ta.handle, 8)), Out(4096)),
        size == finish.size() ? 0u : Km(KM_ERROR_INVALID_ARGUMENT));
  }
  for (const uint32_t command :
       {kCmdGenerateKey, kCmdGetKeyCharacteristics, kCmdImportKey, kCmdExportKey, kCmdAttestKey,
        kCmdUpgrade, kCmdBegin, kCmdUpdate, kCmdFinish, kCmdAbort, kCmdDeleteKey}) {
    for (uint32_t types = 0; types < 0x8000; ++types) {
      TaParam params[4];
      EXPECT_NE(kKeymasterTrustedApp.invoke(ta.session, command, types, params), 0u);
    }
  }
  // Neither values that share their bytes nor output that nobody takes use up the memory.
  Str shared = Wire(kAes + P(KM_TAG_APPLICATION_ID, "id") + P(KM_TAG_APPLICATION_DATA, "da"));
  shared.resize(shared.size() - 2);
  shared.replace(shared.size() - 2 - 8, 4, Le(0, 4));
  EXPECT_EQ(ta.Run(kCmdGenerateKey, In(shared), {}, Out(4096), Out(4096)),
            Km(KM_ERROR_INVALID_ARGUMENT));
  ASSERT_EQ(ta.Begin(kEncrypt, kEcb), 0u);
  const auto update = [&] {
    return ta.Run(kCmdUpdate, {}, In(Str((1 << 20) + 16, 'p')), InOut(Le(ta.handle, 8)), Out(0));
  };
  EXPECT_EQ(update(), 0u);
  EXPECT_EQ(update(), Km(KM_ERROR_INSUFFICIENT_BUFFER_SPACE));
  EXPECT_EQ(ta.Run(kCmdAbort + 1), TEEC_ERROR_NOT_SUPPORTED);
  EXPECT_EQ(ta.Run(kCmdGenerateKey, In(request), {}, Out(20), {}), TEEC_ERROR_SHORT_BUFFER);
}

}  // namespace
