// The TA's command handlers. Each is called with parameter types that the command table allows,
// and throws a Failure for any result but success.
#ifndef TA_COMMANDS_H
#define TA_COMMANDS_H

#include "ta/params.h"
#include "ta/result.h"

namespace ta {

// RequestOf reads the key parameters that a parameter carries; one that is left out has none.
ParamSet RequestOf(uint32_t types, const TaParam params[4], uint32_t index);

// Configuration and keys.
void Configure(uint32_t types, TaParam params[4]);
void GenerateKey(uint32_t types, TaParam params[4]);
void GetKeyCharacteristics(uint32_t types, TaParam params[4]);
void ImportKey(uint32_t types, TaParam params[4]);
void ExportKey(uint32_t types, TaParam params[4]);
void AttestKey(uint32_t types, TaParam params[4]);
void UpgradeKey(uint32_t types, TaParam params[4]);
void DeleteKey(uint32_t types, TaParam params[4]);

// Operations.
void BeginOperation(uint32_t types, TaParam params[4]);
void UpdateOperation(uint32_t types, TaParam params[4]);
void FinishOperation(uint32_t types, TaParam params[4]);
void AbortOperation(uint32_t types, TaParam params[4]);

// Authorization, device state, HMAC sharing.
void VerifyAuthorization(uint32_t types, TaParam params[4]);
void EarlyBootEnded(uint32_t types, TaParam params[4]);
void DeviceLocked(uint32_t types, TaParam params[4]);
void GetHmacSharingParameters(uint32_t types, TaParam params[4]);
void ComputeSharedHmac(uint32_t types, TaParam params[4]);

// The session's own error record.
void GetErrorRecord(uint32_t types, TaParam params[4]);

}  // namespace ta

#endif  // TA_COMMANDS_H
