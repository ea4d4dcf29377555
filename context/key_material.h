// Key material: a private key as the TA imports it, a header of lengths and the key's integers.
#ifndef CONTEXT_KEY_MATERIAL_H
#define CONTEXT_KEY_MATERIAL_H

#include <openssl/ec.h>
#include <openssl/rsa.h>
#include <stdint.h>

#include "marshal/secret_blob.h"
#include "wire/ta_protocol.h"

namespace km41 {

// KeyMaterial is a secret buffer of kKeyMaterialCapacity bytes, of which length are used.
struct KeyMaterial {
  [[nodiscard]] bool Allocate() { return buffer.Allocate(kKeyMaterialCapacity); }
  uint8_t* bytes() const { return buffer.bytes(); }

  SecretBlob buffer;
  uint32_t length = 0;
};

// BuildRsaKeyMaterial encodes an RSA private key into a buffer of kKeyMaterialCapacity bytes: in
// CRT form when all five CRT values are there, else with the private exponent. *length receives
// the number of bytes. 0; -32 for a null argument or a key without public exponent; -1000. After
// a failure buffer and length may hold parts.
[[nodiscard]] int32_t BuildRsaKeyMaterial(uint8_t* buffer, const RSA* key, uint32_t* length);

// BuildEcKeyMaterial does the same with an EC private key. 0, or -1000.
[[nodiscard]] int32_t BuildEcKeyMaterial(uint8_t* buffer, const EC_KEY* key, uint32_t* length);

}  // namespace km41

#endif  // CONTEXT_KEY_MATERIAL_H
