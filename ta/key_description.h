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

// CanHave tells whether a key of that algorithm can have that purpose, digest, padding or block
// mode.
bool CanHave(uint64_t algorithm, keymaster_tag_t tag, uint64_t value);

// One curve the TA knows.
struct Curve {
  uint32_t id;  // keymaster_ec_curve_t
  uint32_t key_size;
  int nid;  // libcrypto's
};
// FindCurve returns the curve whose id or key_size that is; null for what the TA does not know.
const Curve* FindCurve(uint32_t Curve::*field, uint64_t value);

// The list of a key's characteristics that takes a tag from the key's description. Without a clock
// of its own, and without users, a TEE leaves some to the system. The TA adds others itself.
enum class Home { kNone, kHardware, kSoftware };

struct KnownTag {
  keymaster_tag_t tag;
  Home home;
  bool is_attested;  // has a field in an AuthorizationList
};

// By rising number, as DER wants the fields.
constexpr KnownTag kKnownTags[] = {
    {KM_TAG_PURPOSE, Home::kHardware, true},
    {KM_TAG_ALGORITHM, Home::kHardware, true},
    {KM_TAG_KEY_SIZE, Home::kHardware, true},
    {KM_TAG_BLOCK_MODE, Home::kHardware, false},
    {KM_TAG_DIGEST, Home::kHardware, true},
    {KM_TAG_PADDING, Home::kHardware, true},
    {KM_TAG_CALLER_NONCE, Home::kHardware, false},
    {KM_TAG_MIN_MAC_LENGTH, Home::kHardware, false},
    {KM_TAG_EC_CURVE, Home::kHardware, true},
    {KM_TAG_RSA_PUBLIC_EXPONENT, Home::kHardware, true},
    {KM_TAG_INCLUDE_UNIQUE_ID, Home::kHardware, false},
    {KM_TAG_BLOB_USAGE_REQUIREMENTS, Home::kHardware, false},
    {KM_TAG_BOOTLOADER_ONLY, Home::kHardware, false},
    {KM_TAG_ROLLBACK_RESISTANCE, Home::kHardware, true},
    {KM_TAG_EARLY_BOOT_ONLY, Home::kHardware, true},
    {KM_TAG_ACTIVE_DATETIME, Home::kSoftware, true},
    {KM_TAG_ORIGINATION_EXPIRE_DATETIME, Home::kSoftware, true},
    {KM_TAG_USAGE_EXPIRE_DATETIME, Home::kSoftware, true},
    {KM_TAG_MIN_SECONDS_BETWEEN_OPS, Home::kHardware, false},
    {KM_TAG_MAX_USES_PER_BOOT, Home::kHardware, false},
    {KM_TAG_ALL_USERS, Home::kSoftware, false},
    {KM_TAG_USER_ID, Home::kSoftware, false},
    {KM_TAG_USER_SECURE_ID, Home::kHardware, true},
    {KM_TAG_NO_AUTH_REQUIRED, Home::kHardware, true},
    {KM_TAG_USER_AUTH_TYPE, Home::kHardware, true},
    {KM_TAG_AUTH_TIMEOUT, Home::kHardware, true},
    {KM_TAG_ALLOW_WHILE_ON_BODY, Home::kSoftware, true},
    {KM_TAG_TRUSTED_USER_PRESENCE_REQUIRED, Home::kHardware, true},
    {KM_TAG_TRUSTED_CONFIRMATION_REQUIRED, Home::kHardware, true},
    {KM_TAG_UNLOCKED_DEVICE_REQUIRED, Home::kHardware, true},
    {KM_TAG_ALL_APPLICATIONS, Home::kSoftware, true},
    {KM_TAG_EXPORTABLE, Home::kSoftware, false},
    {KM_TAG_CREATION_DATETIME, Home::kSoftware, true},
    {KM_TAG_ORIGIN, Home::kNone, true},
    {KM_TAG_ROOT_OF_TRUST, Home::kNone, true},
    {KM_TAG_OS_VERSION, Home::kNone, true},
    {KM_TAG_OS_PATCHLEVEL, Home::kNone, true},
    {KM_TAG_ATTESTATION_APPLICATION_ID, Home::kNone, true},
    {KM_TAG_ATTESTATION_ID_BRAND, Home::kNone, true},
    {KM_TAG_ATTESTATION_ID_DEVICE, Home::kNone, true},
    {KM_TAG_ATTESTATION_ID_PRODUCT, Home::kNone, true},
    {KM_TAG_ATTESTATION_ID_SERIAL, Home::kNone, true},
    {KM_TAG_ATTESTATION_ID_IMEI, Home::kNone, true},
    {KM_TAG_ATTESTATION_ID_MEID, Home::kNone, true},
    {KM_TAG_ATTESTATION_ID_MANUFACTURER, Home::kNone, true},
    {KM_TAG_ATTESTATION_ID_MODEL, Home::kNone, true},
    {KM_TAG_VENDOR_PATCHLEVEL, Home::kNone, true},
    {KM_TAG_BOOT_PATCHLEVEL, Home::kNone, true},
    {KM_TAG_IDENTITY_CREDENTIAL_KEY, Home::kHardware, true},
    {KM_TAG_STORAGE_KEY, Home::kHardware, false},
};

// DescribeKey fills both characteristics lists of a key whose algorithm, key_size and curve are
// set, from its description, its origin and the current system version.
void DescribeKey(const ParamSet& description, uint32_t origin, Key* key);
// SetKeySystemVersion binds a key to the current system version.
void SetKeySystemVersion(Key* key);

// EncodeAuthorizationList writes the parameters that an attestation's AuthorizationList has a field
// for as DER, and leaves out the others. KM_TAG_ROOT_OF_TRUST is DER already.
Bytes EncodeAuthorizationList(const ParamSet& params);

}  // namespace ta

#endif  // TA_KEY_DESCRIPTION_H
