// What the TA refuses: keys that cannot be, uses that a key does not allow, blobs and requests that
// are not what they claim.
#include <unistd.h>

#include <atomic>
#include <thread>

#include "ta/device_state.h"
#include "ta/hmac_sharing.h"
#include "tests/ta/ta_client.h"

namespace {

constexpr uint64_t kFuture = 4102444800000;  // the year 2100, in milliseconds
const P kMac104 = {KM_TAG_MAC_LENGTH, 104}, k128 = {KM_TAG_KEY_SIZE, 128};
const Ps kEcb = {{KM_TAG_BLOCK_MODE, KM_MODE_ECB}, kNoPadding};
const Ps kGcmMode = {{KM_TAG_BLOCK_MODE, KM_MODE_GCM}, kNoPadding};
const Ps kAes = Key(KM_ALGORITHM_AES, kEncrypt, kEcb + k128);
const Ps kGcm = Key(KM_ALGORITHM_AES, kEncrypt, kGcmMode + k128 + P(KM_TAG_MIN_MAC_LENGTH, 104));
const Ps kHmac = Key(KM_ALGORITHM_HMAC, kSign, {k128, kSha256, {KM_TAG_MIN_MAC_LENGTH, 128}});
const Ps kEc = Key(KM_ALGORITHM_EC, kSign, {{KM_TAG_EC_CURVE, KM_EC_CURVE_P_256}, kSha256});
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

TEST_F(TaTest, RefusesKeysThatCannotBe) {
  const struct {
    const Ps& base;
    P change;
    keymaster_error_t error;
  } rows[] = {
      {{}, {KM_TAG_KEY_SIZE, 128}, KM_ERROR_UNSUPPORTED_ALGORITHM},
      {kAes, {KM_TAG_ALGORITHM, 2}, KM_ERROR_UNSUPPORTED_ALGORITHM},
      {kAes, {KM_TAG_KEY_SIZE, 129}, KM_ERROR_UNSUPPORTED_KEY_SIZE},
      {kAes, {KM_TAG_KEY_SIZE, 512}, KM_ERROR_UNSUPPORTED_KEY_SIZE},
      {kAes, {KM_TAG_PURPOSE, kSign}, KM_ERROR_UNSUPPORTED_PURPOSE},
      {kAes, {KM_TAG_PADDING, KM_PAD_RSA_PSS}, KM_ERROR_UNSUPPORTED_PADDING_MODE},
      {kAes, {KM_TAG_BLOCK_MODE, 9}, KM_ERROR_UNSUPPORTED_BLOCK_MODE},
      {kAes, {KM_TAG_BLOCK_MODE, KM_MODE_GCM}, KM_ERROR_MISSING_MIN_MAC_LENGTH},
      {kGcm, {KM_TAG_MIN_MAC_LENGTH, 88}, KM_ERROR_UNSUPPORTED_MIN_MAC_LENGTH},
      {kHmac, {KM_TAG_MIN_MAC_LENGTH, 264}, KM_ERROR_UNSUPPORTED_MIN_MAC_LENGTH},
      {kHmac, {KM_TAG_MIN_MAC_LENGTH, 129}, KM_ERROR_UNSUPPORTED_MIN_MAC_LENGTH},
      {kHmac, {KM_TAG_DIGEST, KM_DIGEST_NONE}, KM_ERROR_UNSUPPORTED_DIGEST},
      {kHmac, {KM_TAG_KEY_SIZE, 56}, KM_ERROR_UNSUPPORTED_KEY_SIZE},
      {kHmac, {KM_TAG_KEY_SIZE, 520}, KM_ERROR_UNSUPPORTED_KEY_SIZE},
      {kEc, {KM_TAG_EC_CURVE, 4}, KM_ERROR_UNSUPPORTED_EC_CURVE},
      {kEc, {KM_TAG_KEY_SIZE, 384}, KM_ERROR_INVALID_ARGUMENT},
      {kRsaSign, {KM_TAG_KEY_SIZE, 504}, KM_ERROR_UNSUPPORTED_KEY_SIZE},
      {kRsaSign, {KM_TAG_KEY_SIZE, 4104}, KM_ERROR_UNSUPPORTED_KEY_SIZE},
      {kRsaSign, {KM_TAG_RSA_PUBLIC_EXPONENT, 65536}, KM_ERROR_INVALID_ARGUMENT},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(ta.Generate(With(row.base, row.change)), Km(row.error)) << &row - rows;
  }
  EXPECT_EQ(ta.Generate(kHmac + kSha1), Km(KM_ERROR_UNSUPPORTED_DIGEST));
  // For a user, and for anybody.
  EXPECT_EQ(ta.Generate(kAes + P(KM_TAG_USER_SECURE_ID, 7) + P(KM_TAG_NO_AUTH_REQUIRED, 1)),
            Km(KM_ERROR_INVALID_ARGUMENT));
  EXPECT_EQ(ta.Import(kAes, Str(32, 'k')), Km(KM_ERROR_IMPORT_PARAMETER_MISMATCH));
  for (const char type : {char{0}, char{3}}) {
    EXPECT_EQ(ta.Import(kAes, Str(16, 'k'), type), Km(KM_ERROR_INVALID_ARGUMENT));
  }
  EXPECT_EQ(ta.Import(kEc, Le(192, 4) + Str(16, 0)), Km(KM_ERROR_UNSUPPORTED_EC_CURVE));
  // A point that is not on the curve.
  const Str lengths = Le(32, 4) + Le(32, 4) + Le(32, 4);
  EXPECT_EQ(ta.Import(kEc, Le(256, 4) + Le(4, 4) + lengths + Str(96, 'x')),
            Km(KM_ERROR_INVALID_ARGUMENT));
}

TEST_F(TaTest, RefusesUsesThatTheKeyDoesNotAllow) {
  const P mac128 = {KM_TAG_MAC_LENGTH, 128}, user = {KM_TAG_USER_SECURE_ID, 7};
  const Ps long_nonce = kGcmMode + mac128 + P(KM_TAG_NONCE, Str(13, 'n'));
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
      {kAes, kEncrypt, With(kEcb, {KM_TAG_PADDING, 64}), KM_ERROR_INCOMPATIBLE_PADDING_MODE},
      {kGcm, kEncrypt, kGcmMode + kMac104, KM_ERROR_OK},
      {kGcm, kEncrypt, kGcmMode, KM_ERROR_MISSING_MAC_LENGTH},
      {kGcm, kEncrypt, kGcmMode + P(KM_TAG_MAC_LENGTH, 96), KM_ERROR_INVALID_MAC_LENGTH},
      {kGcm, kEncrypt, kGcmMode + P(KM_TAG_MAC_LENGTH, 136), KM_ERROR_UNSUPPORTED_MAC_LENGTH},
      {kGcm + P(KM_TAG_CALLER_NONCE, 1), kEncrypt, long_nonce, KM_ERROR_INVALID_NONCE},
      {kGcm + P(KM_TAG_PURPOSE, 1), kDecrypt, kGcmMode + mac128, KM_ERROR_MISSING_NONCE},
      {kHmac, kSign, {}, KM_ERROR_MISSING_MAC_LENGTH},
      {kHmac, kSign, {{KM_TAG_MAC_LENGTH, 264}}, KM_ERROR_UNSUPPORTED_MAC_LENGTH},
      {kEc, kSign, {}, KM_ERROR_UNSUPPORTED_DIGEST},
      {kEc, kSign, {{KM_TAG_DIGEST, KM_DIGEST_NONE}}, KM_ERROR_INCOMPATIBLE_DIGEST},
      {kRsaSign, kSign, {kSha1, kNoPadding}, KM_ERROR_INCOMPATIBLE_DIGEST},
      {kRsaSign, kSign, {{KM_TAG_DIGEST, 5}, kPkcs1}, KM_ERROR_INCOMPATIBLE_DIGEST},
      {kRsaWrap, kDecrypt, kOaep, KM_ERROR_OK},
      {kRsaWrap, kDecrypt, {kNoPadding}, KM_ERROR_INCOMPATIBLE_PURPOSE},
      {kAes + P(KM_TAG_USAGE_EXPIRE_DATETIME, 1), kEncrypt, kEcb, KM_ERROR_OK},
      {kAes + P(KM_TAG_BOOTLOADER_ONLY, 1), kEncrypt, kEcb, KM_ERROR_INVALID_KEY_BLOB},
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
  // Uses are counted across sessions.
  ASSERT_EQ(ta.Generate(kAes + P(KM_TAG_MIN_SECONDS_BETWEEN_OPS, 3600)), 0u);
  EXPECT_EQ(ta.Operate(kEncrypt, kEcb, Str(16, 'p'), 16), 0u);
  Ta other;
  other.blob = ta.blob;
  EXPECT_EQ(other.Begin(kEncrypt, kEcb), Km(KM_ERROR_KEY_RATE_LIMIT_EXCEEDED));
  ASSERT_EQ(ta.Generate(kAes + P(KM_TAG_MIN_SECONDS_BETWEEN_OPS, 1)), 0u);
  const uint64_t before = ta::MillisSinceBoot();
  EXPECT_EQ(ta.Operate(kEncrypt, kEcb, Str(16, 'p'), 16), 0u);
  while (ta.Begin(kEncrypt, kEcb) != 0) {
    usleep(1000);
  }
  EXPECT_GE(ta::MillisSinceBoot() - before, 1000u);
  EXPECT_EQ(ta.Run(kCmdAbort, In(Le(ta.handle, 8))), 0u);
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
  const P id = {KM_TAG_APPLICATION_ID, "app"};
  const Ps owner = {id, {KM_TAG_APPLICATION_DATA, "data"}};
  ASSERT_EQ(ta.Generate(kAes + owner + P(KM_TAG_USER_ID, 5)), 0u);
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
  for (const uint32_t command : {2u, 3u, 4u, 5u, 7u, 8u, 9u, 10u, 11u, 31u}) {
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
  EXPECT_EQ(ta.Run(12), TEEC_ERROR_NOT_SUPPORTED);
  EXPECT_EQ(ta.Run(kCmdGenerateKey, In(request), {}, Out(20), {}), TEEC_ERROR_SHORT_BUFFER);
}

}  // namespace
