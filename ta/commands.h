// The TA's command handlers. Each is called with parameter types that the command table allows,
// and returns a TEE result or a keymaster error as one.
#ifndef TA_COMMANDS_H
#define TA_COMMANDS_H

#include "result.h"

namespace ta {

// Configuration and keys.
TEEC_Result Configure(uint32_t types, TaParam params[4]);
TEEC_Result GenerateKey(uint32_t types, TaParam params[4]);
TEEC_Result GetKeyCharacteristics(uint32_t types, TaParam params[4]);
TEEC_Result ImportKey(uint32_t types, TaParam params[4]);
TEEC_Result ExportKey(uint32_t types, TaParam params[4]);
TEEC_Result AttestKey(uint32_t types, TaParam params[4]);
TEEC_Result UpgradeKey(uint32_t types, TaParam params[4]);
TEEC_Result DeleteKey(uint32_t types, TaParam params[4]);

// Operations.
TEEC_Result BeginOperation(uint32_t types, TaParam params[4]);
TEEC_Result UpdateOperation(uint32_t types, TaParam params[4]);
TEEC_Result FinishOperation(uint32_t types, TaParam params[4]);
TEEC_Result AbortOperation(uint32_t types, TaParam params[4]);

// Authorization, device state, HMAC sharing.
TEEC_Result VerifyAuthorization(uint32_t types, TaParam params[4]);
TEEC_Result EarlyBootEnded(uint32_t types, TaParam params[4]);
TEEC_Result DeviceLocked(uint32_t types, TaParam params[4]);
TEEC_Result GetHmacSharingParameters(uint32_t types, TaParam params[4]);
TEEC_Result ComputeSharedHmac(uint32_t types, TaParam params[4]);

// The session's own error record.
TEEC_Result GetErrorRecord(uint32_t types, TaParam params[4]);

}  // namespace ta

#endif  // TA_COMMANDS_H
