// Users and their tokens, HMAC sharing, the state of the device, and attestations that cannot be.
#include <filesystem>
#include <fstream>

#include "ta/auth.h"
#include "tests/ta/ta_client.h"

namespace {

const Str kPassword = Le(HW_AUTH_PASSWORD, 4), kFingerprint = Le(HW_AUTH_FINGERPRINT, 4);

Str Mac(const Str& message) {
  const ta::SecureBytes mac = ta::SharedHmac(std::string_view(message));
  return Str(mac.begin(), mac.end());
}

// A token of user 5 by authenticator 0x99; type are the 4 bytes of the authenticator's type.
Str Token(uint64_t timestamp, const Str& type, uint64_t challenge = 77) {
  const Str head = Str(1, 0) + Le(challenge, 8) + Le(5, 8) + Le(0x99, 8) + type + Be(timestamp, 8);
  return head + Mac(head);
}

struct DeviceTest : TaTest {
  Str SharingParameters() {
    EXPECT_EQ(ta.Run(kCmdGetHmacSharingParameters, Out(32), Out(32)), 0u);
    return ta.slots[0].out + ta.slots[1].out;
  }
  uint32_t Verify(const Str& token, const Ps& params = {}) {
    return ta.Run(kCmdVerifyAuthorization, In(Wire(params)), In(Le(0xABCDEF, 8) + token), InOut({}),
                  Out(4096));
  }
};

TEST_F(DeviceTest, AgreesOnAKeyWithWhoTakesItIn) {
  const Str own = SharingParameters(), others = Str(64, 'b'), token = Token(0, kPassword);
  for (const Str& bad : {Str(), others, (others + own).substr(0, 127), others + Flipped(own, 0)}) {
    EXPECT_EQ(ta.Run(kCmdComputeSharedHmac, In(bad), Out(32)), Km(KM_ERROR_INVALID_ARGUMENT));
  }
  for (const uint32_t room : {31u, 33u}) {
    EXPECT_EQ(ta.Run(kCmdGetHmacSharingParameters, Out(room), Out(64 - room)),
              TEEC_ERROR_SHORT_BUFFER);
  }
  // An agreement with nobody else changes nothing.
  EXPECT_EQ(ta.Run(kCmdComputeSharedHmac, In(own), Out(32)), 0u);
  EXPECT_EQ(Verify(token), 0u);
  EXPECT_EQ(ta.Run(kCmdComputeSharedHmac, In(others + own), Out(32)), 0u);
  EXPECT_EQ(Verify(token), Km(KM_ERROR_VERIFICATION_FAILED));
}

TEST_F(DeviceTest, ChecksATokensEveryByteAndSignsTheReply) {
  const Str good = Token(0, kPassword);
  for (size_t i = 0; i < good.size(); ++i) {
    EXPECT_NE(Verify(Flipped(good, i)), 0u) << i;
  }
  const Str later = Flipped(good, 0).substr(0, 37);  // of another version, signed as it should be
  for (const Str& odd : {Str(), good.substr(0, 68), good + good, later + Mac(later)}) {
    EXPECT_EQ(Verify(odd), Km(KM_ERROR_VERIFICATION_FAILED));
  }
  const P timeout = {KM_TAG_AUTH_TIMEOUT, 10}, password = {KM_TAG_USER_AUTH_TYPE, 1},
          any = {KM_TAG_USER_AUTH_TYPE, 3};
  const struct {
    Ps params;
    uint64_t age;  // milliseconds
    Str type;
    const char* signed_as;  // DER; null for a refusal
  } rows[] = {
      {{{KM_TAG_MAX_USES_PER_BOOT, 1}}, 0, kPassword, ""},
      {{timeout}, 9000, kPassword, "3007BF83790302010A"},
      {{timeout}, 10001, kPassword, nullptr},
      {{{KM_TAG_USER_SECURE_ID, 6}, {KM_TAG_USER_SECURE_ID, 5}},
       0,
       kPassword,
       "300CBF8376083106020105020106"},
      {{{KM_TAG_USER_SECURE_ID, 0x99}}, 0, kPassword, "300ABF837606310402020099"},
      {{{KM_TAG_USER_SECURE_ID, 6}}, 0, kPassword, nullptr},
      {{any}, 0, kFingerprint, "3007BF837803020103"},
      {{password}, 0, Be(HW_AUTH_PASSWORD, 4), "3007BF837803020101"},
      {{password}, 0, kFingerprint, nullptr},
      {{password}, 0, Be(HW_AUTH_FINGERPRINT, 4), nullptr},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    const uint64_t before = ta::Millis(CLOCK_BOOTTIME);
    const uint32_t result = Verify(Token(before - row.age, row.type), row.params);
    ASSERT_EQ(result, row.signed_as != nullptr ? 0u : Km(KM_ERROR_VERIFICATION_FAILED));
    if (row.signed_as == nullptr) continue;
    EXPECT_EQ(ta.slots[2].out.size(), 4 + (*row.signed_as != 0 ? 16 * row.params.size() : 0));
    const Str little = ta.slots[3].out.substr(8, 8), time(little.rbegin(), little.rend());
    EXPECT_TRUE(Be(before, 8) <= time && time <= Be(ta::Millis(CLOCK_BOOTTIME), 8));
    const Str mac =
        Mac("Auth Verification" + Be(0xABCDEF, 8) + time + Be(1, 4) + Hex(row.signed_as));
    EXPECT_EQ(ta.slots[3].out, Le(0xABCDEF, 8) + little + Le(0, 8) + Le(1, 8) + mac);
  }
}

TEST_F(DeviceTest, WantsTheUsersTokenForEachOperation) {
  const uint32_t refused = Km(KM_ERROR_KEY_USER_NOT_AUTHENTICATED);
  ASSERT_EQ(ta.Generate(kAes + P(KM_TAG_USER_SECURE_ID, 5)), 0u);
  for (const bool other : {false, true}) {
    ASSERT_EQ(ta.Begin(kEncrypt, kEcb), 0u);
    const P token = {KM_TAG_AUTH_TOKEN, Token(0, kPassword, ta.handle + (other ? 1 : 0))};
    EXPECT_EQ(ta.Update(Str(16, 'p'), {token}), other ? refused : 0u);
    // A failed update has ended the operation; a good one does not make up for the finish.
    EXPECT_EQ(ta.Finish(), other ? Km(KM_ERROR_INVALID_OPERATION_HANDLE) : refused);
  }
}

TEST_F(DeviceTest, LimitsHoldForTheBootAndInSpiteOfADamagedState) {
  const Slot lock = {TEEC_VALUE_INPUT};
  const struct {
    P limit;
    uint32_t command;  // with which the key's use ends, after two, if it has to be told
    Slot value;
    keymaster_error_t error;
  } rows[] = {
      {{KM_TAG_UNLOCKED_DEVICE_REQUIRED, 1}, kCmdDeviceLocked, lock, KM_ERROR_DEVICE_LOCKED},
      {{KM_TAG_MAX_USES_PER_BOOT, 2}, 0, {}, KM_ERROR_KEY_MAX_OPS_EXCEEDED},
      {{KM_TAG_EARLY_BOOT_ONLY, 1}, kCmdEarlyBootEnded, {}, KM_ERROR_EARLY_BOOT_ENDED},
  };
  const Str file = ta.folder + "/boot_state", kept = file + ".kept";
  for (const bool loses_its_file : {true, false}) {
    const Str own = SharingParameters();
    std::vector<Str> keys;
    for (const auto& row : rows) {
      EXPECT_EQ(ta.Generate(kAes + row.limit), 0u);
      for (int use = 0; use < 2; ++use) {
        EXPECT_EQ(ta.TryBegin(kEncrypt, kEcb), 0u);
      }
      EXPECT_TRUE(row.command == 0 || ta.Run(row.command, row.value) == 0);
      EXPECT_EQ(ta.TryBegin(kEncrypt, kEcb), Km(row.error));
      keys.push_back(ta.blob);
    }
    EXPECT_EQ(ta.Generate(kAes + rows[2].limit), Km(KM_ERROR_EARLY_BOOT_ENDED));
    // What cannot be read is no fresh start.
    std::filesystem::copy_file(file, kept);
    std::filesystem::resize_file(file, std::filesystem::file_size(file) - 1);
    EXPECT_NE(ta.Run(kCmdEarlyBootEnded), 0u);
    std::filesystem::remove(file);
    std::filesystem::create_symlink(file, file);
    EXPECT_NE(ta.Run(kCmdEarlyBootEnded), 0u);
    std::filesystem::rename(kept, file);
    EXPECT_EQ(ta.TryBegin(kEncrypt, kEcb), Km(KM_ERROR_EARLY_BOOT_ENDED));
    if (loses_its_file) {
      std::filesystem::remove(file);
    } else {
      std::fstream(file, std::ios::in | std::ios::out) << "another boot";
    }
    for (const Str& key : keys) {
      ta.blob = key;
      EXPECT_EQ(ta.TryBegin(kEncrypt, kEcb), 0u);
    }
    const Str next = SharingParameters();
    EXPECT_TRUE(next.substr(0, 32) == own.substr(0, 32) && next.substr(32) != own.substr(32));
  }
}

TEST_F(DeviceTest, AttestsToAChallengeForAnApplication) {
  const auto attest = [this](const P& request) {
    return ta.Run(kCmdAttestKey, In(ta.blob), In(Wire({request})), Out(4096));
  };
  ASSERT_EQ(ta.Generate(kEc), 0u);
  EXPECT_EQ(attest({KM_TAG_ATTESTATION_APPLICATION_ID, "app"}),
            Km(KM_ERROR_ATTESTATION_CHALLENGE_MISSING));
  EXPECT_EQ(attest({KM_TAG_ATTESTATION_CHALLENGE, "challenge"}),
            Km(KM_ERROR_ATTESTATION_APPLICATION_ID_MISSING));
}

}  // namespace
