// What the TA refuses: keys that cannot be, uses that a key does not allow, blobs and requests that
// are not what they claim.
#include <time.h>

#include <atomic>
#include <thread>

#include "hmac_sharing.h"
#include "ta_client.h"

namespace {

constexpr uint64_t kPast = 1000;
constexpr uint64_t kFuture = 4102444800000;  // the year 2100, in milliseconds

const Ps kAes = {{KM_TAG_ALGORITHM, KM_ALGORITHM_AES},
                 {KM_TAG_KEY_SIZE, 128},
                 {KM_TAG_PURPOSE, KM_PURPOSE_ENCRYPT},
                 {KM_TAG_BLOCK_MODE, KM_MODE_ECB},
                 {KM_TAG_PADDING, KM_PAD_NONE}};
const Ps kGcm = {{KM_TAG_ALGORITHM, KM_ALGORITHM_AES}, {KM_TAG_KEY_SIZE, 128},
                 {KM_TAG_PURPOSE, KM_PURPOSE_ENCRYPT}, {KM_TAG_BLOCK_MODE, KM_MODE_GCM},
                 {KM_TAG_PADDING, KM_PAD_NONE},        {KM_TAG_MIN_MAC_LENGTH, 104}};
const Ps kHmac = {{KM_TAG_ALGORITHM, KM_ALGORITHM_HMAC},
                  {KM_TAG_KEY_SIZE, 128},
                  {KM_TAG_PURPOSE, KM_PURPOSE_SIGN},
                  {KM_TAG_DIGEST, KM_DIGEST_SHA_2_256},
                  {KM_TAG_MIN_MAC_LENGTH, 128}};
const Ps kRsa = {{KM_TAG_ALGORITHM, KM_ALGORITHM_RSA}, {KM_TAG_KEY_SIZE, 512},
                 {KM_TAG_RSA_PUBLIC_EXPONENT, 65537},  {KM_TAG_DIGEST, KM_DIGEST_NONE},
                 {KM_TAG_DIGEST, KM_DIGEST_SHA1},      {KM_TAG_DIGEST, KM_DIGEST_SHA_2_384}};
const Ps kEc = {{KM_TAG_ALGORITHM, KM_ALGORITHM_EC},
                {KM_TAG_EC_CURVE, KM_EC_CURVE_P_256},
                {KM_TAG_PURPOSE, KM_PURPOSE_SIGN},
                {KM_TAG_DIGEST, KM_DIGEST_SHA_2_256}};
const Ps kEcb = {{KM_TAG_BLOCK_MODE, KM_MODE_ECB}, {KM_TAG_PADDING, KM_PAD_NONE}};

// The description with its parameters of the same tags as those given replaced.
Ps With(const Ps& base, const Ps& changes) {
  Ps out;
  for (const P& p : base) {
    bool changed = false;
    for (const P& change : changes) changed = changed || change.tag == p.tag;
    if (!changed) out.push_back(p);
  }
  return out + changes;
}

TEST_F(TaTest, RefusesKeysThatCannotBe) {
  const struct {
    Ps description;
    keymaster_error_t error;
  } rows[] = {
      {{}, KM_ERROR_UNSUPPORTED_ALGORITHM},
      {With(kAes, {{KM_TAG_ALGORITHM, 2}}), KM_ERROR_UNSUPPORTED_ALGORITHM},
      {With(kAes, {{KM_TAG_KEY_SIZE, 129}}), KM_ERROR_UNSUPPORTED_KEY_SIZE},
      {With(kAes, {{KM_TAG_KEY_SIZE, 512}}), KM_ERROR_UNSUPPORTED_KEY_SIZE},
      {With(kAes, {{KM_TAG_PURPOSE, KM_PURPOSE_SIGN}}), KM_ERROR_UNSUPPORTED_PURPOSE},
      {With(kAes, {{KM_TAG_PADDING, KM_PAD_RSA_PSS}}), KM_ERROR_UNSUPPORTED_PADDING_MODE},
      {With(kAes, {{KM_TAG_BLOCK_MODE, 9}}), KM_ERROR_UNSUPPORTED_BLOCK_MODE},
      {With(kGcm, {{KM_TAG_MIN_MAC_LENGTH, 88}}), KM_ERROR_UNSUPPORTED_MIN_MAC_LENGTH},
      {kAes + Ps{{KM_TAG_BLOCK_MODE, KM_MODE_GCM}}, KM_ERROR_MISSING_MIN_MAC_LENGTH},
      {With(kHmac, {{KM_TAG_MIN_MAC_LENGTH, 264}}), KM_ERROR_UNSUPPORTED_MIN_MAC_LENGTH},
      {With(kHmac, {{KM_TAG_MIN_MAC_LENGTH, 129}}), KM_ERROR_UNSUPPORTED_MIN_MAC_LENGTH},
      {With(kHmac, {{KM_TAG_DIGEST, KM_DIGEST_NONE}}), KM_ERROR_UNSUPPORTED_DIGEST},
      {kHmac + Ps{{KM_TAG_DIGEST, KM_DIGEST_SHA1}}, KM_ERROR_UNSUPPORTED_DIGEST},
      {With(kHmac, {{KM_TAG_KEY_SIZE, 56}}), KM_ERROR_UNSUPPORTED_KEY_SIZE},
      {With(kHmac, {{KM_TAG_KEY_SIZE, 520}}), KM_ERROR_UNSUPPORTED_KEY_SIZE},
      {With(kEc, {{KM_TAG_EC_CURVE, 4}}), KM_ERROR_UNSUPPORTED_EC_CURVE},
      {kEc + Ps{{KM_TAG_KEY_SIZE, 384}}, KM_ERROR_INVALID_ARGUMENT},
      {With(kRsa, {{KM_TAG_KEY_SIZE, 504}}), KM_ERROR_UNSUPPORTED_KEY_SIZE},
      {With(kRsa, {{KM_TAG_KEY_SIZE, 4104}}), KM_ERROR_UNSUPPORTED_KEY_SIZE},
      {With(kRsa, {{KM_TAG_RSA_PUBLIC_EXPONENT, 65536}}), KM_ERROR_INVALID_ARGUMENT},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(ta.Generate(row.description), Km(row.error)) << &row - rows;
  }
  EXPECT_EQ(ta.Import(kAes, Str(32, 'k')), Km(KM_ERROR_IMPORT_PARAMETER_MISMATCH));
  EXPECT_EQ(ta.Import(kAes, Str(16, 'k'), 3), Km(KM_ERROR_INVALID_ARGUMENT));
  EXPECT_EQ(ta.Import(kEc, Le(192, 4) + Str(16, 0)), Km(KM_ERROR_UNSUPPORTED_EC_CURVE));
  // A point that is not on the curve.
  const Str lengths = Le(32, 4) + Le(32, 4) + Le(32, 4);
  EXPECT_EQ(ta.Import(kEc, Le(256, 4) + Le(4, 4) + lengths + Str(96, 'x')),
            Km(KM_ERROR_INVALID_ARGUMENT));
}

TEST_F(TaTest, RefusesUsesThatTheKeyDoesNotAllow) {
  const Ps gcm = {{KM_TAG_BLOCK_MODE, KM_MODE_GCM}, {KM_TAG_PADDING, KM_PAD_NONE}};
  const Ps sha256 = {{KM_TAG_DIGEST, KM_DIGEST_SHA_2_256}};
  const Ps rsa_sign = kRsa + Ps{{KM_TAG_PURPOSE, KM_PURPOSE_SIGN},
                                {KM_TAG_PADDING, KM_PAD_RSA_PKCS1_1_5_SIGN},
                                {KM_TAG_PADDING, KM_PAD_NONE}};
  const Ps rsa_wrap =
      kRsa + Ps{{KM_TAG_PURPOSE, KM_PURPOSE_WRAP_KEY}, {KM_TAG_PADDING, KM_PAD_RSA_OAEP}};
  const Ps oaep = {{KM_TAG_PADDING, KM_PAD_RSA_OAEP}, {KM_TAG_DIGEST, KM_DIGEST_SHA1}};
  const struct {
    Ps description;
    uint32_t purpose;
    Ps params;
    keymaster_error_t error;
  } rows[] = {
      {kAes, KM_PURPOSE_ENCRYPT, kEcb, KM_ERROR_OK},
      {kAes, KM_PURPOSE_DECRYPT, kEcb, KM_ERROR_INCOMPATIBLE_PURPOSE},
      {kAes, KM_PURPOSE_SIGN, kEcb, KM_ERROR_UNSUPPORTED_PURPOSE},
      {kAes, 99, kEcb, KM_ERROR_UNSUPPORTED_PURPOSE},
      {kAes, KM_PURPOSE_ENCRYPT, {}, KM_ERROR_UNSUPPORTED_BLOCK_MODE},
      {kAes, KM_PURPOSE_ENCRYPT, With(kEcb, {{KM_TAG_BLOCK_MODE, KM_MODE_CBC}}),
       KM_ERROR_INCOMPATIBLE_BLOCK_MODE},
      {kAes, KM_PURPOSE_ENCRYPT, With(kEcb, {{KM_TAG_PADDING, KM_PAD_PKCS7}}),
       KM_ERROR_INCOMPATIBLE_PADDING_MODE},
      {kGcm, KM_PURPOSE_ENCRYPT, gcm + Ps{{KM_TAG_MAC_LENGTH, 104}}, KM_ERROR_OK},
      {kGcm, KM_PURPOSE_ENCRYPT, gcm, KM_ERROR_MISSING_MAC_LENGTH},
      {kGcm, KM_PURPOSE_ENCRYPT, gcm + Ps{{KM_TAG_MAC_LENGTH, 96}}, KM_ERROR_INVALID_MAC_LENGTH},
      {kGcm, KM_PURPOSE_ENCRYPT, gcm + Ps{{KM_TAG_MAC_LENGTH, 136}},
       KM_ERROR_UNSUPPORTED_MAC_LENGTH},
      {kGcm, KM_PURPOSE_ENCRYPT, gcm + Ps{{KM_TAG_MAC_LENGTH, 128}, {KM_TAG_NONCE, Str(12, 'n')}},
       KM_ERROR_CALLER_NONCE_PROHIBITED},
      {kGcm + Ps{{KM_TAG_CALLER_NONCE, 1}}, KM_PURPOSE_ENCRYPT,
       gcm + Ps{{KM_TAG_MAC_LENGTH, 128}, {KM_TAG_NONCE, Str(13, 'n')}}, KM_ERROR_INVALID_NONCE},
      {With(kGcm, {{KM_TAG_PURPOSE, KM_PURPOSE_DECRYPT}}), KM_PURPOSE_DECRYPT,
       gcm + Ps{{KM_TAG_MAC_LENGTH, 128}}, KM_ERROR_MISSING_NONCE},
      {kHmac, KM_PURPOSE_SIGN, {}, KM_ERROR_MISSING_MAC_LENGTH},
      {kHmac, KM_PURPOSE_SIGN, {{KM_TAG_MAC_LENGTH, 120}}, KM_ERROR_INVALID_MAC_LENGTH},
      {kHmac, KM_PURPOSE_SIGN, {{KM_TAG_MAC_LENGTH, 264}}, KM_ERROR_UNSUPPORTED_MAC_LENGTH},
      {kEc, KM_PURPOSE_SIGN, {}, KM_ERROR_UNSUPPORTED_DIGEST},
      {kEc, KM_PURPOSE_SIGN, {{KM_TAG_DIGEST, KM_DIGEST_NONE}}, KM_ERROR_INCOMPATIBLE_DIGEST},
      {rsa_sign,
       KM_PURPOSE_SIGN,
       {{KM_TAG_DIGEST, KM_DIGEST_SHA1}, {KM_TAG_PADDING, KM_PAD_NONE}},
       KM_ERROR_INCOMPATIBLE_DIGEST},
      {rsa_sign,
       KM_PURPOSE_SIGN,
       {{KM_TAG_DIGEST, KM_DIGEST_SHA_2_384}, {KM_TAG_PADDING, KM_PAD_RSA_PKCS1_1_5_SIGN}},
       KM_ERROR_INCOMPATIBLE_DIGEST},
      {rsa_wrap, KM_PURPOSE_DECRYPT, oaep, KM_ERROR_OK},
      {rsa_wrap + Ps{{KM_TAG_PADDING, KM_PAD_NONE}},
       KM_PURPOSE_DECRYPT,
       {{KM_TAG_PADDING, KM_PAD_NONE}},
       KM_ERROR_INCOMPATIBLE_PURPOSE},
      {kAes + Ps{{KM_TAG_ACTIVE_DATETIME, kFuture}}, KM_PURPOSE_ENCRYPT, kEcb,
       KM_ERROR_KEY_NOT_YET_VALID},
      {kAes + Ps{{KM_TAG_ORIGINATION_EXPIRE_DATETIME, kPast}}, KM_PURPOSE_ENCRYPT, kEcb,
       KM_ERROR_KEY_EXPIRED},
      {kAes + Ps{{KM_TAG_USAGE_EXPIRE_DATETIME, kPast}}, KM_PURPOSE_ENCRYPT, kEcb, KM_ERROR_OK},
      {kAes + Ps{{KM_TAG_BOOTLOADER_ONLY, 1}}, KM_PURPOSE_ENCRYPT, kEcb, KM_ERROR_INVALID_KEY_BLOB},
      {kAes + Ps{{KM_TAG_MAX_USES_PER_BOOT, 0}}, KM_PURPOSE_ENCRYPT, kEcb,
       KM_ERROR_KEY_MAX_OPS_EXCEEDED},
      {kAes + Ps{{KM_TAG_USER_SECURE_ID, 7}, {KM_TAG_AUTH_TIMEOUT, 60}}, KM_PURPOSE_ENCRYPT, kEcb,
       KM_ERROR_KEY_USER_NOT_AUTHENTICATED},
      // Anybody may check a signature.
      {With(kEc, {{KM_TAG_PURPOSE, KM_PURPOSE_VERIFY}}) + Ps{{KM_TAG_USER_SECURE_ID, 7},
                                                             {KM_TAG_AUTH_TIMEOUT, 60},
                                                             {KM_TAG_ACTIVE_DATETIME, kFuture}},
       KM_PURPOSE_VERIFY, sha256, KM_ERROR_OK},
  };
  for (const auto& row : rows) {
    ASSERT_EQ(ta.Generate(row.description), 0u) << &row - rows;
    EXPECT_EQ(ta.Begin(row.purpose, row.params), Km(row.error)) << &row - rows;
    if (row.error == KM_ERROR_OK) {
      EXPECT_EQ(ta.Run(kCmdAbort, In(Le(ta.handle, 8))), 0u);
    }
  }
}

TEST_F(TaTest, CountsUsesAcrossSessions) {
  for (const P& limit : {P(KM_TAG_MAX_USES_PER_BOOT, 1), P(KM_TAG_MIN_SECONDS_BETWEEN_OPS, 3600)}) {
    ASSERT_EQ(ta.Generate(kAes + Ps{limit}), 0u);
    EXPECT_EQ(ta.Operate(KM_PURPOSE_ENCRYPT, kEcb, Str(16, 'p'), 16), 0u);
    Ta other;
    other.blob = ta.blob;
    EXPECT_EQ(other.Begin(KM_PURPOSE_ENCRYPT, kEcb),
              Km(limit.tag == KM_TAG_MAX_USES_PER_BOOT ? KM_ERROR_KEY_MAX_OPS_EXCEEDED
                                                       : KM_ERROR_KEY_RATE_LIMIT_EXCEEDED));
  }
}

Str Token(uint64_t challenge, uint64_t user) {
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  const uint64_t millis = static_cast<uint64_t>(now.tv_sec * 1000 + now.tv_nsec / 1000000);
  const Str little = Le(millis, 8);
  const Str signed_part = Str(1, 0) + Le(challenge, 8) + Le(user, 8) + Le(0, 8) + Hex("00000001") +
                          Str(little.rbegin(), little.rend());
  const ta::Bytes mac = ta::SharedHmac(
      ta::ByteView(reinterpret_cast<const uint8_t*>(signed_part.data()), signed_part.size()));
  return signed_part + Str(mac.begin(), mac.end());
}

TEST_F(TaTest, WantsTheUsersTokenForEachOperation) {
  ASSERT_EQ(ta.Generate(kAes + Ps{{KM_TAG_USER_SECURE_ID, 7}, {KM_TAG_USER_AUTH_TYPE, 1}}), 0u);
  const Str data(16, 'p');
  const struct {
    uint64_t challenge_offset, user;
    uint32_t result;
  } rows[] = {{0, 7, 0},
              {0, 8, Km(KM_ERROR_KEY_USER_NOT_AUTHENTICATED)},
              {1, 7, Km(KM_ERROR_KEY_USER_NOT_AUTHENTICATED)}};
  for (const auto& row : rows) {
    ASSERT_EQ(ta.Begin(KM_PURPOSE_ENCRYPT, kEcb), 0u);
    const Ps token = {{KM_TAG_AUTH_TOKEN, Token(ta.handle + row.challenge_offset, row.user)}};
    EXPECT_EQ(ta.Update(data, token), row.result);
    // A failed update has ended the operation; a good one does not make up for the finish.
    EXPECT_EQ(ta.Finish(), row.result == 0 ? Km(KM_ERROR_KEY_USER_NOT_AUTHENTICATED)
                                           : Km(KM_ERROR_INVALID_OPERATION_HANDLE));
  }
  ASSERT_EQ(ta.Generate(kAes + Ps{{KM_TAG_USER_SECURE_ID, 7}, {KM_TAG_AUTH_TIMEOUT, 60}}), 0u);
  EXPECT_EQ(ta.Begin(KM_PURPOSE_ENCRYPT, kEcb + Ps{{KM_TAG_AUTH_TOKEN, Token(0, 7)}}), 0u);
  EXPECT_EQ(ta.Finish(data), 0u);
}

TEST_F(TaTest, BlobsOpenForTheirOwnersOnly) {
  const Ps owner = {{KM_TAG_APPLICATION_ID, "app"}, {KM_TAG_APPLICATION_DATA, "data"}};
  ASSERT_EQ(ta.Generate(kAes + owner + Ps{{KM_TAG_USER_ID, 5}}), 0u);
  const auto open = [this](const Str& blob, const Ps& who) {
    return ta.Run(kCmdGetKeyCharacteristics, In(blob), In(Wire(who)), Out(4096));
  };
  ASSERT_EQ(open(ta.blob, owner), 0u);
  const Str lists = ta.slots[2].out;
  const size_t hardware = UnLe(lists, 0, 4);
  const Str split[] = {lists.substr(4, 16 * hardware), lists.substr(8 + 16 * hardware)};
  const auto holds = [](const Str& list, int64_t tag, uint64_t value) {
    return list.find(Le(static_cast<uint64_t>(tag), 4) + Le(0, 4) + Le(value, 8)) != Str::npos;
  };
  EXPECT_TRUE(holds(split[0], KM_TAG_ORIGIN, KM_ORIGIN_GENERATED));
  EXPECT_TRUE(holds(split[0], KM_TAG_OS_PATCHLEVEL, kPatchlevel));
  EXPECT_TRUE(holds(split[0], KM_TAG_KEY_SIZE, 128));
  EXPECT_TRUE(holds(split[1], KM_TAG_USER_ID, 5));
  EXPECT_EQ(lists.find("app"), Str::npos);
  const Ps strangers[] = {{},
                          {owner[0]},
                          {owner[0], {KM_TAG_APPLICATION_DATA, "dat"}},
                          {{KM_TAG_APPLICATION_ID, "appd"}, {KM_TAG_APPLICATION_DATA, "ata"}}};
  for (const Ps& stranger : strangers) {
    EXPECT_EQ(open(ta.blob, stranger), Km(KM_ERROR_INVALID_KEY_BLOB));
  }
  for (size_t i = 0; i < ta.blob.size(); ++i) {
    Str bad = ta.blob;
    bad[i] = static_cast<char>(bad[i] ^ 0x10);
    EXPECT_EQ(open(bad, owner), Km(KM_ERROR_INVALID_KEY_BLOB)) << i;
    EXPECT_EQ(open(ta.blob.substr(0, i), owner), Km(KM_ERROR_INVALID_KEY_BLOB)) << i;
    EXPECT_EQ(ta.Run(kCmdDeleteKey, In(bad)), Km(KM_ERROR_INVALID_KEY_BLOB)) << i;
  }
  EXPECT_EQ(ta.Run(kCmdDeleteKey, In(ta.blob)), 0u);
  EXPECT_EQ(open(ta.blob, owner), Km(KM_ERROR_INVALID_KEY_BLOB));
}

TEST_F(TaTest, KeysFollowTheSystemVersionUpwardsOnly) {
  ASSERT_EQ(ta.Import(kAes, Str(16, 'k'), 2), 0u);
  const Str old = ta.blob;
  const auto upgrade = [this](const Str& blob) {
    return ta.Run(kCmdUpgrade, In(blob), In(Wire({})), Out(4096));
  };
  EXPECT_EQ(upgrade(old), 0u);
  EXPECT_EQ(ta.slots[2].out, "");
  ASSERT_EQ(ta.Configure(kOsVersion, kPatchlevel + 1), 0u);
  EXPECT_EQ(ta.Begin(KM_PURPOSE_ENCRYPT, kEcb), Km(KM_ERROR_KEY_REQUIRES_UPGRADE));
  ASSERT_EQ(upgrade(old), 0u);
  ta.blob = ta.slots[2].out;
  EXPECT_EQ(ta.Operate(KM_PURPOSE_ENCRYPT, kEcb, Str(16, 'p'), 16), 0u);
  ASSERT_EQ(ta.Configure(kOsVersion, kPatchlevel), 0u);
  EXPECT_EQ(ta.Begin(KM_PURPOSE_ENCRYPT, kEcb), Km(KM_ERROR_INVALID_KEY_BLOB));
  EXPECT_EQ(upgrade(ta.blob), Km(KM_ERROR_INVALID_ARGUMENT));
  // A deletion reaches the blobs of both versions.
  EXPECT_EQ(ta.Run(kCmdDeleteKey, In(ta.blob)), 0u);
  EXPECT_EQ(upgrade(old), Km(KM_ERROR_INVALID_KEY_BLOB));
}

TEST_F(TaTest, HoldsABoundedNumberOfOperations) {
  ASSERT_EQ(ta.Generate(kAes), 0u);
  std::vector<uint64_t> handles;
  while (ta.Begin(KM_PURPOSE_ENCRYPT, kEcb) == 0 && handles.size() < 100) {
    EXPECT_NE(ta.handle, 0u);
    handles.push_back(ta.handle);
  }
  EXPECT_EQ(ta.Begin(KM_PURPOSE_ENCRYPT, kEcb), Km(KM_ERROR_TOO_MANY_OPERATIONS));
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
  ASSERT_EQ(ta.Begin(KM_PURPOSE_ENCRYPT, kEcb), 0u);
  std::atomic<int> finished{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      Ta own;
      own.handle = ta.handle;
      while (own.Update(Str(16, 'p')) == 0 && own.output.size() < 320) {
      }
      if (own.Finish() == 0) ++finished;
      EXPECT_EQ(own.Generate(kEc), 0u);
      const Ps sha256 = {{KM_TAG_DIGEST, KM_DIGEST_SHA_2_256}};
      EXPECT_EQ(own.Operate(KM_PURPOSE_SIGN, sha256, "data", 4), 0u);
      EXPECT_EQ(own.Run(kCmdDeleteKey, In(own.blob)), 0u);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(finished, 1);
}

TEST_F(TaTest, SurvivesRequestsCutShortAndTypesOfAnyKind) {
  const Str request = Wire(kAes + Ps{{KM_TAG_APPLICATION_ID, "id"}});
  for (size_t size = 0; size < request.size(); ++size) {
    EXPECT_EQ(ta.Run(kCmdGenerateKey, In(request.substr(0, size)), {}, Out(4096), Out(4096)),
              Km(KM_ERROR_INVALID_ARGUMENT))
        << size;
  }
  ASSERT_EQ(ta.Generate(kAes), 0u);
  const Str finish = Str(1, 0) + Le(16, 4) + Str(16, 'p') + Str(1, 1) + Le(0, 4);
  for (size_t size = 1; size <= finish.size(); ++size) {
    ASSERT_EQ(ta.Begin(KM_PURPOSE_ENCRYPT, kEcb), 0u);
    EXPECT_EQ(
        ta.Run(kCmdFinish, {}, In(finish.substr(0, size)), InOut(Le(ta.handle, 8)), Out(4096)),
        size == finish.size() ? 0u : Km(KM_ERROR_INVALID_ARGUMENT));
  }
  for (const uint32_t command : {2u, 3u, 4u, 5u, 7u, 8u, 9u, 10u, 11u, 31u}) {
    for (uint32_t types = 0; types < 0x8000; ++types) {
      TaParam params[4];
      EXPECT_NE(kKeymasterTrustedApp.invoke(ta.session, command, types, params), 0u);
    }
  }
  EXPECT_EQ(ta.Run(12), TEEC_ERROR_NOT_SUPPORTED);
  EXPECT_EQ(ta.Run(kCmdGenerateKey, In(request), {}, Out(20), {}), TEEC_ERROR_SHORT_BUFFER);
}

TEST_F(TaTest, TellsWhereItFailedLast) {
  Ta fresh;
  ASSERT_EQ(fresh.Run(kCmdGetErrorRecord, Out(1024)), 0u);
  EXPECT_EQ(fresh.slots[0].out, Str(12, 0));
  ASSERT_NE(fresh.Generate(With(kAes, {{KM_TAG_KEY_SIZE, 1}})), 0u);
  ASSERT_EQ(fresh.Run(kCmdGetErrorRecord, Out(1024)), 0u);
  const Str& record = fresh.slots[0].out;
  EXPECT_EQ(UnLe(record, 0, 4), Km(KM_ERROR_UNSUPPORTED_KEY_SIZE));
  EXPECT_GT(UnLe(record, 4, 4), 0u);
  EXPECT_EQ(record.substr(12), "CheckKeySize");
  EXPECT_EQ(UnLe(record, 8, 4), record.size() - 12);
}

}  // namespace
