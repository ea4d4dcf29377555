// RSA keys as they arrive: a 36-byte header of lengths, then the integers.
#ifndef TA_RSA_MATERIAL_H
#define TA_RSA_MATERIAL_H

#include "ta/key.h"

namespace ta {

// ImportRsaMaterial reads RSA key material into key->pkey, with all its CRT numbers, and checks
// that its numbers belong together: KM_ERROR_INVALID_ARGUMENT if not.
void ImportRsaMaterial(ByteView material, Key* key);

}  // namespace ta

#endif  // TA_RSA_MATERIAL_H
