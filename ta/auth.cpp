#include "ta/auth.h"

#include <openssl/cmac.h>
#include <string.h>

#include <algorithm>
#include <fstream>
#include <string>

#include "ta/commands.h"
#include "ta/evp.h"
#include "ta/key_description.h"
#include "ta/state.h"

namespace ta {
namespace {

using std::string_view_literals::operator""sv;

constexpr keymaster_tag_t kVerifiableTags[] = {KM_TAG_USER_SECURE_ID, KM_TAG_USER_AUTH_TYPE,
                                               KM_TAG_AUTH_TIMEOUT};

ParamSet Verifiable(const ParamSet& params) {
  ParamSet verifiable;
  for (const keymaster_tag_t tag : kVerifiableTags) {
    for (const Param& param : params) {
      if (param.tag == tag) verifiable.Add(param);
    }
  }
  return verifiable;
}

Bytes VerificationToken(uint64_t challenge, const ParamSet& verified) {
  const uint64_t timestamp = Millis(CLOCK_BOOTTIME);
  constexpr uint32_t kLevel = KM_SECURITY_LEVEL_TRUSTED_ENVIRONMENT;
  Bytes message;
  AppendBytes(&message, "Auth Verification"sv);
  AppendBigEndian(&message, challenge, sizeof(challenge));
  AppendBigEndian(&message, timestamp, sizeof(timestamp));
  AppendBigEndian(&message, kLevel, sizeof(kLevel));
  if (!verified.empty()) AppendBytes(&message, EncodeAuthorizationList(verified));

  Bytes token;
  AppendInteger<uint64_t>(&token, challenge);
  AppendInteger<uint64_t>(&token, timestamp);
  AppendInteger<uint64_t>(&token, 0);
  AppendInteger<uint32_t>(&token, kLevel);
  AppendInteger<uint32_t>(&token, 0);
  AppendBytes(&token, SharedHmac(message));
  return token;
}

constexpr char kBootStateFile[] = "boot_state";

// The system's name for this boot; the same for all processes that run during it.
std::string BootId() {
  std::ifstream file("/proc/sys/kernel/random/boot_id");
  std::string id;
  RequireState(std::getline(file, id) && id.size() == sizeof(BootState::boot_id), "no boot id");
  return id;
}

// False without a record, and for that of another boot.
bool Load(const std::string& boot_id, BootState* state) {
  return ReadRecord(kBootStateFile, state) &&
         boot_id.compare(0, boot_id.size(), state->boot_id, sizeof(state->boot_id)) == 0;
}

constexpr size_t kSharingParametersSize = kSharingSeedSize + kSharingNonceSize;

using CmacPtr = std::unique_ptr<CMAC_CTX, CallFree<CMAC_CTX, CMAC_CTX_free>>;

SecureBytes DeriveSharedKey(ByteView sharing_parameters) {
  constexpr size_t kBlock = 16;
  SecureBytes key(kSharedHmacSize);
  for (uint32_t i = 0; i < kSharedHmacSize / kBlock; ++i) {
    SecureBytes input;
    AppendBigEndian(&input, i + 1, 4);
    AppendBytes(&input, "KeymasterSharedMac\0"sv);
    AppendBytes(&input, sharing_parameters);
    AppendBigEndian(&input, kSharedHmacSize * 8, 4);
    const CmacPtr cmac(CMAC_CTX_new());
    size_t size = 0;
    RequireCrypto(cmac != nullptr &&
                  CMAC_Init(cmac.get(), kKeyAgreementKey, sizeof(kKeyAgreementKey) - 1,
                            EVP_aes_256_cbc(), nullptr) == 1 &&
                  CMAC_Update(cmac.get(), input.data(), input.size()) == 1 &&
                  CMAC_Final(cmac.get(), key.data() + i * kBlock, &size) == 1);
  }
  return key;
}

SecureBytes OwnParameters(const BootState& state) {
  SecureBytes own = LoadOrCreateSecret("hmac_sharing_seed");
  AppendBytes(&own, {state.sharing_nonce, kSharingNonceSize});
  return own;
}

bool ContainsOwn(ByteView sharing_parameters, const SecureBytes& own) {
  ByteReader reader(sharing_parameters);
  ByteView one;
  while (reader.TakeBytes(kSharingParametersSize, &one)) {
    if (std::equal(one.begin(), one.end(), own.begin(), own.end())) return true;
  }
  return false;
}

}  // namespace

uint64_t Millis(clockid_t clock) {
  timespec now{};
  RequireState(clock_gettime(clock, &now) == 0, "no clock");
  return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

BootState UpdateBootState(const std::function<void(BootState*)>& change) {
  const std::string boot_id = BootId();
  BootState state = {};
  if (!change && Load(boot_id, &state)) return state;

  const StateLock lock;
  if (!Load(boot_id, &state)) {
    state = {};
    boot_id.copy(state.boot_id, sizeof(state.boot_id));
    FillRandom(state.sharing_nonce, sizeof(state.sharing_nonce));
  }
  if (change) change(&state);
  ReplaceRecord(kBootStateFile, state);
  return state;
}

bool EarlyBootHasEnded() { return UpdateBootState().early_boot_ended; }

bool DeviceUnlockedFor(const AuthToken* token) {
  const auto still_locked = [token](const BootState& state) {
    return state.locked &&
           (token == nullptr || token->timestamp <= state.locked_at ||
            (state.lock_needs_password && (token->authenticator_type & HW_AUTH_PASSWORD) == 0));
  };
  const BootState now = UpdateBootState();
  if (!now.locked || still_locked(now)) return !now.locked;
  // Another process may have locked the device again since.
  return !UpdateBootState([&](BootState* state) { state->locked = still_locked(*state); }).locked;
}

void EarlyBootEnded(uint32_t, TaParam*) {
  UpdateBootState([](BootState* state) { state->early_boot_ended = true; });
}

void DeviceLocked(uint32_t, TaParam params[4]) {
  const bool needs_password = params[0].a != 0;
  UpdateBootState([needs_password](BootState* state) {
    state->locked = true;
    state->lock_needs_password = needs_password;
    state->locked_at = Millis(CLOCK_BOOTTIME);
  });
}

bool AuthTokenValid(ByteView bytes, AuthToken* token) {
  hw_auth_token_t raw;
  if (bytes.size != sizeof(raw)) return false;
  memcpy(&raw, bytes.data, sizeof(raw));
  *token = {raw.challenge, raw.user_id, raw.authenticator_id, raw.authenticator_type,
            __builtin_bswap64(raw.timestamp)};
  // Its bits are those of the lowest byte, so that a big-endian one shows.
  if ((token->authenticator_type & 0xFF) == 0) {
    token->authenticator_type = __builtin_bswap32(token->authenticator_type);
  }
  const SecureBytes mac = SharedHmac({bytes.data, offsetof(hw_auth_token_t, hmac)});
  return raw.version == 0 && CRYPTO_memcmp(mac.data(), raw.hmac, mac.size()) == 0;
}

bool AuthTokenSatisfies(const AuthToken& token, const ParamSet& params) {
  const std::optional<uint64_t> types = params.Value(KM_TAG_USER_AUTH_TYPE);
  if (types && (*types & token.authenticator_type) == 0) return false;
  return !params.Contains(KM_TAG_USER_SECURE_ID) ||
         params.Contains(KM_TAG_USER_SECURE_ID, token.user_id) ||
         params.Contains(KM_TAG_USER_SECURE_ID, token.authenticator_id);
}

bool AuthTokenFresh(const AuthToken& token, uint32_t seconds) {
  const uint64_t now = Millis(CLOCK_BOOTTIME);
  return token.timestamp <= now && now - token.timestamp <= uint64_t{seconds} * 1000;
}

void VerifyAuthorization(uint32_t types, TaParam params[4]) {
  const ParamSet requested = params[0].size == 0 ? ParamSet() : RequestOf(types, params, 0);
  const std::optional<uint64_t> timeout = requested.Value(KM_TAG_AUTH_TIMEOUT);
  ByteReader input(InputOf(params[1]));
  uint64_t challenge = 0;
  AuthToken token;
  FailIf(!input.TakeInteger(&challenge) || !AuthTokenValid(input.rest(), &token) ||
             !AuthTokenSatisfies(token, requested) ||
             (timeout && !AuthTokenFresh(token, static_cast<uint32_t>(*timeout))),
         KM_ERROR_VERIFICATION_FAILED);
  const ParamSet verified = Verifiable(requested);
  Reply(Serialize({&verified}), &params[2]);
  Reply(VerificationToken(challenge, verified), &params[3]);
}

SecureBytes SharedHmac(ByteView message) {
  const BootState state = UpdateBootState();
  if (state.is_key_shared) return HmacSha256({state.shared_hmac_key, kSharedHmacSize}, message);
  return HmacSha256(DeriveSharedKey(OwnParameters(state)), message);
}

void GetHmacSharingParameters(uint32_t, TaParam params[4]) {
  const SecureBytes own = OwnParameters(UpdateBootState());
  Reply({own.data(), kSharingSeedSize}, &params[0]);
  Reply({own.data() + kSharingSeedSize, kSharingNonceSize}, &params[1]);
}

void ComputeSharedHmac(uint32_t, TaParam params[4]) {
  const ByteView all = InputOf(params[0]);
  FailIf(
      all.size % kSharingParametersSize != 0 || !ContainsOwn(all, OwnParameters(UpdateBootState())),
      KM_ERROR_INVALID_ARGUMENT);
  const SecureBytes key = DeriveSharedKey(all);
  Reply(HmacSha256(key, "Keymaster HMAC Verification"sv), &params[1]);
  UpdateBootState([&key](BootState* state) {
    state->is_key_shared = true;
    std::copy(key.begin(), key.end(), state->shared_hmac_key);
  });
}

}  // namespace ta
