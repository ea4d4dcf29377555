// The certificates of an attestation: the device's attestation authority and the leaf it signs.
#ifndef TA_ATTEST_CHAIN_H
#define TA_ATTEST_CHAIN_H

#include <openssl/x509.h>

#include "ta/evp.h"
#include "ta/key.h"

namespace ta {

using X509Ptr = std::unique_ptr<X509, CallFree<X509, X509_free>>;

// What signs leaf certificates: an EC P-256 intermediate under an EC P-256 root.
struct AttestationAuthority {
  PkeyPtr intermediate_key;
  X509Ptr intermediate;
  X509Ptr root;
};

// LoadOrCreateAuthority returns this device's authority, made the first time it is asked for and
// kept, with both keys, in the state folder: two processes that ask at once get the same one.
AttestationAuthority LoadOrCreateAuthority();

// BuildLeaf makes the certificate of an RSA or EC key, its purposes as key usage and its dates as
// validity, with key_description (DER) as the attestation extension.
X509Ptr BuildLeaf(const AttestationAuthority& authority, const Key& key, ByteView key_description);

}  // namespace ta

#endif  // TA_ATTEST_CHAIN_H
