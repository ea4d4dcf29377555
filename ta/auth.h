// Hardware auth tokens, their verification on behalf of another keymaster instance, and the state
// of the device that they can change. The key that authenticates them is shared.
//
// An auth token is 69 bytes (hw_auth_token_t), without padding:
//   0  1  version, 0
//   1  8  challenge, little-endian: the operation it authorizes, or 0
//   9  8  user_id, little-endian: the secure id of the user
//  17  8  authenticator_id, little-endian: the secure id of the authenticator
//  25  4  authenticator_type: bits HW_AUTH_PASSWORD, HW_AUTH_FINGERPRINT; little-endian, as a
//         wrapped import reads it, or big-endian, as authenticators elsewhere write it
//  29  8  timestamp, big-endian: milliseconds since boot (CLOCK_BOOTTIME)
//  37 32  HMAC-SHA256 of bytes 0 to 36 under the shared HMAC key
//
// The command VerifyAuthorization takes a challenge (8 bytes, little-endian) and an auth token. It
// replies with the parameters that it checked the token against, which are those among
// KM_TAG_USER_SECURE_ID, KM_TAG_USER_AUTH_TYPE and KM_TAG_AUTH_TIMEOUT, and with a verification
// token of 64 bytes:
//   0  8  challenge, little-endian
//   8  8  timestamp, little-endian: milliseconds since boot
//  16  8  zero
//  24  4  security level, little-endian
//  28  4  zero
//  32 32  HMAC-SHA256, under the shared HMAC key, of "Auth Verification", challenge (8), timestamp
//         (8), security level (4), these three big-endian, and the parameters as a DER
//         AuthorizationList (key_description.h), nothing for none
#ifndef TA_AUTH_H
#define TA_AUTH_H

#include <time.h>

#include <functional>

#include "ta/params.h"

namespace ta {

// What a verified token says.
struct AuthToken {
  uint64_t challenge = 0;
  uint64_t user_id = 0;
  uint64_t authenticator_id = 0;
  uint32_t authenticator_type = 0;
  uint64_t timestamp = 0;  // milliseconds since boot
};

// AuthTokenValid parses a token and tells whether it is well formed and its MAC is right; if not,
// *token is unspecified.
bool AuthTokenValid(ByteView bytes, AuthToken* token);

// AuthTokenSatisfies tells whether a token is of a user and kind of authenticator that params ask
// for: one of its ids is among the KM_TAG_USER_SECURE_IDs, if there are any, and its type is in
// KM_TAG_USER_AUTH_TYPE, if that is there.
bool AuthTokenSatisfies(const AuthToken& token, const ParamSet& params);

// AuthTokenFresh tells whether a token is at most seconds old and not from the future.
bool AuthTokenFresh(const AuthToken& token, uint32_t seconds);

// ---- What the TA knows about the device since it booted: how far the boot is, whether the screen
// is locked (command DeviceLocked, whose value is 1 when only a password unlocks), the HMAC
// sharing. It outlives the TA's process and ends with the boot: a record of another boot counts as
// none. Who removes it, the file boot_state, has the device boot anew.

// The state of one boot, as the file holds it.
struct __attribute__((packed)) BootState {
  ~BootState() { OPENSSL_cleanse(shared_hmac_key, sizeof(shared_hmac_key)); }

  char boot_id[36];
  bool early_boot_ended : 1, locked : 1, lock_needs_password : 1, is_key_shared : 1;
  uint64_t locked_at;         // milliseconds since boot
  uint8_t sharing_nonce[32];  // no other boot's
  uint8_t shared_hmac_key[32];
};

// Millis is the time in milliseconds: of CLOCK_REALTIME for a key's dates, of CLOCK_BOOTTIME for
// auth tokens, verification tokens and locks.
uint64_t Millis(clockid_t clock);

// UpdateBootState applies change (may be null) to this boot's state, beginning a new one with a
// random nonce when there is none, and returns the result. Threads and processes take turns:
// neither this nor anything that rests on it (all of this header) may be called
// under a StateLock.
BootState UpdateBootState(const std::function<void(BootState*)>& change = nullptr);

// EarlyBootHasEnded tells whether keys with KM_TAG_EARLY_BOOT_ONLY are to be rejected.
bool EarlyBootHasEnded();

// DeviceUnlockedFor tells whether keys with KM_TAG_UNLOCKED_DEVICE_REQUIRED may be used. token is a
// verified token or null. One that is newer than the lock, and of a password if the lock asks for
// that, unlocks the device until the next lock.
bool DeviceUnlockedFor(const AuthToken* token);

// ---- The HMAC key that all keymaster instances of a device share, and how they agree on it.
//
// Every instance has sharing parameters: a seed of 32 bytes that it keeps for good and a nonce of
// 32 bytes that it draws once a boot. The shared key is
//   KDF(kKeyAgreementKey, label "KeymasterSharedMac", context seed || nonce || seed || nonce ...)
// over the parameters of all instances, in the order given. KDF is the counter-mode KDF of
// SP 800-108 with AES-256-CMAC: the CMAC of
//   i (4) || label || 0x00 || context || 256 (4), both numbers big-endian
// is the first 16 bytes of the key for i = 1 and the last 16 for i = 2. Until a sharing was
// computed since boot, an instance uses the key of its own parameters alone.
//
// The command GetHmacSharingParameters replies with the seed (first output) and the nonce (second).
// ComputeSharedHmac takes seed || nonce of every instance, 64 bytes each, its own among them, and
// replies with HMAC-SHA256 of "Keymaster HMAC Verification" under the new shared key.

constexpr size_t kSharingSeedSize = 32;
constexpr size_t kSharingNonceSize = 32;
constexpr size_t kSharedHmacSize = 32;

// What real instances are given at manufacture. It is published: on a host nothing hangs on it.
constexpr char kKeyAgreementKey[] = "host stand-in key agreement key.";
static_assert(sizeof(kKeyAgreementKey) == 32 + 1, "the key agreement key has 32 bytes");

// SharedHmac returns the HMAC-SHA256 of a message under the shared key.
SecureBytes SharedHmac(ByteView message);

}  // namespace ta

#endif  // TA_AUTH_H
