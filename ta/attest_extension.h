// The attestation extension's ASN.1: Android's KeyDescription, version 4, as DER.
#ifndef TA_ATTEST_EXTENSION_H
#define TA_ATTEST_EXTENSION_H

#include "ta/params.h"

namespace ta {

// The extension's object identifier.
constexpr char kKeyDescriptionOid[] = "1.3.6.1.4.1.11129.2.1.17";

// HostRootOfTrust is what KM_TAG_ROOT_OF_TRUST carries here: no key, unlocked, and, as a host has
// no verified boot, unverified.
Bytes HostRootOfTrust();

// EncodeAuthorizationList writes the parameters that an AuthorizationList has a field for, and
// leaves out the others. The bytes of KM_TAG_ROOT_OF_TRUST are those of HostRootOfTrust.
Bytes EncodeAuthorizationList(const ParamSet& params);

// EncodeKeyDescription writes the extension's value; unique_id may be empty.
Bytes EncodeKeyDescription(ByteView challenge, ByteView unique_id,
                           const ParamSet& software_enforced, const ParamSet& tee_enforced);

}  // namespace ta

#endif  // TA_ATTEST_EXTENSION_H
