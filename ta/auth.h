// Hardware auth tokens, their verification on behalf of another keymaster instance, and the state
// of the device that they can change.
//
// An auth token is 69 bytes (hw_auth_token_t), without padding:
//   0  1  version, 0
//   1  8  challenge, little-endian: the operation it authorizes, or 0
//   9  8  user_id, little-endian: the secure id of the user
//  17  8  authenticator_id, little-endian: the secure id of the authenticator
//  25  4  authenticator_type: bits HW_AUTH_PASSWORD, HW_AUTH_FINGERPRINT; little-endian, as a
//         wrapped import reads it, or big-endian, as authenticators elsewhere write it
//  29  8  timestamp, big-endian: milliseconds since boot (CLOCK_BOOTTIME)
//  37 32  HMAC-SHA256 of bytes 0 to 36 under the shared HMAC key (hmac_sharing.h)
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
//         AuthorizationList (attest_extension.h), nothing for none
#ifndef TA_AUTH_H
#define TA_AUTH_H

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

// MillisSinceBoot is the clock of auth tokens, verification tokens and locks.
uint64_t MillisSinceBoot();

// UpdateBootState applies change (may be null) to this boot's state, beginning a new one with a
// random nonce when there is none, and returns the result. Threads and processes take turns:
// neither this nor anything that rests on it (all of this and of hmac_sharing.h) may be called
// under a StateLock.
BootState UpdateBootState(const std::function<void(BootState*)>& change = nullptr);

// EarlyBootHasEnded tells whether keys with KM_TAG_EARLY_BOOT_ONLY are to be rejected.
bool EarlyBootHasEnded();

// DeviceUnlockedFor tells whether keys with KM_TAG_UNLOCKED_DEVICE_REQUIRED may be used. token is a
// verified token or null. One that is newer than the lock, and of a password if the lock asks for
// that, unlocks the device until the next lock.
bool DeviceUnlockedFor(const AuthToken* token);

}  // namespace ta

#endif  // TA_AUTH_H
