// The keymaster TA's protocol: the constants that the library, the TA and what stands between them
// share.
#ifndef WIRE_TA_PROTOCOL_H
#define WIRE_TA_PROTOCOL_H

#include <stdint.h>

namespace km41 {

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

// What a reply may hold, in bytes: of most commands, of attestation, and of the error record.
constexpr uint32_t kReplyCapacity = 4096;
constexpr uint32_t kChainCapacity = 8192;
constexpr uint32_t kErrorRecordCapacity = 1024;

// The wire form of one key parameter: tag, zero (4 bytes each), value (8 bytes).
constexpr uint32_t kParamEntrySize = 16;

// Key material, of RSA and EC keys: a header of 32-bit fields, and the integers behind it.
constexpr uint32_t kKeyMaterialCapacity = 4096;
constexpr uint32_t kRsaMaterialHeader = 36;
constexpr uint32_t kEcMaterialHeader = 20;

// The header of a raw public key: algorithm, key size in bits, and the lengths of two integers.
constexpr uint32_t kPublicKeyHeader = 16;

}  // namespace km41

#endif  // WIRE_TA_PROTOCOL_H
