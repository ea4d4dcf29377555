// The TA's command handlers. Each is called with parameter types that the command table allows,
// and throws a Failure for any result but success.
#ifndef TA_COMMANDS_H
#define TA_COMMANDS_H

#include "ta/params.h"
#include "ta/result.h"

namespace ta {

// RequestOf reads the key parameters that a parameter carries; one that is left out has none.
ParamSet RequestOf(uint32_t types, const TaParam params[4], uint32_t index);

using Handler = void(uint32_t types, TaParam params[4]);

// Configuration and keys.
Handler Configure, GenerateKey, GetKeyCharacteristics, ImportKey, ExportKey, AttestKey, UpgradeKey,
    DeleteKey;
// Operations.
Handler BeginOperation, UpdateOperation, FinishOperation, AbortOperation;
// Authorization, device state, HMAC sharing.
Handler VerifyAuthorization, EarlyBootEnded, DeviceLocked, GetHmacSharingParameters,
    ComputeSharedHmac;
// The session's own error record.
Handler GetErrorRecord;

}  // namespace ta

#endif  // TA_COMMANDS_H
