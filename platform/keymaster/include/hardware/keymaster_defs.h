// The platform's keymaster C types: tags, enumerations, error codes and structures of the
// Keymaster 4.1 generation.
#ifndef HARDWARE_KEYMASTER_DEFS_H
#define HARDWARE_KEYMASTER_DEFS_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// The type of a tag's value: the top four bits of the tag.
typedef enum {
  KM_INVALID = 0 << 28,
  KM_ENUM = 1 << 28,
  KM_ENUM_REP = 2 << 28,
  KM_UINT = 3 << 28,
  KM_UINT_REP = 4 << 28,
  KM_ULONG = 5 << 28,
  KM_DATE = 6 << 28,
  KM_BOOL = 7 << 28,
  KM_BIGNUM = (int)(8u << 28),
  KM_BYTES = (int)(9u << 28),
  KM_ULONG_REP = (int)(10u << 28),
} keymaster_tag_type_t;

typedef enum {
  KM_TAG_INVALID = KM_INVALID | 0,

  // Cryptographic parameters.
  KM_TAG_PURPOSE = KM_ENUM_REP | 1,
  KM_TAG_ALGORITHM = KM_ENUM | 2,
  KM_TAG_KEY_SIZE = KM_UINT | 3,
  KM_TAG_BLOCK_MODE = KM_ENUM_REP | 4,
  KM_TAG_DIGEST = KM_ENUM_REP | 5,
  KM_TAG_PADDING = KM_ENUM_REP | 6,
  KM_TAG_CALLER_NONCE = KM_BOOL | 7,
  KM_TAG_MIN_MAC_LENGTH = KM_UINT | 8,
  KM_TAG_KDF = KM_ENUM_REP | 9,
  KM_TAG_EC_CURVE = KM_ENUM | 10,

  // Algorithm-specific.
  KM_TAG_RSA_PUBLIC_EXPONENT = KM_ULONG | 200,
  KM_TAG_ECIES_SINGLE_HASH_MODE = KM_BOOL | 201,
  KM_TAG_INCLUDE_UNIQUE_ID = KM_BOOL | 202,

  // Blob and boot requirements.
  KM_TAG_BLOB_USAGE_REQUIREMENTS = KM_ENUM | 301,
  KM_TAG_BOOTLOADER_ONLY = KM_BOOL | 302,
  KM_TAG_ROLLBACK_RESISTANCE = KM_BOOL | 303,
  KM_TAG_EARLY_BOOT_ONLY = KM_BOOL | 305,

  // Access control.
  KM_TAG_ACTIVE_DATETIME = KM_DATE | 400,
  KM_TAG_ORIGINATION_EXPIRE_DATETIME = KM_DATE | 401,
  KM_TAG_USAGE_EXPIRE_DATETIME = KM_DATE | 402,
  KM_TAG_MIN_SECONDS_BETWEEN_OPS = KM_UINT | 403,
  KM_TAG_MAX_USES_PER_BOOT = KM_UINT | 404,

  // User authentication.
  KM_TAG_ALL_USERS = KM_BOOL | 500,
  KM_TAG_USER_ID = KM_UINT | 501,
  KM_TAG_USER_SECURE_ID = KM_ULONG_REP | 502,
  KM_TAG_NO_AUTH_REQUIRED = KM_BOOL | 503,
  KM_TAG_USER_AUTH_TYPE = KM_ENUM | 504,
  KM_TAG_AUTH_TIMEOUT = KM_UINT | 505,
  KM_TAG_ALLOW_WHILE_ON_BODY = KM_BOOL | 506,
  KM_TAG_TRUSTED_USER_PRESENCE_REQUIRED = KM_BOOL | 507,
  KM_TAG_TRUSTED_CONFIRMATION_REQUIRED = KM_BOOL | 508,
  KM_TAG_UNLOCKED_DEVICE_REQUIRED = KM_BOOL | 509,

  // Application access control.
  KM_TAG_ALL_APPLICATIONS = KM_BOOL | 600,
  KM_TAG_APPLICATION_ID = KM_BYTES | 601,
  KM_TAG_EXPORTABLE = KM_BOOL | 602,

  // Written by the TA.
  KM_TAG_APPLICATION_DATA = KM_BYTES | 700,
  KM_TAG_CREATION_DATETIME = KM_DATE | 701,
  KM_TAG_ORIGIN = KM_ENUM | 702,
  KM_TAG_ROLLBACK_RESISTANT = KM_BOOL | 703,
  KM_TAG_ROOT_OF_TRUST = KM_BYTES | 704,
  KM_TAG_OS_VERSION = KM_UINT | 705,
  KM_TAG_OS_PATCHLEVEL = KM_UINT | 706,
  KM_TAG_UNIQUE_ID = KM_BYTES | 707,
  KM_TAG_ATTESTATION_CHALLENGE = KM_BYTES | 708,
  KM_TAG_ATTESTATION_APPLICATION_ID = KM_BYTES | 709,
  KM_TAG_ATTESTATION_ID_BRAND = KM_BYTES | 710,
  KM_TAG_ATTESTATION_ID_DEVICE = KM_BYTES | 711,
  KM_TAG_ATTESTATION_ID_PRODUCT = KM_BYTES | 712,
  KM_TAG_ATTESTATION_ID_SERIAL = KM_BYTES | 713,
  KM_TAG_ATTESTATION_ID_IMEI = KM_BYTES | 714,
  KM_TAG_ATTESTATION_ID_MEID = KM_BYTES | 715,
  KM_TAG_ATTESTATION_ID_MANUFACTURER = KM_BYTES | 716,
  KM_TAG_ATTESTATION_ID_MODEL = KM_BYTES | 717,
  KM_TAG_VENDOR_PATCHLEVEL = KM_UINT | 718,
  KM_TAG_BOOT_PATCHLEVEL = KM_UINT | 719,
  KM_TAG_DEVICE_UNIQUE_ATTESTATION = KM_BOOL | 720,
  KM_TAG_IDENTITY_CREDENTIAL_KEY = KM_BOOL | 721,
  KM_TAG_STORAGE_KEY = KM_BOOL | 722,

  // Operation parameters.
  KM_TAG_ASSOCIATED_DATA = KM_BYTES | 1000,
  KM_TAG_NONCE = KM_BYTES | 1001,
  KM_TAG_AUTH_TOKEN = KM_BYTES | 1002,
  KM_TAG_MAC_LENGTH = KM_UINT | 1003,
  KM_TAG_RESET_SINCE_ID_ROTATION = KM_BOOL | 1004,
  KM_TAG_CONFIRMATION_TOKEN = KM_BYTES | 1005,
} keymaster_tag_t;

typedef enum {
  KM_ALGORITHM_RSA = 1,
  KM_ALGORITHM_EC = 3,
  KM_ALGORITHM_AES = 32,
  KM_ALGORITHM_TRIPLE_DES = 33,
  KM_ALGORITHM_HMAC = 128,
} keymaster_algorithm_t;

typedef enum {
  KM_MODE_ECB = 1,
  KM_MODE_CBC = 2,
  KM_MODE_CTR = 3,
  KM_MODE_GCM = 32,
} keymaster_block_mode_t;

typedef enum {
  KM_PAD_NONE = 1,
  KM_PAD_RSA_OAEP = 2,
  KM_PAD_RSA_PSS = 3,
  KM_PAD_RSA_PKCS1_1_5_ENCRYPT = 4,
  KM_PAD_RSA_PKCS1_1_5_SIGN = 5,
  KM_PAD_PKCS7 = 64,
} keymaster_padding_t;

typedef enum {
  KM_DIGEST_NONE = 0,
  KM_DIGEST_MD5 = 1,
  KM_DIGEST_SHA1 = 2,
  KM_DIGEST_SHA_2_224 = 3,
  KM_DIGEST_SHA_2_256 = 4,
  KM_DIGEST_SHA_2_384 = 5,
  KM_DIGEST_SHA_2_512 = 6,
} keymaster_digest_t;

typedef enum {
  KM_EC_CURVE_P_224 = 0,
  KM_EC_CURVE_P_256 = 1,
  KM_EC_CURVE_P_384 = 2,
  KM_EC_CURVE_P_521 = 3,
} keymaster_ec_curve_t;

typedef enum {
  KM_ORIGIN_GENERATED = 0,
  KM_ORIGIN_DERIVED = 1,
  KM_ORIGIN_IMPORTED = 2,
  KM_ORIGIN_UNKNOWN = 3,
  KM_ORIGIN_SECURELY_IMPORTED = 4,
} keymaster_key_origin_t;

typedef enum {
  KM_BLOB_STANDALONE = 0,
  KM_BLOB_REQUIRES_FILE_SYSTEM = 1,
} keymaster_key_blob_usage_requirements_t;

typedef enum {
  KM_PURPOSE_ENCRYPT = 0,
  KM_PURPOSE_DECRYPT = 1,
  KM_PURPOSE_SIGN = 2,
  KM_PURPOSE_VERIFY = 3,
  KM_PURPOSE_DERIVE_KEY = 4,
  KM_PURPOSE_WRAP_KEY = 5,
} keymaster_purpose_t;

typedef enum {
  KM_KEY_FORMAT_X509 = 0,
  KM_KEY_FORMAT_PKCS8 = 1,
  KM_KEY_FORMAT_RAW = 3,
} keymaster_key_format_t;

typedef enum {
  KM_SECURITY_LEVEL_SOFTWARE = 0,
  KM_SECURITY_LEVEL_TRUSTED_ENVIRONMENT = 1,
  KM_SECURITY_LEVEL_STRONGBOX = 2,
} keymaster_security_level_t;

typedef enum {
  HW_AUTH_NONE = 0,
  HW_AUTH_PASSWORD = 1 << 0,
  HW_AUTH_FINGERPRINT = 1 << 1,
  HW_AUTH_ANY = -1,
} hw_authenticator_type_t;

// A hardware auth token as it travels in KM_TAG_AUTH_TOKEN: 69 packed bytes. timestamp is
// big-endian, the rest in the device's order, which is little-endian. Authenticators elsewhere
// write authenticator_type big-endian too; a wrapped import reads it in the device's order, and
// finds no type in such a token.
typedef struct __attribute__((packed)) {
  uint8_t version;
  uint64_t challenge;
  uint64_t user_id;
  uint64_t authenticator_id;
  uint32_t authenticator_type;
  uint64_t timestamp;
  uint8_t hmac[32];
} hw_auth_token_t;

typedef enum {
  KM_ERROR_OK = 0,
  KM_ERROR_ROOT_OF_TRUST_ALREADY_SET = -1,
  KM_ERROR_UNSUPPORTED_PURPOSE = -2,
  KM_ERROR_INCOMPATIBLE_PURPOSE = -3,
  KM_ERROR_UNSUPPORTED_ALGORITHM = -4,
  KM_ERROR_INCOMPATIBLE_ALGORITHM = -5,
  KM_ERROR_UNSUPPORTED_KEY_SIZE = -6,
  KM_ERROR_UNSUPPORTED_BLOCK_MODE = -7,
  KM_ERROR_INCOMPATIBLE_BLOCK_MODE = -8,
  KM_ERROR_UNSUPPORTED_MAC_LENGTH = -9,
  KM_ERROR_UNSUPPORTED_PADDING_MODE = -10,
  KM_ERROR_INCOMPATIBLE_PADDING_MODE = -11,
  KM_ERROR_UNSUPPORTED_DIGEST = -12,
  KM_ERROR_INCOMPATIBLE_DIGEST = -13,
  KM_ERROR_INVALID_EXPIRATION_TIME = -14,
  KM_ERROR_INVALID_USER_ID = -15,
  KM_ERROR_INVALID_AUTHORIZATION_TIMEOUT = -16,
  KM_ERROR_UNSUPPORTED_KEY_FORMAT = -17,
  KM_ERROR_INCOMPATIBLE_KEY_FORMAT = -18,
  KM_ERROR_UNSUPPORTED_KEY_ENCRYPTION_ALGORITHM = -19,
  KM_ERROR_UNSUPPORTED_KEY_VERIFICATION_ALGORITHM = -20,
  KM_ERROR_INVALID_INPUT_LENGTH = -21,
  KM_ERROR_KEY_EXPORT_OPTIONS_INVALID = -22,
  KM_ERROR_DELEGATION_NOT_ALLOWED = -23,
  KM_ERROR_KEY_NOT_YET_VALID = -24,
  KM_ERROR_KEY_EXPIRED = -25,
  KM_ERROR_KEY_USER_NOT_AUTHENTICATED = -26,
  KM_ERROR_OUTPUT_PARAMETER_NULL = -27,
  KM_ERROR_INVALID_OPERATION_HANDLE = -28,
  KM_ERROR_INSUFFICIENT_BUFFER_SPACE = -29,
  KM_ERROR_VERIFICATION_FAILED = -30,
  KM_ERROR_TOO_MANY_OPERATIONS = -31,
  KM_ERROR_UNEXPECTED_NULL_POINTER = -32,
  KM_ERROR_INVALID_KEY_BLOB = -33,
  KM_ERROR_IMPORTED_KEY_NOT_ENCRYPTED = -34,
  KM_ERROR_IMPORTED_KEY_DECRYPTION_FAILED = -35,
  KM_ERROR_IMPORTED_KEY_NOT_SIGNED = -36,
  KM_ERROR_IMPORTED_KEY_VERIFICATION_FAILED = -37,
  KM_ERROR_INVALID_ARGUMENT = -38,
  KM_ERROR_UNSUPPORTED_TAG = -39,
  KM_ERROR_INVALID_TAG = -40,
  KM_ERROR_MEMORY_ALLOCATION_FAILED = -41,
  KM_ERROR_INVALID_RESCOPING = -42,
  KM_ERROR_IMPORT_PARAMETER_MISMATCH = -44,
  KM_ERROR_SECURE_HW_ACCESS_DENIED = -45,
  KM_ERROR_OPERATION_CANCELLED = -46,
  KM_ERROR_CONCURRENT_ACCESS_CONFLICT = -47,
  KM_ERROR_SECURE_HW_BUSY = -48,
  KM_ERROR_SECURE_HW_COMMUNICATION_FAILED = -49,
  KM_ERROR_UNSUPPORTED_EC_FIELD = -50,
  KM_ERROR_MISSING_NONCE = -51,
  KM_ERROR_INVALID_NONCE = -52,
  KM_ERROR_MISSING_MAC_LENGTH = -53,
  KM_ERROR_KEY_RATE_LIMIT_EXCEEDED = -54,
  KM_ERROR_CALLER_NONCE_PROHIBITED = -55,
  KM_ERROR_KEY_MAX_OPS_EXCEEDED = -56,
  KM_ERROR_INVALID_MAC_LENGTH = -57,
  KM_ERROR_MISSING_MIN_MAC_LENGTH = -58,
  KM_ERROR_UNSUPPORTED_MIN_MAC_LENGTH = -59,
  KM_ERROR_UNSUPPORTED_KDF = -60,
  KM_ERROR_UNSUPPORTED_EC_CURVE = -61,
  KM_ERROR_KEY_REQUIRES_UPGRADE = -62,
  KM_ERROR_ATTESTATION_CHALLENGE_MISSING = -63,
  KM_ERROR_KEYMASTER_NOT_CONFIGURED = -64,
  KM_ERROR_ATTESTATION_APPLICATION_ID_MISSING = -65,
  KM_ERROR_CANNOT_ATTEST_IDS = -66,
  KM_ERROR_ROLLBACK_RESISTANCE_UNAVAILABLE = -67,
  KM_ERROR_HARDWARE_TYPE_UNAVAILABLE = -68,
  KM_ERROR_PROOF_OF_PRESENCE_REQUIRED = -69,
  KM_ERROR_CONCURRENT_PROOF_OF_PRESENCE_REQUESTED = -70,
  KM_ERROR_NO_USER_CONFIRMATION = -71,
  KM_ERROR_DEVICE_LOCKED = -72,
  KM_ERROR_EARLY_BOOT_ENDED = -73,
  KM_ERROR_ATTESTATION_KEYS_NOT_PROVISIONED = -74,
  KM_ERROR_ATTESTATION_IDS_NOT_PROVISIONED = -75,
  KM_ERROR_INVALID_OPERATION = -76,
  KM_ERROR_STORAGE_KEY_UNSUPPORTED = -77,
  KM_ERROR_UNIMPLEMENTED = -100,
  KM_ERROR_VERSION_MISMATCH = -101,
  KM_ERROR_UNKNOWN_ERROR = -1000,
} keymaster_error_t;

typedef struct {
  const uint8_t* data;
  size_t data_length;
} keymaster_blob_t;

// One key parameter: the tag's type says which member of the union counts.
typedef struct {
  keymaster_tag_t tag;
  union {
    uint32_t enumerated;    // KM_ENUM, KM_ENUM_REP
    bool boolean;           // KM_BOOL
    uint32_t integer;       // KM_UINT, KM_UINT_REP
    uint64_t long_integer;  // KM_ULONG, KM_ULONG_REP
    uint64_t date_time;     // KM_DATE, milliseconds since 1970
    keymaster_blob_t blob;  // KM_BIGNUM, KM_BYTES
  };
} keymaster_key_param_t;

typedef struct {
  keymaster_key_param_t* params;
  size_t length;
} keymaster_key_param_set_t;

typedef struct {
  keymaster_key_param_set_t hw_enforced;
  keymaster_key_param_set_t sw_enforced;
} keymaster_key_characteristics_t;

typedef struct {
  const uint8_t* key_material;
  size_t key_material_size;
} keymaster_key_blob_t;

typedef struct {
  keymaster_blob_t* entries;
  size_t entry_count;
} keymaster_cert_chain_t;

typedef uint64_t keymaster_operation_handle_t;

// The type of a tag's value, and the tag's number without it.
static inline keymaster_tag_type_t keymaster_tag_get_type(keymaster_tag_t tag) {
  return (keymaster_tag_type_t)((uint32_t)tag & 0xF0000000u);
}
static inline uint32_t keymaster_tag_mask_type(keymaster_tag_t tag) {
  return (uint32_t)tag & 0x0FFFFFFFu;
}

#ifdef __cplusplus
}
#endif

#endif  // HARDWARE_KEYMASTER_DEFS_H
