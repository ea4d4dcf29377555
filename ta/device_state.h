// What the TA knows about the device since it booted: how far the boot is, whether the screen is
// locked (command DeviceLocked, whose value is 1 when only a password unlocks), the HMAC sharing.
// It outlives the TA's process and ends with the boot: a record of another boot counts as none. Who
// removes it, the file boot_state, has the device boot anew.
#ifndef TA_DEVICE_STATE_H
#define TA_DEVICE_STATE_H

#include <functional>

#include "ta/auth.h"

namespace ta {

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
// neither this nor anything that rests on it (all of auth.h and hmac_sharing.h) may be called under
// a StateLock.
BootState UpdateBootState(const std::function<void(BootState*)>& change = nullptr);

// EarlyBootHasEnded tells whether keys with KM_TAG_EARLY_BOOT_ONLY are to be refused.
bool EarlyBootHasEnded();

// DeviceUnlockedFor tells whether keys with KM_TAG_UNLOCKED_DEVICE_REQUIRED may be used. token is a
// verified token or null. One that is newer than the lock, and of a password if the lock asks for
// that, unlocks the device until the next lock.
bool DeviceUnlockedFor(const AuthToken* token);

}  // namespace ta

#endif  // TA_DEVICE_STATE_H
