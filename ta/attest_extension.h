// The attestation extension's ASN.1: Android's KeyDescription, version 4, as DER.
#ifndef TA_ATTEST_EXTENSION_H
#define TA_ATTEST_EXTENSION_H

#include "ta/params.h"

namespace ta {

// The extension's object identifier.
constexpr char kKeyDescriptionOid[] = "1.3.6.1.4.1.11129.2.1.17";

// What a relying party learns about how the device booted.
struct RootOfTrust {
  Bytes verified_boot_key;  // 32 bytes
  bool device_locked = false;
  uint32_t verified_boot_state = 0;  // 0 verified, 1 self-signed, 2 unverified, 3 failed
  Bytes verified_boot_hash;          // 32 bytes
};

// EncodeRootOfTrust writes a RootOfTrust, as KM_TAG_ROOT_OF_TRUST carries it.
Bytes EncodeRootOfTrust(const RootOfTrust& root);

// EncodeAuthorizationList writes the parameters that an AuthorizationList has a field for, and
// leaves out the others. The bytes of KM_TAG_ROOT_OF_TRUST are those of EncodeRootOfTrust.
Bytes EncodeAuthorizationList(const ParamSet& params);

// EncodeKeyDescription writes the extension's value; unique_id may be empty.
Bytes EncodeKeyDescription(ByteView challenge, ByteView unique_id,
                           const ParamSet& software_enforced, const ParamSet& tee_enforced);

}  // namespace ta

#endif  // TA_ATTEST_EXTENSION_H
