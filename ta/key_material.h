// Secrets of keys: how they are made, how they arrive, and the raw form public halves leave in.
#ifndef TA_KEY_MATERIAL_H
#define TA_KEY_MATERIAL_H

#include "ta/key.h"

namespace ta {

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

#endif  // TA_KEY_MATERIAL_H
