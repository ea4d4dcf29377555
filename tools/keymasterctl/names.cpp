#include "names.h"

#include <ctype.h>

#include "errors.h"

namespace {

// Several names of one value may stand here; the first one is printed.
struct NamedValue {
  const char* name;
  uint32_t value;
};

constexpr NamedValue kPurposes[] = {{"encrypt", KM_PURPOSE_ENCRYPT},
                                    {"decrypt", KM_PURPOSE_DECRYPT},
                                    {"sign", KM_PURPOSE_SIGN},
                                    {"verify", KM_PURPOSE_VERIFY},
                                    {"derive-key", KM_PURPOSE_DERIVE_KEY},
                                    {"wrap-key", KM_PURPOSE_WRAP_KEY},
                                    {"wrap", KM_PURPOSE_WRAP_KEY}};
constexpr NamedValue kAlgorithms[] = {{"rsa", KM_ALGORITHM_RSA},
                                      {"ec", KM_ALGORITHM_EC},
                                      {"aes", KM_ALGORITHM_AES},
                                      {"3des", KM_ALGORITHM_TRIPLE_DES},
                                      {"hmac", KM_ALGORITHM_HMAC}};
constexpr NamedValue kModes[] = {
    {"ecb", KM_MODE_ECB}, {"cbc", KM_MODE_CBC}, {"ctr", KM_MODE_CTR}, {"gcm", KM_MODE_GCM}};
constexpr NamedValue kDigests[] = {{"none", KM_DIGEST_NONE},        {"md5", KM_DIGEST_MD5},
                                   {"sha1", KM_DIGEST_SHA1},        {"sha224", KM_DIGEST_SHA_2_224},
                                   {"sha256", KM_DIGEST_SHA_2_256}, {"sha384", KM_DIGEST_SHA_2_384},
                                   {"sha512", KM_DIGEST_SHA_2_512}};
constexpr NamedValue kPaddings[] = {{"none", KM_PAD_NONE},
                                    {"oaep", KM_PAD_RSA_OAEP},
                                    {"pss", KM_PAD_RSA_PSS},
                                    {"pkcs1-encrypt", KM_PAD_RSA_PKCS1_1_5_ENCRYPT},
                                    {"pkcs1-sign", KM_PAD_RSA_PKCS1_1_5_SIGN},
                                    {"pkcs7", KM_PAD_PKCS7},
                                    {"pkcs1", kPadPkcs1ByUse}};
constexpr NamedValue kCurves[] = {
    {"p224", KM_EC_CURVE_P_224},       {"p256", KM_EC_CURVE_P_256},
    {"p384", KM_EC_CURVE_P_384},       {"p521", KM_EC_CURVE_P_521},
    {"secp224r1", KM_EC_CURVE_P_224},  {"secp256r1", KM_EC_CURVE_P_256},
    {"prime256v1", KM_EC_CURVE_P_256}, {"secp384r1", KM_EC_CURVE_P_384},
    {"secp521r1", KM_EC_CURVE_P_521}};
constexpr NamedValue kOrigins[] = {{"generated", KM_ORIGIN_GENERATED},
                                   {"derived", KM_ORIGIN_DERIVED},
                                   {"imported", KM_ORIGIN_IMPORTED},
                                   {"unknown", KM_ORIGIN_UNKNOWN},
                                   {"securely-imported", KM_ORIGIN_SECURELY_IMPORTED}};
constexpr NamedValue kAuthTypes[] = {
    {"none", HW_AUTH_NONE},
    {"password", HW_AUTH_PASSWORD},
    {"fingerprint", HW_AUTH_FINGERPRINT},
    {"biometric", HW_AUTH_FINGERPRINT},
    {"password-or-fingerprint", HW_AUTH_PASSWORD | HW_AUTH_FINGERPRINT},
    {"any", static_cast<uint32_t>(HW_AUTH_ANY)}};
constexpr NamedValue kBlobUsages[] = {{"standalone", KM_BLOB_STANDALONE},
                                      {"requires-file-system", KM_BLOB_REQUIRES_FILE_SYSTEM}};

struct TagRow {
  keymaster_tag_t tag;
  const char* name;
  const NamedValue* values;
  size_t value_count;
};

#define KM_PLAIN(tag, name) \
  { tag, name, nullptr, 0 }
#define KM_ENUMERATED(tag, name, values) \
  { tag, name, values, sizeof(values) / sizeof(values[0]) }

constexpr TagRow kTags[] = {
    KM_PLAIN(KM_TAG_INVALID, "invalid"),
    KM_ENUMERATED(KM_TAG_PURPOSE, "purpose", kPurposes),
    KM_ENUMERATED(KM_TAG_ALGORITHM, "algorithm", kAlgorithms),
    KM_PLAIN(KM_TAG_KEY_SIZE, "key-size"),
    KM_ENUMERATED(KM_TAG_BLOCK_MODE, "block-mode", kModes),
    KM_ENUMERATED(KM_TAG_DIGEST, "digest", kDigests),
    KM_ENUMERATED(KM_TAG_PADDING, "padding", kPaddings),
    KM_PLAIN(KM_TAG_CALLER_NONCE, "caller-nonce"),
    KM_PLAIN(KM_TAG_MIN_MAC_LENGTH, "min-mac-length"),
    KM_PLAIN(KM_TAG_KDF, "kdf"),
    KM_ENUMERATED(KM_TAG_EC_CURVE, "ec-curve", kCurves),
    KM_PLAIN(KM_TAG_RSA_PUBLIC_EXPONENT, "rsa-public-exponent"),
    KM_PLAIN(KM_TAG_ECIES_SINGLE_HASH_MODE, "ecies-single-hash-mode"),
    KM_PLAIN(KM_TAG_INCLUDE_UNIQUE_ID, "include-unique-id"),
    KM_ENUMERATED(KM_TAG_BLOB_USAGE_REQUIREMENTS, "blob-usage-requirements", kBlobUsages),
    KM_PLAIN(KM_TAG_BOOTLOADER_ONLY, "bootloader-only"),
    KM_PLAIN(KM_TAG_ROLLBACK_RESISTANCE, "rollback-resistance"),
    KM_PLAIN(KM_TAG_EARLY_BOOT_ONLY, "early-boot-only"),
    KM_PLAIN(KM_TAG_ACTIVE_DATETIME, "active-datetime"),
    KM_PLAIN(KM_TAG_ORIGINATION_EXPIRE_DATETIME, "origination-expire-datetime"),
    KM_PLAIN(KM_TAG_USAGE_EXPIRE_DATETIME, "usage-expire-datetime"),
    KM_PLAIN(KM_TAG_MIN_SECONDS_BETWEEN_OPS, "min-seconds-between-ops"),
    KM_PLAIN(KM_TAG_MAX_USES_PER_BOOT, "max-uses-per-boot"),
    KM_PLAIN(KM_TAG_ALL_USERS, "all-users"),
    KM_PLAIN(KM_TAG_USER_ID, "user-id"),
    KM_PLAIN(KM_TAG_USER_SECURE_ID, "user-secure-id"),
    KM_PLAIN(KM_TAG_NO_AUTH_REQUIRED, "no-auth-required"),
    KM_ENUMERATED(KM_TAG_USER_AUTH_TYPE, "user-auth-type", kAuthTypes),
    KM_PLAIN(KM_TAG_AUTH_TIMEOUT, "auth-timeout"),
    KM_PLAIN(KM_TAG_ALLOW_WHILE_ON_BODY, "allow-while-on-body"),
    KM_PLAIN(KM_TAG_TRUSTED_USER_PRESENCE_REQUIRED, "trusted-user-presence-required"),
    KM_PLAIN(KM_TAG_TRUSTED_CONFIRMATION_REQUIRED, "trusted-confirmation-required"),
    KM_PLAIN(KM_TAG_UNLOCKED_DEVICE_REQUIRED, "unlocked-device-required"),
    KM_PLAIN(KM_TAG_ALL_APPLICATIONS, "all-applications"),
    KM_PLAIN(KM_TAG_APPLICATION_ID, "application-id"),
    KM_PLAIN(KM_TAG_EXPORTABLE, "exportable"),
    KM_PLAIN(KM_TAG_APPLICATION_DATA, "application-data"),
    KM_PLAIN(KM_TAG_CREATION_DATETIME, "creation-datetime"),
    KM_ENUMERATED(KM_TAG_ORIGIN, "origin", kOrigins),
    KM_PLAIN(KM_TAG_ROLLBACK_RESISTANT, "rollback-resistant"),
    KM_PLAIN(KM_TAG_ROOT_OF_TRUST, "root-of-trust"),
    KM_PLAIN(KM_TAG_OS_VERSION, "os-version"),
    KM_PLAIN(KM_TAG_OS_PATCHLEVEL, "os-patchlevel"),
    KM_PLAIN(KM_TAG_UNIQUE_ID, "unique-id"),
    KM_PLAIN(KM_TAG_ATTESTATION_CHALLENGE, "attestation-challenge"),
    KM_PLAIN(KM_TAG_ATTESTATION_APPLICATION_ID, "attestation-application-id"),
    KM_PLAIN(KM_TAG_ATTESTATION_ID_BRAND, "attestation-id-brand"),
    KM_PLAIN(KM_TAG_ATTESTATION_ID_DEVICE, "attestation-id-device"),
    KM_PLAIN(KM_TAG_ATTESTATION_ID_PRODUCT, "attestation-id-product"),
    KM_PLAIN(KM_TAG_ATTESTATION_ID_SERIAL, "attestation-id-serial"),
    KM_PLAIN(KM_TAG_ATTESTATION_ID_IMEI, "attestation-id-imei"),
    KM_PLAIN(KM_TAG_ATTESTATION_ID_MEID, "attestation-id-meid"),
    KM_PLAIN(KM_TAG_ATTESTATION_ID_MANUFACTURER, "attestation-id-manufacturer"),
    KM_PLAIN(KM_TAG_ATTESTATION_ID_MODEL, "attestation-id-model"),
    KM_PLAIN(KM_TAG_VENDOR_PATCHLEVEL, "vendor-patchlevel"),
    KM_PLAIN(KM_TAG_BOOT_PATCHLEVEL, "boot-patchlevel"),
    KM_PLAIN(KM_TAG_DEVICE_UNIQUE_ATTESTATION, "device-unique-attestation"),
    KM_PLAIN(KM_TAG_IDENTITY_CREDENTIAL_KEY, "identity-credential-key"),
    KM_PLAIN(KM_TAG_STORAGE_KEY, "storage-key"),
    KM_PLAIN(KM_TAG_ASSOCIATED_DATA, "associated-data"),
    KM_PLAIN(KM_TAG_NONCE, "nonce"),
    KM_PLAIN(KM_TAG_AUTH_TOKEN, "auth-token"),
    KM_PLAIN(KM_TAG_MAC_LENGTH, "mac-length"),
    KM_PLAIN(KM_TAG_RESET_SINCE_ID_ROTATION, "reset-since-id-rotation"),
    KM_PLAIN(KM_TAG_CONFIRMATION_TOKEN, "confirmation-token"),
};

const TagRow* FindRow(keymaster_tag_t tag) {
  for (const TagRow& row : kTags) {
    if (row.tag == tag) return &row;
  }
  return nullptr;
}

// The spelling that names are compared in: "SHA-256", "sha_256" and "sha256" are one.
std::string Plain(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (isalnum(static_cast<unsigned char>(c))) {
      out += static_cast<char>(tolower(static_cast<unsigned char>(c)));
    }
  }
  return out;
}

}  // namespace

std::string TagName(keymaster_tag_t tag) {
  const TagRow* row = FindRow(tag);
  return row != nullptr ? row->name : "tag-" + std::to_string(static_cast<uint32_t>(tag));
}

keymaster_tag_t TagByName(const std::string& name) {
  for (const TagRow& row : kTags) {
    if (Plain(row.name) == Plain(name)) return row.tag;
  }
  throw UsageFailure("no parameter is named '" + name + "'");
}

std::string ValueName(keymaster_tag_t tag, uint32_t value) {
  const TagRow* row = FindRow(tag);
  for (size_t i = 0; row != nullptr && i < row->value_count; ++i) {
    if (row->values[i].value == value) return row->values[i].name;
  }
  return std::to_string(value);
}

std::optional<uint32_t> ValueByName(keymaster_tag_t tag, const std::string& name) {
  const TagRow* row = FindRow(tag);
  for (size_t i = 0; row != nullptr && i < row->value_count; ++i) {
    if (Plain(row->values[i].name) == Plain(name)) return row->values[i].value;
  }
  return std::nullopt;
}

std::string ValueNames(keymaster_tag_t tag) {
  const TagRow* row = FindRow(tag);
  std::string out;
  for (size_t i = 0; row != nullptr && i < row->value_count; ++i) {
    const NamedValue& value = row->values[i];
    if (ValueName(tag, value.value) != value.name) continue;
    out += std::string(out.empty() ? "" : "|") + value.name;
  }
  return out;
}
