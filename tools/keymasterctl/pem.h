// Keys and certificates between PEM and DER.
#ifndef KEYMASTERCTL_PEM_H
#define KEYMASTERCTL_PEM_H

#include <hardware/keymaster_defs.h>

#include "tools/keymasterctl/files.h"
#include "tools/keymasterctl/key.h"

// ToPem returns DER bytes as PEM under that label.
Bytes ToPem(const char* label, const keymaster_blob_t& der);

// A private key to import and what it says about itself.
struct PrivateKey {
  Bytes pkcs8;
  KeyFacts facts;
};

// ReadPrivateKey decodes an unencrypted RSA or EC key in PEM or DER, PKCS#8 or the older forms.
// Throws a Failure for anything else.
PrivateKey ReadPrivateKey(const Bytes& bytes);

#endif  // KEYMASTERCTL_PEM_H
