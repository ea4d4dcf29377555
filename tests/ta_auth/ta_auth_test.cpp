// Attestation, authorization, device state and HMAC sharing, through the TA's entry points.
#include <openssl/x509v3.h>

#include <filesystem>
#include <fstream>

#include "ta/auth.h"
#include "ta/evp.h"
#include "tests/ta/ta_client.h"

namespace {

const uint8_t* Raw(const Str& bytes) { return reinterpret_cast<const uint8_t*>(bytes.data()); }

// The MAC that the instance selected last makes and takes.
Str Mac(const Str& message) {
  const ta::SecureBytes mac = ta::SharedHmac({Raw(message), message.size()});
  return Str(mac.begin(), mac.end());
}
// A token of user 5 by password.
Str Token(uint64_t timestamp) {
  const Str head = TokenHead(77, 5, 1, timestamp);
  return head + Mac(head);
}

constexpr uint32_t kShort = TEEC_ERROR_SHORT_BUFFER, kPassword = HW_AUTH_PASSWORD,
                   kFingerprint = HW_AUTH_FINGERPRINT;
const Ps kEcb = {{KM_TAG_BLOCK_MODE, KM_MODE_ECB}, kNoPadding};
const Ps kAes = Key(KM_ALGORITHM_AES, kEncrypt, kEcb + P(KM_TAG_KEY_SIZE, 128));

struct Keymaster : Instance {
  Str SharingParameters() {
    Select();
    EXPECT_EQ(Run(kCmdGetHmacSharingParameters, Out(32), Out(32)), 0u);
    return slots[0].out + slots[1].out;
  }
  uint32_t Verify(const Str& auth, const Ps& params = {}) {
    Select();
    return Run(kCmdVerifyAuthorization, In(Wire(params)), In(Le(0xABCDEF, 8) + auth), InOut({}),
               Out(4096));
  }
  uint32_t Attest(const Ps& description, const Ps& request, uint32_t room) {
    EXPECT_EQ(Generate(description), 0u);
    return Run(kCmdAttestKey, In(blob), In(Wire(request)), Out(room));
  }
};

TEST(HmacSharing, StrangersAreRefusedAndTheKeyChanges) {
  Keymaster a, b;
  const Str own = a.SharingParameters(), all = own + b.SharingParameters();
  const Str strangers = Token(0);
  a.Select();
  const Str alone = Token(0);
  for (const Str& bad : {Str(), all.substr(64), all.substr(0, 127), Flipped(all, 0)}) {
    EXPECT_EQ(a.Run(kCmdComputeSharedHmac, In(bad), Out(32)), Km(KM_ERROR_INVALID_ARGUMENT));
  }
  for (const uint32_t room : {31u, 33u}) {
    EXPECT_EQ(a.Run(kCmdGetHmacSharingParameters, Out(room), Out(64 - room)), kShort);
  }
  EXPECT_EQ(a.Verify(strangers), Km(KM_ERROR_VERIFICATION_FAILED));
  EXPECT_EQ(a.Verify(alone), 0u);
  // An agreement with nobody else changes nothing.
  EXPECT_EQ(a.Run(kCmdComputeSharedHmac, In(own), Out(32)), 0u);
  EXPECT_EQ(a.Verify(alone), 0u);
  EXPECT_EQ(a.Run(kCmdComputeSharedHmac, In(all), Out(32)), 0u);
  EXPECT_EQ(a.slots[1].out, Mac("Keymaster HMAC Verification"));
  EXPECT_EQ(a.Verify(Token(0)), 0u);
  EXPECT_EQ(a.Verify(alone), Km(KM_ERROR_VERIFICATION_FAILED));
}

TEST(Authorization, ChecksEveryByteAndParameterAndSignsTheReply) {
  Keymaster instance;
  const Str good = Token(0);
  for (size_t i = 0; i < good.size(); ++i) {
    EXPECT_NE(instance.Verify(Flipped(good, i)), 0u) << i;
  }
  const Str later = Str(1, 1) + good.substr(1, 36);  // of another version, signed as it should be
  for (const Str& odd : {Str(), good.substr(0, 68), good + good, later + Mac(later)}) {
    EXPECT_EQ(instance.Verify(odd), Km(KM_ERROR_VERIFICATION_FAILED));
  }
  const struct {
    Ps params;
    uint64_t age;           // milliseconds, of a token of user 5 by password
    const char* signed_as;  // DER; null for a refusal
  } rows[] = {
      {{{KM_TAG_MAX_USES_PER_BOOT, 1}}, 0, ""},
      {{{KM_TAG_AUTH_TIMEOUT, 10}}, 9000, "3007BF83790302010A"},
      {{{KM_TAG_AUTH_TIMEOUT, 10}}, 10001, nullptr},
      {{{KM_TAG_USER_SECURE_ID, 6}, {KM_TAG_USER_SECURE_ID, 5}}, 0, "300CBF8376083106020105020106"},
      {{{KM_TAG_USER_SECURE_ID, 0x99}}, 0, "300ABF837606310402020099"},
      {{{KM_TAG_USER_SECURE_ID, 6}}, 0, nullptr},
      {{{KM_TAG_USER_AUTH_TYPE, HW_AUTH_FINGERPRINT}}, 0, nullptr},
      {{{KM_TAG_USER_AUTH_TYPE, 3}}, 0, "3007BF837803020103"},
  };
  for (const auto& row : rows) {
    const uint64_t before = ta::MillisSinceBoot();
    const uint32_t result = instance.Verify(Token(before - row.age), row.params);
    ASSERT_EQ(result, row.signed_as != nullptr ? 0u : Km(KM_ERROR_VERIFICATION_FAILED));
    if (row.signed_as == nullptr) continue;
    const Str verified = instance.slots[2].out, token = instance.slots[3].out;
    EXPECT_EQ(verified.size(), 4 + (*row.signed_as != 0 ? 16 * row.params.size() : 0));
    const uint64_t time = UnLe(token, 8, 8);
    EXPECT_TRUE(before <= time && time <= ta::MillisSinceBoot());
    const Str mac =
        Mac("Auth Verification" + Be(0xABCDEF, 8) + Be(time, 8) + Be(1, 4) + Hex(row.signed_as));
    EXPECT_EQ(token, Le(0xABCDEF, 8) + Le(time, 8) + Le(0, 8) + Le(1, 8) + mac);
  }
}

TEST(Authorization, ReadsATokensTypeInEitherOrder) {
  Keymaster instance;
  for (const uint32_t type : {kPassword, kFingerprint}) {
    for (const Str& bytes : {Le(type, 4), Be(type, 4)}) {
      const Str head = TokenHead(77, 5, 0, 0).replace(25, 4, bytes);
      for (const uint32_t wanted : {kPassword, kFingerprint}) {
        EXPECT_EQ(instance.Verify(head + Mac(head), {{KM_TAG_USER_AUTH_TYPE, wanted}}),
                  wanted == type ? 0u : Km(KM_ERROR_VERIFICATION_FAILED));
      }
    }
  }
}

TEST(DeviceState, YieldsToTheRightTokenAndEndsWithTheBoot) {
  Keymaster instance;
  const Str own = instance.SharingParameters();
  const struct {
    uint32_t password_only;
    uint64_t after_lock;  // milliseconds
    uint32_t type;
    bool unlocks;
  } rows[] = {
      {0, 1, 2, true}, {0, 0, 2, false}, {1, 1, 2, false}, {1, 1, 3, true}, {1, 0, 1, false}};
  for (const auto& row : rows) {
    const Slot lock = {TEEC_VALUE_INPUT, {}, 0, row.password_only, 0, {}};
    EXPECT_EQ(instance.Run(kCmdDeviceLocked, lock), 0u);
    EXPECT_FALSE(ta::DeviceUnlockedFor(nullptr));
    ta::AuthToken token;
    token.authenticator_type = row.type;
    token.timestamp = ta::UpdateBootState().locked_at + row.after_lock;
    EXPECT_EQ(ta::DeviceUnlockedFor(&token), row.unlocks);
    EXPECT_EQ(ta::DeviceUnlockedFor(nullptr), row.unlocks);
  }
  EXPECT_FALSE(ta::EarlyBootHasEnded());
  EXPECT_EQ(instance.Run(kCmdEarlyBootEnded), 0u);
  EXPECT_TRUE(ta::EarlyBootHasEnded());
  const Str file = instance.folder + "/boot_state", kept = file + ".kept";
  // What cannot be read is no fresh start: it keeps everything locked.
  std::filesystem::copy_file(file, kept);
  std::filesystem::resize_file(file, std::filesystem::file_size(file) - 1);
  EXPECT_NE(instance.Run(kCmdEarlyBootEnded), 0u);
  std::filesystem::remove(file);
  std::filesystem::create_symlink(file, file);
  EXPECT_NE(instance.Run(kCmdEarlyBootEnded), 0u);
  std::filesystem::rename(kept, file);
  EXPECT_TRUE(ta::EarlyBootHasEnded());
  std::fstream(file, std::ios::in | std::ios::out) << "another boot";
  EXPECT_TRUE(!ta::EarlyBootHasEnded() && ta::DeviceUnlockedFor(nullptr));
  const Str next = instance.SharingParameters();
  EXPECT_TRUE(next.substr(0, 32) == own.substr(0, 32) && next.substr(32) != own.substr(32));
}

TEST(DeviceState, BootsAnewWithoutItsFile) {
  Keymaster instance;
  const struct {
    P limit;
    uint32_t command;  // with which the key's use ends, after two, if it has to be told
    Slot value;
    keymaster_error_t error;
  } rows[] = {
      {{KM_TAG_EARLY_BOOT_ONLY, 1}, kCmdEarlyBootEnded, {}, KM_ERROR_EARLY_BOOT_ENDED},
      {{KM_TAG_UNLOCKED_DEVICE_REQUIRED, 1},
       kCmdDeviceLocked,
       {TEEC_VALUE_INPUT, {}, 0, 0, 0, {}},
       KM_ERROR_DEVICE_LOCKED},
      {{KM_TAG_MAX_USES_PER_BOOT, 2}, 0, {}, KM_ERROR_KEY_MAX_OPS_EXCEEDED},
  };
  for (int boot = 0; boot < 2; ++boot) {
    const Str own = instance.SharingParameters();
    std::vector<Str> keys;
    for (const auto& row : rows) {
      EXPECT_EQ(instance.Generate(kAes + row.limit), 0u);
      for (int use = 0; use < 2; ++use) {
        EXPECT_EQ(instance.TryBegin(kEncrypt, kEcb), 0u);
      }
      EXPECT_TRUE(row.command == 0 || instance.Run(row.command, row.value) == 0);
      EXPECT_EQ(instance.TryBegin(kEncrypt, kEcb), Km(row.error));
      keys.push_back(instance.blob);
    }
    EXPECT_EQ(instance.Generate(kAes + rows[0].limit), Km(KM_ERROR_EARLY_BOOT_ENDED));
    std::filesystem::remove(instance.folder + "/boot_state");
    for (const Str& key : keys) {
      instance.blob = key;
      EXPECT_EQ(instance.TryBegin(kEncrypt, kEcb), 0u);
    }
    EXPECT_NE(instance.SharingParameters().substr(32), own.substr(32));
  }
}

std::vector<ta::X509Ptr> ParseChain(const Str& reply) {
  const uint8_t* at = Raw(reply) + 4;
  std::vector<ta::X509Ptr> chain;
  for (uint64_t i = UnLe(reply, 0, 4); i > 0; --i) {
    chain.emplace_back(d2i_X509(nullptr, &(at += 4), 4096));
  }
  EXPECT_EQ(at, Raw(reply) + reply.size());
  return chain;
}

Str KeyDescription(const X509* leaf) {
  X509_EXTENSION* const extension = X509_get_ext(leaf, X509_get_ext_count(leaf) - 1);
  const ASN1_OCTET_STRING* const value = X509_EXTENSION_get_data(extension);
  return Str(value->data, value->data + value->length);
}

const P kCreated = {KM_TAG_CREATION_DATETIME, 1600000000000};
const Ps kEc = Key(KM_ALGORITHM_EC, kVerify, {{KM_TAG_EC_CURVE, 1}, kSha256, kCreated}) +
               P(KM_TAG_PURPOSE, kSign) + P(KM_TAG_NO_AUTH_REQUIRED, 1);
const Ps kRsa = Key(KM_ALGORITHM_RSA, KM_PURPOSE_WRAP_KEY, {{KM_TAG_KEY_SIZE, 2048}, kCreated}) +
                P(KM_TAG_RSA_PUBLIC_EXPONENT, 65537) + P(KM_TAG_ACTIVE_DATETIME, 1500000000000) +
                P(KM_TAG_USAGE_EXPIRE_DATETIME, 4102444800000) +
                // What an attestation says of the request, not of the key.
                P(KM_TAG_ATTESTATION_APPLICATION_ID, "key's") + P(KM_TAG_ROOT_OF_TRUST, "key's") +
                P(KM_TAG_ATTESTATION_ID_MODEL, "key's");
const P kChallenge = {KM_TAG_ATTESTATION_CHALLENGE, "challenge"};
const P kApp = {KM_TAG_ATTESTATION_APPLICATION_ID, "app"}, kNothing = {KM_TAG_NONCE, ""},
        kBrand = {KM_TAG_ATTESTATION_ID_BRAND, "host"};

TEST(Attestation, DescribesTheKeyInAChainOfThree) {
  const Str head = "0201040A01010201290A010104096368616C6C656E67650400";
  const Str origin =
      "BF853E03020100BF85404C304A0420" + Str(64, '0') + "0101000A01020420" + Str(64, '0');
  const Str sw_end = "BF853D0802060174876E8000BF8545050403617070",
            system = "BF854105020301ADB0BF854205020303157F";
  const struct {
    Ps key;
    P id;
    uint32_t usage;
    time_t not_before, not_after;
    Str extension;
  } rows[] = {
      {kEc, kBrand, KU_DIGITAL_SIGNATURE, 1600000000, 253402300799,
       "3081CD" + head + "3015" + sw_end +
           "30819AA1083106020102020103A203020103A30402020100A5053103020104AA03020101BF8377020500" +
           origin + system + "BF8546060404686F7374"},
      {kRsa, kNothing, KU_KEY_ENCIPHERMENT, 1500000000, 4102444800,
       "3081CF" + head + "302DBF8310080206015D3EF79800BF831208020603BB2CC3D800" + sw_end +
           "308184A1053103020105A203020101A30402020800BF8148050203010001" + origin + system},
  };
  Keymaster instance;
  for (const auto& row : rows) {
    ASSERT_EQ(instance.Attest(row.key, {kChallenge, kApp, row.id}, 8192), 0u);
    const std::vector<ta::X509Ptr> chain = ParseChain(instance.slots[2].out);
    const char* const names[] = {"Android Keystore Key", "Keymaster Host Attestation Intermediate",
                                 "Keymaster Host Attestation Root"};
    for (size_t i = 0; i < 3; ++i) {
      char name[64];
      X509_NAME_oneline(X509_get_subject_name(chain[i].get()), name, sizeof(name));
      EXPECT_EQ(name, Str("/CN=") + names[i]);
      EXPECT_EQ(X509_check_ca(chain[i].get()) == 1, i > 0);
      EXPECT_EQ(ASN1_INTEGER_get(X509_get_serialNumber(chain[i].get())), i == 1 ? 2 : 1);
      EXPECT_EQ(X509_get_version(chain[i].get()), X509_VERSION_3);
    }
    EXPECT_EQ(X509_get_pathlen(chain[1].get()), 0);
    X509* const leaf = chain[0].get();
    EXPECT_EQ(X509_get_key_usage(leaf), row.usage);
    for (const auto& [field, time] : {std::pair{X509_get0_notBefore(leaf), row.not_before},
                                      {X509_get0_notAfter(leaf), row.not_after}}) {
      ASN1_TIME* const expected = ASN1_TIME_set(nullptr, time);
      EXPECT_EQ(ASN1_STRING_cmp(field, expected), 0);
      ASN1_STRING_free(expected);
    }
    EXPECT_EQ(KeyDescription(leaf), Hex(row.extension));
  }
}

TEST(Attestation, CarriesAUniqueIdForAnApplicationAndThirtyDays) {
  Keymaster instance;
  std::ofstream(instance.folder + "/device_key") << Str(32, 'k');
  const P id = {KM_TAG_APPLICATION_ID, "app"}, reset = {KM_TAG_RESET_SINCE_ID_ROTATION, 1};
  const Ps ec = Key(KM_ALGORITHM_EC, kSign, {{KM_TAG_EC_CURVE, 1}, kSha256, id});
  const Ps with = ec + P(KM_TAG_INCLUDE_UNIQUE_ID, 1), request = {kChallenge, kApp, id};
  // From openssl: HMAC-SHA256 under HMAC-SHA256("unique id") under the device key.
  const struct {
    Ps key, request;
    uint64_t created;
    Str unique_id;
  } rows[] = {
      {ec, request, 2592000000, ""},
      {with, request, 2591999999, "2f204e880b4202c498c16a36a08b5c87"},
      {with, request + reset, 2591999999, "1c9efc84fc9978d65c9b208ded937bbb"},
      {with, request, 2592000000, "fbe5983961ca01a786e601ac2aa09811"},
      {with, request + reset, 2592000000, "fd4bbb0a41390e82e8d40cd0143d9169"},
  };
  for (const auto& row : rows) {
    const Ps key = row.key + P(KM_TAG_CREATION_DATETIME, row.created);
    ASSERT_EQ(instance.Attest(key, row.request, 8192), 0u);
    const Str described = KeyDescription(ParseChain(instance.slots[2].out)[0].get());
    const Str element = Str(1, 4) + Be(row.unique_id.size() / 2, 1) + Hex(row.unique_id);
    EXPECT_EQ(described.find("challenge" + element), 17u) << &row - rows;
  }
}

TEST(Attestation, RefusesWhatItCannotSay) {
  Keymaster instance;
  const P longest = {KM_TAG_ATTESTATION_CHALLENGE, Str(128, 'c')},
          long_one = {KM_TAG_ATTESTATION_CHALLENGE, Str(129, 'c')},
          longest_app = {KM_TAG_ATTESTATION_APPLICATION_ID, Str(1024, 'a')},
          long_app = {KM_TAG_ATTESTATION_APPLICATION_ID, Str(1025, 'a')},
          brand = {KM_TAG_ATTESTATION_ID_BRAND, "hosts"}, imei = {KM_TAG_ATTESTATION_ID_IMEI, ""};
  const struct {
    Ps key, request;
    uint32_t result;
  } rows[] = {
      {kEc, {kApp}, Km(KM_ERROR_ATTESTATION_CHALLENGE_MISSING)},
      {kEc, {kChallenge}, Km(KM_ERROR_ATTESTATION_APPLICATION_ID_MISSING)},
      {kEc, {kApp, longest}, kShort},
      {kEc, {kApp, long_one}, Km(KM_ERROR_INVALID_INPUT_LENGTH)},
      {kEc, {longest_app, kChallenge}, kShort},
      {kEc, {long_app, kChallenge}, Km(KM_ERROR_INVALID_INPUT_LENGTH)},
      {kEc, {kChallenge, kApp, brand}, Km(KM_ERROR_CANNOT_ATTEST_IDS)},
      {kEc, {kChallenge, kApp, imei}, Km(KM_ERROR_CANNOT_ATTEST_IDS)},
      {kEc, {kChallenge, kApp}, kShort},
      {kAes, {kChallenge, kApp}, Km(KM_ERROR_INCOMPATIBLE_ALGORITHM)},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(instance.Attest(row.key, row.request, 99), row.result);
  }
}

}  // namespace
