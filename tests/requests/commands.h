// The TA's commands by name, with the parameter types that they have when nothing is left out.
#ifndef TESTS_REQUESTS_COMMANDS_H
#define TESTS_REQUESTS_COMMANDS_H

#include <tee_client_api.h>

#include "wire/ta_protocol.h"

namespace test {

struct Command {
  uint32_t id;
  const char* name;
  uint32_t types[4];
};

constexpr uint32_t kNone = TEEC_NONE, kIn = TEEC_MEMREF_TEMP_INPUT, kOut = TEEC_MEMREF_TEMP_OUTPUT,
                   kInOut = TEEC_MEMREF_TEMP_INOUT, kValue = TEEC_VALUE_INPUT,
                   kValueInOut = TEEC_VALUE_INOUT;

// clang-format off
constexpr Command kCommands[] = {
    {km41::kCmdConfigure, "Configure", {kValue, kNone, kNone, kNone}},
    {km41::kCmdGenerateKey, "GenerateKey", {kIn, kNone, kOut, kOut}},
    {km41::kCmdGetKeyCharacteristics, "GetKeyCharacteristics", {kIn, kIn, kOut, kNone}},
    {km41::kCmdImportKey, "ImportKey", {kIn, kIn, kOut, kInOut}},
    {km41::kCmdExportKey, "ExportKey", {kIn, kIn, kOut, kNone}},
    {km41::kCmdAttestKey, "AttestKey", {kIn, kIn, kOut, kNone}},
    {km41::kCmdUpgrade, "Upgrade", {kIn, kIn, kOut, kNone}},
    {km41::kCmdBegin, "Begin", {kIn, kIn, kOut, kValueInOut}},
    {km41::kCmdUpdate, "Update", {kIn, kIn, kInOut, kOut}},
    {km41::kCmdFinish, "Finish", {kIn, kIn, kInOut, kOut}},
    {km41::kCmdAbort, "Abort", {kIn, kNone, kNone, kNone}},
    {km41::kCmdDeleteKey, "DeleteKey", {kIn, kNone, kNone, kNone}},
    {km41::kCmdVerifyAuthorization, "VerifyAuthorization", {kIn, kIn, kInOut, kOut}},
    {km41::kCmdEarlyBootEnded, "EarlyBootEnded", {kNone, kNone, kNone, kNone}},
    {km41::kCmdDeviceLocked, "DeviceLocked", {kValue, kNone, kNone, kNone}},
    {km41::kCmdGetHmacSharingParameters, "GetHmacSharingParameters", {kOut, kOut, kNone, kNone}},
    {km41::kCmdComputeSharedHmac, "ComputeSharedHmac", {kIn, kOut, kNone, kNone}},
    {km41::kCmdGetErrorRecord, "GetErrorRecord", {kOut, kNone, kNone, kNone}},
};
// clang-format on

// FindCommand is null for a number that is none's.
inline const Command* FindCommand(uint32_t id) {
  for (const Command& command : kCommands) {
    if (command.id == id) return &command;
  }
  return nullptr;
}

// TypesOf is the parameter types as an operation declares them.
inline uint32_t TypesOf(const Command& command) {
  return TEEC_PARAM_TYPES(command.types[0], command.types[1], command.types[2], command.types[3]);
}

}  // namespace test

#endif  // TESTS_REQUESTS_COMMANDS_H
