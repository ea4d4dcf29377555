// Who may use a key, for what and when.
#include "ta/auth.h"
#include "ta/key_description.h"
#include "ta/operation.h"

namespace ta {
namespace {

// A wrapping key decrypts nothing but what was encrypted to it with OAEP: transit keys.
bool UnwrapsTransitKey(uint32_t purpose, const Key& key, const ParamSet& params) {
  return purpose == KM_PURPOSE_DECRYPT && key.Authorizes(KM_TAG_PURPOSE, KM_PURPOSE_WRAP_KEY) &&
         params.Contains(KM_TAG_PADDING, KM_PAD_RSA_OAEP);
}

void CheckPurpose(uint32_t purpose, const Key& key, const ParamSet& params) {
  FailIf(purpose > KM_PURPOSE_VERIFY || !CanHave(key.algorithm, KM_TAG_PURPOSE, purpose),
         KM_ERROR_UNSUPPORTED_PURPOSE);
  FailIf(!key.Authorizes(KM_TAG_PURPOSE, purpose) && !UnwrapsTransitKey(purpose, key, params),
         KM_ERROR_INCOMPATIBLE_PURPOSE);
}

void CheckDates(uint32_t purpose, const Key& key) {
  const uint64_t now = Millis(CLOCK_REALTIME);
  const bool originates = purpose == KM_PURPOSE_ENCRYPT || purpose == KM_PURPOSE_SIGN;
  const Param* active = key.Find(KM_TAG_ACTIVE_DATETIME);
  const Param* expires =
      key.Find(originates ? KM_TAG_ORIGINATION_EXPIRE_DATETIME : KM_TAG_USAGE_EXPIRE_DATETIME);
  FailIf(active != nullptr && now < active->value, KM_ERROR_KEY_NOT_YET_VALID);
  FailIf(expires != nullptr && now > expires->value, KM_ERROR_KEY_EXPIRED);
}

// Demands that this TA cannot meet: nothing here sees the boot loader, a button or a dialogue.
void CheckUnmeetableDemands(const Key& key) {
  constexpr std::pair<keymaster_tag_t, keymaster_error_t> kDemands[] = {
      {KM_TAG_BOOTLOADER_ONLY, KM_ERROR_INVALID_KEY_BLOB},
      {KM_TAG_STORAGE_KEY, KM_ERROR_STORAGE_KEY_UNSUPPORTED},
      {KM_TAG_TRUSTED_USER_PRESENCE_REQUIRED, KM_ERROR_PROOF_OF_PRESENCE_REQUIRED},
      {KM_TAG_TRUSTED_CONFIRMATION_REQUIRED, KM_ERROR_NO_USER_CONFIRMATION},
  };
  for (const auto& [tag, error] : kDemands) {
    FailIf(key.hw_enforced.IsTrue(tag), error);
  }
}

bool NeedsUser(const ParamSet& demands) { return demands.Contains(KM_TAG_USER_SECURE_ID); }

// The token of params; false when there is none or it is not genuine.
bool TokenOf(const ParamSet& params, AuthToken* token) {
  return params.Contains(KM_TAG_AUTH_TOKEN) &&
         AuthTokenValid(params.BytesOf(KM_TAG_AUTH_TOKEN), token);
}

void CheckDeviceState(const Key& key, const AuthToken* token) {
  FailIf(key.hw_enforced.IsTrue(KM_TAG_EARLY_BOOT_ONLY) && EarlyBootHasEnded(),
         KM_ERROR_EARLY_BOOT_ENDED);
  FailIf(key.hw_enforced.IsTrue(KM_TAG_UNLOCKED_DEVICE_REQUIRED) && !DeviceUnlockedFor(token),
         KM_ERROR_DEVICE_LOCKED);
}

void CheckTimedUser(const Key& key, const AuthToken* token) {
  const std::optional<uint64_t> timeout = key.hw_enforced.Value(KM_TAG_AUTH_TIMEOUT);
  if (!NeedsUser(key.hw_enforced) || !timeout) return;
  FailIf(token == nullptr || !AuthTokenSatisfies(*token, key.hw_enforced) ||
             !AuthTokenFresh(*token, static_cast<uint32_t>(*timeout)),
         KM_ERROR_KEY_USER_NOT_AUTHENTICATED);
}

}  // namespace

bool UsesPublicKey(uint32_t purpose, const Key& key) {
  return (key.algorithm == KM_ALGORITHM_RSA || key.algorithm == KM_ALGORITHM_EC) &&
         (purpose == KM_PURPOSE_ENCRYPT || purpose == KM_PURPOSE_VERIFY);
}

void AuthorizeBegin(uint32_t purpose, const Key& key, const ParamSet& params) {
  CheckPurpose(purpose, key, params);
  if (UsesPublicKey(purpose, key)) return;
  AuthToken parsed;
  const AuthToken* token = TokenOf(params, &parsed) ? &parsed : nullptr;
  CheckUnmeetableDemands(key);
  CheckDates(purpose, key);
  CheckDeviceState(key, token);
  CheckTimedUser(key, token);
}

bool NeedsTokenPerOperation(uint32_t purpose, const Key& key) {
  return !UsesPublicKey(purpose, key) && NeedsUser(key.hw_enforced) &&
         !key.hw_enforced.Contains(KM_TAG_AUTH_TIMEOUT);
}

void AuthorizeContinuation(uint64_t handle, const ParamSet& demands, const ParamSet& params) {
  AuthToken token;
  FailIf(
      !TokenOf(params, &token) || token.challenge != handle || !AuthTokenSatisfies(token, demands),
      KM_ERROR_KEY_USER_NOT_AUTHENTICATED);
}

}  // namespace ta
