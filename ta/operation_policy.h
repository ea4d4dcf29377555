// Who may use a key, for what and when.
#ifndef TA_OPERATION_POLICY_H
#define TA_OPERATION_POLICY_H

#include "ta/key.h"

namespace ta {

// AuthorizeBegin checks what a key demands of an operation's beginning: its purpose, its dates, the
// device's state, and a recent auth token when the key's authentication lasts for a time. Using a
// public key takes no more than the purpose.
void AuthorizeBegin(uint32_t purpose, const Key& key, const ParamSet& params);

// NeedsTokenPerOperation tells whether each update and finish must bring an auth token made for
// this very operation.
bool NeedsTokenPerOperation(uint32_t purpose, const Key& key);
// AuthorizeContinuation checks that token: its challenge is the operation's handle. demands holds
// the key's hardware-enforced parameters.
void AuthorizeContinuation(uint64_t handle, const ParamSet& demands, const ParamSet& params);

// UsesPublicKey tells whether the purpose needs only a key's public half.
bool UsesPublicKey(uint32_t purpose, const Key& key);

}  // namespace ta

#endif  // TA_OPERATION_POLICY_H
