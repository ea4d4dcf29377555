#include "platform/tee_client/trace_text.h"

#include <hardware/keymaster_defs.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <sstream>
#include <utility>
#include <vector>

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

// NameOfTag returns a tag's name, "?" when there is none, and its number.
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

// IsSecretTag tells whether whoever knows the value may use the key it is for.
bool IsSecretTag(uint32_t tag) {
  constexpr keymaster_tag_t kSecret[] = {KM_TAG_APPLICATION_ID, KM_TAG_APPLICATION_DATA,
                                         KM_TAG_ASSOCIATED_DATA, KM_TAG_AUTH_TOKEN};
  return std::count(std::begin(kSecret), std::end(kSecret), static_cast<keymaster_tag_t>(tag)) != 0;
}

constexpr uint64_t kCountSize = 4;
constexpr uint64_t kEntrySize = 16;

uint64_t ReadLe(const uint8_t* at, uint32_t width) {
  uint64_t value = 0;
  std::memcpy(&value, at, width);
  return value;
}

struct Blobs {
  const uint8_t* data;
  uint64_t size;
  bool with_secrets;
};

std::string BytesText(uint32_t tag, uint64_t offset, uint64_t length, const Blobs& blobs) {
  std::string text = std::to_string(length) + " bytes";
  if (length == 0) return text;
  if (offset > blobs.size || length > blobs.size - offset) return text + " outside the buffer";
  if (IsSecretTag(tag) && !blobs.with_secrets) return text;
  return text + " " + FirstBytes(blobs.data + offset, static_cast<uint32_t>(length));
}

std::string ValueText(uint32_t tag, const uint8_t* value, const Blobs& blobs) {
  const auto type = static_cast<keymaster_tag_type_t>(tag & 0xF0000000);
  if (type == KM_BYTES || type == KM_BIGNUM) {
    return BytesText(tag, ReadLe(value, 4), ReadLe(value + 4, 4), blobs);
  }
  if (type == KM_BOOL) return value[0] != 0 ? "true" : "false";
  const bool is_long = type == KM_ULONG || type == KM_ULONG_REP || type == KM_DATE;
  return std::to_string(ReadLe(value, is_long ? 8 : 4));
}

}  // namespace

const CommandName& NameOfCommand(uint32_t id) {
  const auto* const found = std::find_if(std::begin(kCommands), std::end(kCommands),
                                         [id](const CommandName& name) { return name.id == id; });
  return found == std::end(kCommands) ? kUnknown : *found;
}

std::string Hex(const uint8_t* data, uint32_t size) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (uint32_t i = 0; i < size; ++i) {
    text += kDigits[data[i] >> 4];
    text += kDigits[data[i] & 0xF];
  }
  return text;
}

std::string FirstBytes(const uint8_t* data, uint32_t size) {
  constexpr uint32_t kShown = 16;
  return Hex(data, std::min(size, kShown)) + (size > kShown ? ".." : "");
}

std::string DecodeKeyParams(const std::string& label, const uint8_t* data, uint32_t size,
                            uint32_t lists, bool with_secrets) {
  std::vector<std::pair<uint32_t, const uint8_t*>> entries;  // and the list that each is in
  uint64_t position = 0;
  for (uint32_t list = 1; list <= lists; ++list) {
    const uint64_t left = size - position;
    const uint64_t count = left < kCountSize ? 0 : ReadLe(data + position, kCountSize);
    if (left < kCountSize || count > (left - kCountSize) / kEntrySize) {
      return label + " is no list of parameters\n";
    }
    position += kCountSize;
    for (uint64_t i = 0; i < count; ++i, position += kEntrySize) {
      entries.emplace_back(list, data + position);
    }
  }
  const Blobs blobs = {data + position, size - position, with_secrets};
  std::string text;
  for (const auto& [list, entry] : entries) {
    const auto tag = static_cast<uint32_t>(ReadLe(entry, 4));
    text += label + " list " + std::to_string(list) + ": " + NameOfTag(tag) + " = " +
            ValueText(tag, entry + 8, blobs) + "\n";
  }
  return text;
}
