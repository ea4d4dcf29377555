// What an attestation's certificates say.
#ifndef KEYMASTERCTL_ATTESTATION_H
#define KEYMASTERCTL_ATTESTATION_H

#include <hardware/keymaster_defs.h>
#include <stdint.h>

#include <optional>
#include <string>

#include "files.h"

struct CertificateSummary {
  std::string subject;
  std::string issuer;
  std::string not_after;
};

// ReadCertificate reads a certificate in DER; throws a Failure for anything else.
CertificateSummary ReadCertificate(const keymaster_blob_t& der);

// What the extension of a leaf says first.
struct Attestation {
  int64_t version = 0;
  int64_t security_level = 0;
  int64_t keymaster_version = 0;
  int64_t keymaster_security_level = 0;
  Bytes challenge;
};

// ReadAttestation reads the extension of a leaf; nothing where there is none.
std::optional<Attestation> ReadAttestation(const keymaster_blob_t& der);

// SecurityLevelName returns software, trusted-environment, strongbox, or the number.
std::string SecurityLevelName(int64_t level);

#endif  // KEYMASTERCTL_ATTESTATION_H
