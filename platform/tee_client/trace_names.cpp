#include "platform/tee_client/trace_names.h"

#include <hardware/keymaster_defs.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <sstream>

#include "wire/ta_protocol.h"

namespace {

using namespace km41;  // the protocol's constants

constexpr Content kHidden = Content::kSecret;
constexpr Content kPlain = Content::kPlain;
constexpr Content kOne = Content::kOneList;
constexpr Content kTwo = Content::kTwoLists;

constexpr CommandName kCommands[] = {
    {kCmdConfigure, "Configure", {kPlain, kPlain, kPlain, kPlain}},
    {kCmdGenerateKey, "GenerateKey", {kTwo, kPlain, kPlain, kTwo}},
    {kCmdGetKeyCharacteristics, "GetKeyCharacteristics", {kPlain, kTwo, kTwo, kPlain}},
    {kCmdImportKey, "ImportKey", {kTwo, kHidden, kPlain, kTwo}},
    {kCmdExportKey, "ExportKey", {kPlain, kTwo, kPlain, kPlain}},
    {kCmdAttestKey, "AttestKey", {kPlain, kTwo, kPlain, kPlain}},
    {kCmdUpgrade, "Upgrade", {kPlain, kTwo, kPlain, kPlain}},
    {kCmdBegin, "Begin", {kPlain, kTwo, kOne, kPlain}},
    {kCmdUpdate, "Update", {kTwo, kHidden, kOne, kHidden}},
    {kCmdFinish, "Finish", {kTwo, kHidden, kOne, kHidden}},
    {kCmdAbort, "Abort", {kPlain, kPlain, kPlain, kPlain}},
    {kCmdDeleteKey, "DeleteKey", {kPlain, kPlain, kPlain, kPlain}},
    {kCmdVerifyAuthorization, "VerifyAuthorization", {kTwo, kHidden, kOne, kHidden}},
    {kCmdEarlyBootEnded, "EarlyBootEnded", {kPlain, kPlain, kPlain, kPlain}},
    {kCmdDeviceLocked, "DeviceLocked", {kPlain, kPlain, kPlain, kPlain}},
    {kCmdGetHmacSharingParameters, "GetHmacSharingParameters", {kPlain, kPlain, kPlain, kPlain}},
    {kCmdComputeSharedHmac, "ComputeSharedHmac", {kPlain, kPlain, kPlain, kPlain}},
    {kCmdGetErrorRecord, "GetErrorRecord", {kPlain, kPlain, kPlain, kPlain}},
};
constexpr CommandName kUnknown = {0, "?", {kHidden, kHidden, kHidden, kHidden}};

// The names of tags whose numbers, without the type, follow one another.
constexpr struct {
  uint32_t first;
  const char* names;
} kTags[] = {
    {0,
     "INVALID PURPOSE ALGORITHM KEY_SIZE BLOCK_MODE DIGEST PADDING CALLER_NONCE MIN_MAC_LENGTH KDF "
     "EC_CURVE"},
    {200, "RSA_PUBLIC_EXPONENT ECIES_SINGLE_HASH_MODE INCLUDE_UNIQUE_ID"},
    {301, "BLOB_USAGE_REQUIREMENTS BOOTLOADER_ONLY ROLLBACK_RESISTANCE ? EARLY_BOOT_ONLY"},
    {400,
     "ACTIVE_DATETIME ORIGINATION_EXPIRE_DATETIME USAGE_EXPIRE_DATETIME MIN_SECONDS_BETWEEN_OPS "
     "MAX_USES_PER_BOOT"},
    {500,
     "ALL_USERS USER_ID USER_SECURE_ID NO_AUTH_REQUIRED USER_AUTH_TYPE AUTH_TIMEOUT "
     "ALLOW_WHILE_ON_BODY TRUSTED_USER_PRESENCE_REQUIRED TRUSTED_CONFIRMATION_REQUIRED "
     "UNLOCKED_DEVICE_REQUIRED"},
    {600, "ALL_APPLICATIONS APPLICATION_ID EXPORTABLE"},
    {700,
     "APPLICATION_DATA CREATION_DATETIME ORIGIN ROLLBACK_RESISTANT ROOT_OF_TRUST OS_VERSION "
     "OS_PATCHLEVEL UNIQUE_ID ATTESTATION_CHALLENGE ATTESTATION_APPLICATION_ID "
     "ATTESTATION_ID_BRAND ATTESTATION_ID_DEVICE ATTESTATION_ID_PRODUCT ATTESTATION_ID_SERIAL "
     "ATTESTATION_ID_IMEI ATTESTATION_ID_MEID ATTESTATION_ID_MANUFACTURER ATTESTATION_ID_MODEL "
     "VENDOR_PATCHLEVEL BOOT_PATCHLEVEL DEVICE_UNIQUE_ATTESTATION IDENTITY_CREDENTIAL_KEY "
     "STORAGE_KEY"},
    {1000,
     "ASSOCIATED_DATA NONCE AUTH_TOKEN MAC_LENGTH RESET_SINCE_ID_ROTATION CONFIRMATION_TOKEN"}};

}  // namespace

const CommandName& NameOfCommand(uint32_t id) {
  const auto* const found = std::find_if(std::begin(kCommands), std::end(kCommands),
                                         [id](const CommandName& name) { return name.id == id; });
  return found == std::end(kCommands) ? kUnknown : *found;
}

std::string NameOfTag(uint32_t tag) {
  const uint32_t number = tag & 0x0FFFFFFF;
  std::string name = "?";
  for (const auto& group : kTags) {
    std::istringstream names(group.names);
    std::string candidate;
    for (uint32_t i = group.first; names >> candidate; ++i) {
      if (i == number) name = candidate;
    }
  }
  char text[16];
  (void)snprintf(text, sizeof(text), " (0x%08x)", tag);
  return name + text;
}

bool IsSecretTag(uint32_t tag) {
  return tag == static_cast<uint32_t>(KM_TAG_APPLICATION_ID) ||
         tag == static_cast<uint32_t>(KM_TAG_APPLICATION_DATA) ||
         tag == static_cast<uint32_t>(KM_TAG_ASSOCIATED_DATA) ||
         tag == static_cast<uint32_t>(KM_TAG_AUTH_TOKEN);
}
