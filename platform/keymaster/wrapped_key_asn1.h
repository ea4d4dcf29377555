// The DER structures of a wrapped key, as libcrypto's template decoder reads them.
//
//   SecureKeyWrapper ::= SEQUENCE {
//     version                INTEGER,        -- 0
//     encryptedTransportKey  OCTET STRING,
//     initializationVector   OCTET STRING,
//     keyDescription         KeyDescription,
//     encryptedKey           OCTET STRING,
//     tag                    OCTET STRING }
//   KeyDescription ::= SEQUENCE {
//     keyFormat              INTEGER,
//     keyParams              AuthorizationList }
#ifndef PLATFORM_KEYMASTER_WRAPPED_KEY_ASN1_H
#define PLATFORM_KEYMASTER_WRAPPED_KEY_ASN1_H

#include <hardware/keymaster_defs.h>
#include <openssl/asn1t.h>

#include <memory>

namespace keymaster {

// AuthorizationList's fields, in the order in which they are encoded. Each is optional, under an
// explicit context tag whose number is the keymaster tag's; the tag's type says what it holds:
// an ENUM_REP a SET OF INTEGER, a BOOL a NULL, BYTES an OCTET STRING, all else one INTEGER (a
// user secure id too: the wrapper's schema allows one).
constexpr keymaster_tag_t kAuthorizationFields[] = {
    KM_TAG_PURPOSE,
    KM_TAG_ALGORITHM,
    KM_TAG_KEY_SIZE,
    KM_TAG_BLOCK_MODE,
    KM_TAG_DIGEST,
    KM_TAG_PADDING,
    KM_TAG_CALLER_NONCE,
    KM_TAG_MIN_MAC_LENGTH,
    KM_TAG_EC_CURVE,
    KM_TAG_RSA_PUBLIC_EXPONENT,
    KM_TAG_ROLLBACK_RESISTANCE,
    KM_TAG_ACTIVE_DATETIME,
    KM_TAG_ORIGINATION_EXPIRE_DATETIME,
    KM_TAG_USAGE_EXPIRE_DATETIME,
    KM_TAG_USER_SECURE_ID,
    KM_TAG_NO_AUTH_REQUIRED,
    KM_TAG_USER_AUTH_TYPE,
    KM_TAG_AUTH_TIMEOUT,
    KM_TAG_ALLOW_WHILE_ON_BODY,
    KM_TAG_TRUSTED_USER_PRESENCE_REQUIRED,
    KM_TAG_TRUSTED_CONFIRMATION_REQUIRED,
    KM_TAG_UNLOCKED_DEVICE_REQUIRED,
    KM_TAG_ALL_APPLICATIONS,
    KM_TAG_APPLICATION_ID,
    KM_TAG_APPLICATION_DATA,
    KM_TAG_CREATION_DATETIME,
    KM_TAG_ORIGIN,
    KM_TAG_ROOT_OF_TRUST,
    KM_TAG_OS_VERSION,
    KM_TAG_OS_PATCHLEVEL,
    KM_TAG_UNIQUE_ID,
    KM_TAG_ATTESTATION_CHALLENGE,
    KM_TAG_ATTESTATION_APPLICATION_ID,
    KM_TAG_ATTESTATION_ID_BRAND,
    KM_TAG_ATTESTATION_ID_DEVICE,
    KM_TAG_ATTESTATION_ID_PRODUCT,
    KM_TAG_ATTESTATION_ID_SERIAL,
    KM_TAG_ATTESTATION_ID_IMEI,
    KM_TAG_ATTESTATION_ID_MEID,
    KM_TAG_ATTESTATION_ID_MANUFACTURER,
    KM_TAG_ATTESTATION_ID_MODEL,
    KM_TAG_VENDOR_PATCHLEVEL,
    KM_TAG_BOOT_PATCHLEVEL,
    KM_TAG_AUTH_TOKEN,
};
constexpr size_t kAuthorizationFieldCount =
    sizeof(kAuthorizationFields) / sizeof(kAuthorizationFields[0]);

// Decoded values, null where absent, in the order of kAuthorizationFields.
struct AuthorizationList {
  void* values[kAuthorizationFieldCount];
};

struct KeyDescription {
  ASN1_INTEGER* key_format;
  AuthorizationList* key_params;
};

// key_description keeps the encoding as it stands, so that it can be authenticated unchanged.
struct SecureKeyWrapper {
  ASN1_INTEGER* version;
  ASN1_OCTET_STRING* transit_key;
  ASN1_OCTET_STRING* iv;
  ASN1_STRING* key_description;
  ASN1_OCTET_STRING* secure_key;
  ASN1_OCTET_STRING* tag;
};

struct Asn1Deleter {
  void operator()(SecureKeyWrapper* wrapper) const;
  void operator()(KeyDescription* description) const;
};

// Decode a structure that fills the length bytes at data exactly; null for anything else. Leave
// their errors in libcrypto's queue.
std::unique_ptr<SecureKeyWrapper, Asn1Deleter> DecodeWrapper(const uint8_t* data, size_t length);
std::unique_ptr<KeyDescription, Asn1Deleter> DecodeDescription(const uint8_t* data, size_t length);

}  // namespace keymaster

#endif  // PLATFORM_KEYMASTER_WRAPPED_KEY_ASN1_H
