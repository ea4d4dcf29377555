// Hardware auth tokens, as an authenticator of this device makes them, and HMAC sharing.
#ifndef KEYMASTERCTL_AUTH_TOKEN_H
#define KEYMASTERCTL_AUTH_TOKEN_H

#include <hardware/keymaster_defs.h>

#include <optional>
#include <string>
#include <vector>

#include "session.h"

struct AuthTokenArgs {
  uint64_t sid = 0;
  uint64_t authenticator_id = 0;
  uint32_t type = HW_AUTH_PASSWORD;
  uint64_t challenge = 0;
  std::optional<uint64_t> timestamp;  // milliseconds since boot; now by default
};

// SharingParameters returns the TA's part in HMAC sharing: seed and nonce, 32 bytes each.
Bytes SharingParameters(Session& session);

// JoinSharing sorts the TA's own parameters and those of the others, hexadecimal, into the one
// order that every participant uses. Throws a Failure for text that is not 64 bytes.
Bytes JoinSharing(const Bytes& own, const std::vector<std::string>& others);

// MakeAuthToken returns a token of 69 bytes, authenticated under the key that the holders of these
// sharing parameters share.
Bytes MakeAuthToken(const AuthTokenArgs& args, const Bytes& sharing);

#endif  // KEYMASTERCTL_AUTH_TOKEN_H
