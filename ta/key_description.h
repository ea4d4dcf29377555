// What a key may be: checks of its description and the split of its characteristics.
#ifndef TA_KEY_DESCRIPTION_H
#define TA_KEY_DESCRIPTION_H

#include "ta/key.h"

namespace ta {

// CheckKeyDescription refuses a description that no key of its algorithm can have: purposes,
// digests, paddings and block modes unknown to it, missing or bad MAC lengths. It leaves sizes to
// CheckKeySize.
void CheckKeyDescription(const ParamSet& description);
// CheckKeySize tells whether the TA makes keys of that algorithm and size (bits).
void CheckKeySize(uint32_t algorithm, uint32_t key_size);

// HasPurpose tells whether any key of that algorithm can have that purpose.
bool HasPurpose(uint32_t algorithm, uint32_t purpose);

// One curve the TA knows.
struct Curve {
  uint32_t id;  // keymaster_ec_curve_t
  uint32_t key_size;
  int nid;  // libcrypto's
};
// CurveById and CurveBySize return null for what the TA does not know.
const Curve* CurveById(uint64_t id);
const Curve* CurveBySize(uint64_t key_size);

// DescribeKey fills both characteristics lists of a key whose algorithm, key_size, curve and origin
// are set, from its description and the current system version.
void DescribeKey(const ParamSet& description, Key* key);
// SetKeySystemVersion binds a key to the current system version.
void SetKeySystemVersion(Key* key);

// WallClockMillis is the clock of a key's dates: milliseconds since 1970.
uint64_t WallClockMillis();

}  // namespace ta

#endif  // TA_KEY_DESCRIPTION_H
