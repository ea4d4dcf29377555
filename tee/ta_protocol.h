// The constants of the keymaster TA's protocol: all that the library and the TA share.
#ifndef TEE_TA_PROTOCOL_H
#define TEE_TA_PROTOCOL_H

#include <stdint.h>

// Every byte of the keymaster TA's UUID.
constexpr uint8_t kKeymasterTaUuidByte = 0x07;

// The login method of a session to the keymaster TA.
constexpr uint32_t kKeymasterLoginMethod = 7;

// What the TA writes into params[0].value.a of an open for a session that it keeps as its first.
constexpr uint32_t kFirstSession = 1;

enum TaCommandId : uint32_t {
  kCmdConfigure = 1,
  kCmdGenerateKey = 2,
  kCmdGetKeyCharacteristics = 3,
  kCmdImportKey = 4,
  kCmdExportKey = 5,
  kCmdAttestKey = 6,
  kCmdUpgrade = 7,
  kCmdBegin = 8,
  kCmdUpdate = 9,
  kCmdFinish = 10,
  kCmdAbort = 11,
  kCmdDeleteKey = 31,
  kCmdVerifyAuthorization = 39,
  kCmdEarlyBootEnded = 40,
  kCmdDeviceLocked = 41,
  kCmdGetHmacSharingParameters = 64,
  kCmdComputeSharedHmac = 65,
  kCmdGetErrorRecord = 66,
};

#endif  // TEE_TA_PROTOCOL_H
