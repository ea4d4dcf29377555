// A key as the TA works with it, its secret, and the sealed blob that the normal world keeps of it.
#ifndef TA_KEY_H
#define TA_KEY_H

#include "ta/evp.h"
#include "ta/params.h"
#include "ta/result.h"

namespace ta {

// Key is an opened or freshly made key: its secret and everything known about it.
struct Key {
  uint32_t algorithm = 0;  // keymaster_algorithm_t
  uint32_t key_size = 0;   // bits
  uint32_t curve = 0;      // keymaster_ec_curve_t; EC only
  PkeyPtr pkey;            // RSA and EC
  SecureBytes symmetric;   // all others
  ParamSet hw_enforced;    // OS version and patch level included
  ParamSet sw_enforced;
  Bytes id;  // 16 random bytes that stay the same when the key is upgraded

  // Find looks in the hardware-enforced list, then in the other one.
  const Param* Find(Tag tag) const;
  // Authorizes tells whether the hardware-enforced list holds the tag with that value.
  bool Authorizes(Tag tag, uint64_t value) const { return hw_enforced.Contains(tag, value); }
};

constexpr size_t kKeyIdSize = 16;

// SealKeyBlob seals a key under the device key, bound to the KM_TAG_APPLICATION_ID and
// KM_TAG_APPLICATION_DATA of params.
Bytes SealKeyBlob(const Key& key, const ParamSet& params);
// OpenKeyBlob opens a blob, of any system version. params holds the application id and data that it
// was made with, among others. KM_ERROR_INVALID_KEY_BLOB for a blob that is garbled, foreign,
// deleted or bound to others.
Key OpenKeyBlob(ByteView blob, const ParamSet& params);
// OpenCurrentKey opens a blob of the current system version: KM_ERROR_KEY_REQUIRES_UPGRADE for an
// older one, KM_ERROR_INVALID_KEY_BLOB for a newer one.
Key OpenCurrentKey(ByteView blob, const ParamSet& params);
// IdentifyKeyBlob reads the id of the key in a sealed blob, whatever the blob is bound to and
// whether or not the key was deleted.
Bytes IdentifyKeyBlob(ByteView blob);

// VersionOrder compares the system version of a key with the current one: below 0 for an older one,
// 0 for the same, above 0 for one of which any part is newer.
int VersionOrder(const Key& key);

// RecordDeletion makes every blob of a key worthless, for good.
void RecordDeletion(const Bytes& key_id);
// CountUse counts one use of a key that limits its uses, and rejects the use beyond
// KM_TAG_MAX_USES_PER_BOOT or within KM_TAG_MIN_SECONDS_BETWEEN_OPS of the last one. The counts
// hold until the device boots.
void CountUse(const Key& key);

// ---- Its secret: how it is made, how it arrives, and the raw form public halves leave in.

// GenerateMaterial makes a key of the secret that the description, which has passed
// CheckKeyDescription, asks for: with algorithm, key_size, curve and secret set.
Key GenerateMaterial(const ParamSet& description);
// ImportMaterial does the same with a secret that comes from outside: for RSA and EC a header of
// lengths and big-endian integers, for all others the bytes themselves. What the description says
// of size, curve and exponent must be so, else KM_ERROR_IMPORT_PARAMETER_MISMATCH; what it does not
// say is added to it.
Key ImportMaterial(ByteView material, ParamSet* description);
// ImportRsaMaterial reads RSA key material, a header of 36 bytes with lengths and then the
// integers, into key->pkey, with all its CRT numbers, and checks that its numbers belong together:
// KM_ERROR_INVALID_ARGUMENT if not.
void ImportRsaMaterial(ByteView material, Key* key);
// ExportPublicKey writes algorithm, key size, and the lengths and bytes of n and e, or X and Y.
Bytes ExportPublicKey(const Key& key);

// EncodeSecret and DecodeSecret carry a key's secret in and out of its blob; DecodeSecret needs
// algorithm to be set and is false for bytes that are no such secret.
SecureBytes EncodeSecret(const Key& key);
bool DecodeSecret(ByteView secret, Key* key);

}  // namespace ta

#endif  // TA_KEY_H
