#include <keymaster/wrapped_key.h>
#include <limits.h>
#include <openssl/asn1.h>
#include <openssl/err.h>

#include <algorithm>
#include <initializer_list>
#include <iterator>
#include <memory>

// The DER structures of a wrapped key:
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
namespace keymaster {
namespace {

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

struct Asn1Free {
  void operator()(ASN1_SEQUENCE_ANY* elements) const {
    sk_ASN1_TYPE_pop_free(elements, ASN1_TYPE_free);
  }
  void operator()(ASN1_TYPE* element) const { ASN1_TYPE_free(element); }
};
using Elements = std::unique_ptr<ASN1_SEQUENCE_ANY, Asn1Free>;

// Decode runs a decoder that must use up the bytes; null if it does not, or fails.
template <typename T>
std::unique_ptr<T, Asn1Free> Decode(T* (*decode)(T**, const uint8_t**, long), const uint8_t* data,
                                    size_t length) {
  if (length > LONG_MAX) return nullptr;
  const uint8_t* rest = data;
  std::unique_ptr<T, Asn1Free> value(decode(nullptr, &rest, static_cast<long>(length)));
  if (value != nullptr && rest != data + length) value.reset();
  return value;
}

Elements DecodeSequence(const ASN1_STRING* encoding) {
  return Decode(d2i_ASN1_SEQUENCE_ANY, ASN1_STRING_get0_data(encoding),
                static_cast<size_t>(ASN1_STRING_length(encoding)));
}

// HasTypes tells whether a sequence is made of elements of just these types.
bool HasTypes(const Elements& elements, std::initializer_list<int> types) {
  if (elements == nullptr ||
      static_cast<size_t>(sk_ASN1_TYPE_num(elements.get())) != types.size()) {
    return false;
  }
  int at = 0;
  return std::all_of(types.begin(), types.end(), [&](int type) {
    return sk_ASN1_TYPE_value(elements.get(), at++)->type == type;
  });
}

const ASN1_STRING* StringAt(const Elements& elements, int at) {
  return sk_ASN1_TYPE_value(elements.get(), at)->value.asn1_string;
}

template <typename BlobType>
keymaster_error_t CopyBytes(const ASN1_STRING* from, TKeymasterBlob<BlobType>* to) {
  const auto length = static_cast<size_t>(ASN1_STRING_length(from));
  const uint8_t* data = ASN1_STRING_get0_data(from);
  BlobData(*to) = dup_buffer(length == 0 ? reinterpret_cast<const uint8_t*>("") : data, length);
  if (BlobData(*to) == nullptr) return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  BlobSize(*to) = length;
  return KM_ERROR_OK;
}

bool ReadNumber(const ASN1_TYPE& element, uint64_t* number) {
  return element.type == V_ASN1_INTEGER &&
         ASN1_INTEGER_get_uint64(number, element.value.integer) == 1;
}

// PushElement adds what the element under a field's tag holds.
keymaster_error_t PushElement(keymaster_tag_t tag, const ASN1_TYPE& element,
                              AuthorizationSet* set) {
  keymaster_key_param_t param = {};
  param.tag = tag;
  const keymaster_tag_type_t type = keymaster_tag_get_type(tag);
  const bool is_long = type == KM_ULONG || type == KM_ULONG_REP || type == KM_DATE;
  uint64_t number = 0;
  if (type == KM_BOOL && element.type == V_ASN1_NULL) {
    param.boolean = true;
  } else if (type == KM_BYTES && element.type == V_ASN1_OCTET_STRING) {
    const ASN1_STRING* bytes = element.value.octet_string;
    param.blob = {ASN1_STRING_get0_data(bytes), static_cast<size_t>(ASN1_STRING_length(bytes))};
  } else if (type == KM_BOOL || type == KM_BYTES || !ReadNumber(element, &number) ||
             (!is_long && number > UINT32_MAX)) {
    return KM_ERROR_INVALID_ARGUMENT;
  } else if (is_long) {
    param.long_integer = number;
  } else {
    param.integer = static_cast<uint32_t>(number);
  }
  return set->push_back(param) ? KM_ERROR_OK : KM_ERROR_MEMORY_ALLOCATION_FAILED;
}

keymaster_error_t PushContent(keymaster_tag_t tag, const uint8_t* data, size_t length,
                              AuthorizationSet* set) {
  if (keymaster_tag_get_type(tag) != KM_ENUM_REP) {
    const auto element = Decode(d2i_ASN1_TYPE, data, length);
    return element == nullptr ? KM_ERROR_INVALID_ARGUMENT : PushElement(tag, *element, set);
  }
  const auto elements = Decode(d2i_ASN1_SET_ANY, data, length);
  if (elements == nullptr) return KM_ERROR_INVALID_ARGUMENT;
  keymaster_error_t error = KM_ERROR_OK;
  const auto count = static_cast<int>(sk_ASN1_TYPE_num(elements.get()));
  for (int i = 0; error == KM_ERROR_OK && i < count; ++i) {
    error = PushElement(tag, *sk_ASN1_TYPE_value(elements.get(), i), set);
  }
  return error;
}

// PushFields adds the fields of an AuthorizationList, which stand in the order of the table.
keymaster_error_t PushFields(const Elements& fields, AuthorizationSet* set) {
  const keymaster_tag_t* next = std::begin(kAuthorizationFields);
  const auto count = static_cast<int>(sk_ASN1_TYPE_num(fields.get()));
  for (int i = 0; i < count; ++i) {
    const ASN1_TYPE* field = sk_ASN1_TYPE_value(fields.get(), i);
    if (field->type != V_ASN1_OTHER) return KM_ERROR_INVALID_ARGUMENT;
    const uint8_t* const start = ASN1_STRING_get0_data(field->value.asn1_string);
    const int size = ASN1_STRING_length(field->value.asn1_string);
    const uint8_t* data = start;
    long length = 0;
    int number = 0;
    int tag_class = 0;
    const int form = ASN1_get_object(&data, &length, &number, &tag_class, size);
    if ((form & ~1) != V_ASN1_CONSTRUCTED || tag_class != V_ASN1_CONTEXT_SPECIFIC) {
      return KM_ERROR_INVALID_ARGUMENT;
    }
    // An indefinite length, which the lowest bit tells of, ends in two zero bytes.
    if ((form & 1) != 0) length = size - (data - start) - 2;
    next = std::find_if(next, std::end(kAuthorizationFields), [number](keymaster_tag_t tag) {
      return keymaster_tag_mask_type(tag) == static_cast<uint32_t>(number);
    });
    if (next == std::end(kAuthorizationFields)) return KM_ERROR_INVALID_ARGUMENT;
    const keymaster_error_t error = PushContent(*next++, data, static_cast<size_t>(length), set);
    if (error != KM_ERROR_OK) return error;
  }
  return KM_ERROR_OK;
}

keymaster_error_t ReadDescription(const ASN1_STRING* encoding, AuthorizationSet* auth_list,
                                  keymaster_key_format_t* key_format) {
  const Elements description = DecodeSequence(encoding);
  if (!HasTypes(description, {V_ASN1_INTEGER, V_ASN1_SEQUENCE})) return KM_ERROR_INVALID_ARGUMENT;
  const Elements fields = DecodeSequence(StringAt(description, 1));
  if (fields == nullptr) return KM_ERROR_INVALID_ARGUMENT;
  const keymaster_error_t error = PushFields(fields, auth_list);
  if (error != KM_ERROR_OK) return error;
  uint64_t format = 0;
  if (!ReadNumber(*sk_ASN1_TYPE_value(description.get(), 0), &format) ||
      (format != KM_KEY_FORMAT_X509 && format != KM_KEY_FORMAT_PKCS8 &&
       format != KM_KEY_FORMAT_RAW)) {
    return KM_ERROR_INVALID_ARGUMENT;
  }
  *key_format = static_cast<keymaster_key_format_t>(format);
  return KM_ERROR_OK;
}

// Null for anything but a wrapper of version 0.
Elements ReadWrapper(const TKeymasterBlob<keymaster_key_blob_t>& wrapped_key) {
  if (wrapped_key.key_material == nullptr) return nullptr;
  Elements wrapper =
      Decode(d2i_ASN1_SEQUENCE_ANY, wrapped_key.key_material, wrapped_key.key_material_size);
  uint64_t version = 0;
  const bool is_good =
      HasTypes(wrapper, {V_ASN1_INTEGER, V_ASN1_OCTET_STRING, V_ASN1_OCTET_STRING, V_ASN1_SEQUENCE,
                         V_ASN1_OCTET_STRING, V_ASN1_OCTET_STRING}) &&
      ReadNumber(*sk_ASN1_TYPE_value(wrapper.get(), 0), &version) && version == 0;
  return is_good ? std::move(wrapper) : nullptr;
}

}  // namespace

keymaster_error_t parse_wrapped_key(const TKeymasterBlob<keymaster_key_blob_t>& wrapped_key,
                                    TKeymasterBlob<keymaster_blob_t>* iv,
                                    TKeymasterBlob<keymaster_key_blob_t>* transit_key,
                                    TKeymasterBlob<keymaster_key_blob_t>* secure_key,
                                    TKeymasterBlob<keymaster_blob_t>* tag,
                                    AuthorizationSet* auth_list, keymaster_key_format_t* key_format,
                                    TKeymasterBlob<keymaster_blob_t>* wrapped_key_description) {
  if (iv == nullptr || transit_key == nullptr || secure_key == nullptr || tag == nullptr ||
      auth_list == nullptr || key_format == nullptr || wrapped_key_description == nullptr) {
    return KM_ERROR_UNEXPECTED_NULL_POINTER;
  }
  const auto clear_outputs = [&] {
    iv->Clear();
    transit_key->Clear();
    secure_key->Clear();
    tag->Clear();
    auth_list->Clear();
    wrapped_key_description->Clear();
  };
  clear_outputs();

  // The caller's own libcrypto errors survive; those of a bad wrapper do not linger.
  ERR_set_mark();
  keymaster_error_t error = KM_ERROR_INVALID_ARGUMENT;
  if (const Elements wrapper = ReadWrapper(wrapped_key); wrapper != nullptr) {
    error = ReadDescription(StringAt(wrapper, 3), auth_list, key_format);
    const auto copy = [&](int at, auto* to) {
      error = error == KM_ERROR_OK ? CopyBytes(StringAt(wrapper, at), to) : error;
    };
    copy(2, iv);
    copy(1, transit_key);
    copy(4, secure_key);
    copy(5, tag);
    copy(3, wrapped_key_description);
  }
  ERR_pop_to_mark();
  if (error != KM_ERROR_OK) clear_outputs();
  return error;
}

}  // namespace keymaster
