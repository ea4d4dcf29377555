// Hardware auth tokens, as an authenticator of this device makes them, and HMAC sharing.
#ifndef KEYMASTERCTL_AUTH_TOKEN_H
#define KEYMASTERCTL_AUTH_TOKEN_H

#include <hardware/keymaster_defs.h>

#include <optional>
#include <string>
#include <vector>

#include "tools/keymasterctl/session.h"

// SharingParameters returns the TA's part in HMAC sharing: seed and nonce, 32 bytes each.
Bytes SharingParameters(Session* session);

// JoinSharing sorts the TA's own parameters and those of the others, hexadecimal, into the one
// order that every participant uses. Throws a Failure for text that is not 64 bytes.
Bytes JoinSharing(const Bytes& own, const std::vector<std::string>& others);

// MakeAuthToken returns a token with these fields, in this machine's byte order, authenticated
// under the key that the holders of these sharing parameters share: 69 bytes.
Bytes MakeAuthToken(hw_auth_token_t token, const Bytes& sharing);

// ReadAuthToken returns the fields of such bytes; nothing where they are no token.
std::optional<hw_auth_token_t> ReadAuthToken(const Bytes& bytes);

// MillisecondsSinceBoot is the clock of tokens.
uint64_t MillisecondsSinceBoot();

#endif  // KEYMASTERCTL_AUTH_TOKEN_H
