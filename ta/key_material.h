// Secrets of keys: how they are made, how they arrive, and the raw form public halves leave in.
#ifndef TA_KEY_MATERIAL_H
#define TA_KEY_MATERIAL_H

#include "key.h"

namespace ta {

// GenerateMaterial makes the secret that the description asks for and sets algorithm, key_size,
// curve and secret of key. The description has passed CheckKeyDescription.
TEEC_Result GenerateMaterial(const ParamSet& description, Key* key);
// ImportMaterial does the same with a secret that comes from outside: for RSA and EC a header of
// lengths and big-endian integers, for all others the bytes themselves. What the description says
// of size, curve and exponent must be so, else KM_ERROR_IMPORT_PARAMETER_MISMATCH; what it does not
// say is added to it.
TEEC_Result ImportMaterial(ByteView material, ParamSet* description, Key* key);
// ExportPublicKey writes algorithm, key size, and the lengths and bytes of n and e, or X and Y.
TEEC_Result ExportPublicKey(const Key& key, Bytes* out);

// EncodeSecret and DecodeSecret carry a key's secret in and out of its blob; DecodeSecret needs
// algorithm to be set and is false for bytes that are no such secret.
SecureBytes EncodeSecret(const Key& key);
bool DecodeSecret(ByteView secret, Key* key);

// RequireCrypto throws, which ends the command, when libcrypto failed at what it must be able to.
void RequireCrypto(bool success);

}  // namespace ta

#endif  // TA_KEY_MATERIAL_H
