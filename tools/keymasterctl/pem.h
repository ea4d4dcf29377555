// Keys and certificates between PEM and DER.
#ifndef KEYMASTERCTL_PEM_H
#define KEYMASTERCTL_PEM_H

#include <hardware/keymaster_defs.h>

#include <optional>

#include "files.h"

// ToPem returns DER bytes as PEM under that label.
Bytes ToPem(const char* label, const keymaster_blob_t& der);

// A private key to import and what it says about itself.
struct PrivateKey {
  Bytes pkcs8;
  uint32_t algorithm = 0;  // KM_ALGORITHM_RSA or KM_ALGORITHM_EC
  uint32_t size = 0;       // bits
  std::optional<uint64_t> exponent;
};

// ReadPrivateKey decodes an unencrypted RSA or EC key in PEM or DER, PKCS#8 or the older forms.
// Throws a Failure for anything else. The caller wipes the bytes.
PrivateKey ReadPrivateKey(const Bytes& bytes);

#endif  // KEYMASTERCTL_PEM_H
