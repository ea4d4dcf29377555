#include <keymaster/wrapped_key.h>
#include <openssl/err.h>

#include "wrapped_key_asn1.h"

namespace keymaster {
namespace {

template <typename BlobType>
keymaster_error_t CopyBytes(const ASN1_STRING* from, TKeymasterBlob<BlobType>* to) {
  const auto length = static_cast<size_t>(ASN1_STRING_length(from));
  const uint8_t* data = ASN1_STRING_get0_data(from);
  BlobData(*to) = dup_buffer(length == 0 ? reinterpret_cast<const uint8_t*>("") : data, length);
  if (BlobData(*to) == nullptr) return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  BlobSize(*to) = length;
  return KM_ERROR_OK;
}

keymaster_error_t Push(const keymaster_key_param_t& param, AuthorizationSet* set) {
  return set->push_back(param) ? KM_ERROR_OK : KM_ERROR_MEMORY_ALLOCATION_FAILED;
}

keymaster_error_t PushInteger(keymaster_tag_t tag, const ASN1_INTEGER* integer,
                              AuthorizationSet* set) {
  uint64_t value = 0;
  if (ASN1_INTEGER_get_uint64(&value, integer) != 1) return KM_ERROR_INVALID_ARGUMENT;
  keymaster_key_param_t param = {};
  param.tag = tag;
  switch (keymaster_tag_get_type(tag)) {
    case KM_ULONG:
    case KM_ULONG_REP:
      param.long_integer = value;
      break;
    case KM_DATE:
      param.date_time = value;
      break;
    default:
      if (value > UINT32_MAX) return KM_ERROR_INVALID_ARGUMENT;
      param.integer = static_cast<uint32_t>(value);
  }
  return Push(param, set);
}

keymaster_error_t PushIntegers(keymaster_tag_t tag, const STACK_OF(ASN1_INTEGER) * integers,
                               AuthorizationSet* set) {
  for (int i = 0; i < sk_ASN1_INTEGER_num(integers); ++i) {
    const keymaster_error_t error = PushInteger(tag, sk_ASN1_INTEGER_value(integers, i), set);
    if (error != KM_ERROR_OK) return error;
  }
  return KM_ERROR_OK;
}

keymaster_error_t PushField(keymaster_tag_t tag, const void* value, AuthorizationSet* set) {
  keymaster_key_param_t param = {};
  param.tag = tag;
  switch (keymaster_tag_get_type(tag)) {
    case KM_ENUM_REP:
      return PushIntegers(tag, static_cast<const STACK_OF(ASN1_INTEGER)*>(value), set);
    case KM_BOOL:
      param.boolean = true;
      return Push(param, set);
    case KM_BYTES: {
      const auto* bytes = static_cast<const ASN1_OCTET_STRING*>(value);
      param.blob = {ASN1_STRING_get0_data(bytes), static_cast<size_t>(ASN1_STRING_length(bytes))};
      return Push(param, set);
    }
    default:
      return PushInteger(tag, static_cast<const ASN1_INTEGER*>(value), set);
  }
}

keymaster_error_t ReadKeyFormat(const ASN1_INTEGER* integer, keymaster_key_format_t* key_format) {
  uint64_t value = 0;
  if (ASN1_INTEGER_get_uint64(&value, integer) != 1) return KM_ERROR_INVALID_ARGUMENT;
  if (value != KM_KEY_FORMAT_X509 && value != KM_KEY_FORMAT_PKCS8 && value != KM_KEY_FORMAT_RAW) {
    return KM_ERROR_INVALID_ARGUMENT;
  }
  *key_format = static_cast<keymaster_key_format_t>(value);
  return KM_ERROR_OK;
}

keymaster_error_t ReadDescription(const ASN1_STRING* encoding, AuthorizationSet* auth_list,
                                  keymaster_key_format_t* key_format) {
  const auto description = DecodeDescription(ASN1_STRING_get0_data(encoding),
                                             static_cast<size_t>(ASN1_STRING_length(encoding)));
  if (description == nullptr) return KM_ERROR_INVALID_ARGUMENT;
  for (size_t i = 0; i < kAuthorizationFieldCount; ++i) {
    const void* value = description->key_params->values[i];
    if (value == nullptr) continue;
    const keymaster_error_t error = PushField(kAuthorizationFields[i], value, auth_list);
    if (error != KM_ERROR_OK) return error;
  }
  return ReadKeyFormat(description->key_format, key_format);
}

std::unique_ptr<SecureKeyWrapper, Asn1Deleter> ReadWrapper(
    const TKeymasterBlob<keymaster_key_blob_t>& wrapped_key) {
  if (wrapped_key.key_material == nullptr) return nullptr;
  auto wrapper = DecodeWrapper(wrapped_key.key_material, wrapped_key.key_material_size);
  uint64_t version = 0;
  if (wrapper != nullptr &&
      (ASN1_INTEGER_get_uint64(&version, wrapper->version) != 1 || version != 0)) {
    wrapper.reset();
  }
  return wrapper;
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
  if (const auto wrapper = ReadWrapper(wrapped_key); wrapper != nullptr) {
    error = ReadDescription(wrapper->key_description, auth_list, key_format);
    if (error == KM_ERROR_OK) error = CopyBytes(wrapper->iv, iv);
    if (error == KM_ERROR_OK) error = CopyBytes(wrapper->transit_key, transit_key);
    if (error == KM_ERROR_OK) error = CopyBytes(wrapper->secure_key, secure_key);
    if (error == KM_ERROR_OK) error = CopyBytes(wrapper->tag, tag);
    if (error == KM_ERROR_OK) error = CopyBytes(wrapper->key_description, wrapped_key_description);
  }
  ERR_pop_to_mark();
  if (error != KM_ERROR_OK) clear_outputs();
  return error;
}

}  // namespace keymaster
