// The HMAC key that all keymaster instances of a device share, and how they agree on it.
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
#ifndef TA_HMAC_SHARING_H
#define TA_HMAC_SHARING_H

#include "ta/bytes.h"

namespace ta {

constexpr size_t kSharingSeedSize = 32;
constexpr size_t kSharingNonceSize = 32;
constexpr size_t kSharedHmacSize = 32;

// What real instances are given at manufacture. It is published: on a host nothing hangs on it.
constexpr char kKeyAgreementKey[] = "host stand-in key agreement key.";
static_assert(sizeof(kKeyAgreementKey) == 32 + 1, "the key agreement key has 32 bytes");

// SharedHmac returns the HMAC-SHA256 of a message under the shared key.
SecureBytes SharedHmac(ByteView message);

}  // namespace ta

#endif  // TA_HMAC_SHARING_H
