#include "wrapped_key_asn1.h"

#include <limits.h>

#include <array>
#include <utility>

namespace keymaster {
namespace {

constexpr ASN1_TEMPLATE FieldTemplate(size_t index) {
  const keymaster_tag_t tag = kAuthorizationFields[index];
  const auto bits = static_cast<uint32_t>(tag);
  ASN1_TEMPLATE field = {ASN1_TFLG_EXPLICIT | ASN1_TFLG_OPTIONAL,
                         static_cast<long>(bits & 0x0FFFFFFFu), index * sizeof(void*), "keyParams",
                         ASN1_ITEM_ref(ASN1_INTEGER)};
  switch (bits & 0xF0000000u) {
    case KM_ENUM_REP:
      field.flags |= ASN1_TFLG_SET_OF;
      break;
    case KM_BOOL:
      field.item = ASN1_ITEM_ref(ASN1_NULL);
      break;
    case static_cast<uint32_t>(KM_BYTES):
      field.item = ASN1_ITEM_ref(ASN1_OCTET_STRING);
      break;
    default:
      break;
  }
  return field;
}

template <size_t... kIndex>
constexpr std::array<ASN1_TEMPLATE, sizeof...(kIndex)> FieldTemplates(
    std::index_sequence<kIndex...>) {
  return {FieldTemplate(kIndex)...};
}

constexpr auto kFieldTemplates =
    FieldTemplates(std::make_index_sequence<kAuthorizationFieldCount>());

// The decoder takes fields in the order of the table only.
constexpr bool FieldsAscend() {
  for (size_t i = 1; i < kFieldTemplates.size(); ++i) {
    if (kFieldTemplates[i - 1].tag >= kFieldTemplates[i].tag) return false;
  }
  return true;
}
static_assert(FieldsAscend(), "fields are encoded in ascending order of their numbers");

const ASN1_ITEM* AuthorizationList_it() {
  static const ASN1_ITEM kItem = {
      ASN1_ITYPE_SEQUENCE,      V_ASN1_SEQUENCE, kFieldTemplates.data(),
      kAuthorizationFieldCount, nullptr,         sizeof(AuthorizationList),
      "AuthorizationList"};
  return &kItem;
}

// clang-format off
ASN1_SEQUENCE(KeyDescription) = {
  ASN1_SIMPLE(KeyDescription, key_format, ASN1_INTEGER),
  ASN1_SIMPLE(KeyDescription, key_params, AuthorizationList),
} static_ASN1_SEQUENCE_END(KeyDescription);

ASN1_SEQUENCE(SecureKeyWrapper) = {
  ASN1_SIMPLE(SecureKeyWrapper, version, ASN1_INTEGER),
  ASN1_SIMPLE(SecureKeyWrapper, transit_key, ASN1_OCTET_STRING),
  ASN1_SIMPLE(SecureKeyWrapper, iv, ASN1_OCTET_STRING),
  ASN1_SIMPLE(SecureKeyWrapper, key_description, ASN1_SEQUENCE),
  ASN1_SIMPLE(SecureKeyWrapper, secure_key, ASN1_OCTET_STRING),
  ASN1_SIMPLE(SecureKeyWrapper, tag, ASN1_OCTET_STRING),
} static_ASN1_SEQUENCE_END(SecureKeyWrapper);
// clang-format on

template <typename T>
std::unique_ptr<T, Asn1Deleter> Decode(const uint8_t* data, size_t length, const ASN1_ITEM* item) {
  if (length > LONG_MAX) return nullptr;
  const uint8_t* rest = data;
  std::unique_ptr<T, Asn1Deleter> value(
      reinterpret_cast<T*>(ASN1_item_d2i(nullptr, &rest, static_cast<long>(length), item)));
  if (value != nullptr && rest != data + length) value.reset();
  return value;
}

}  // namespace

void Asn1Deleter::operator()(SecureKeyWrapper* wrapper) const {
  ASN1_item_free(reinterpret_cast<ASN1_VALUE*>(wrapper), ASN1_ITEM_rptr(SecureKeyWrapper));
}

void Asn1Deleter::operator()(KeyDescription* description) const {
  ASN1_item_free(reinterpret_cast<ASN1_VALUE*>(description), ASN1_ITEM_rptr(KeyDescription));
}

std::unique_ptr<SecureKeyWrapper, Asn1Deleter> DecodeWrapper(const uint8_t* data, size_t length) {
  return Decode<SecureKeyWrapper>(data, length, ASN1_ITEM_rptr(SecureKeyWrapper));
}

std::unique_ptr<KeyDescription, Asn1Deleter> DecodeDescription(const uint8_t* data, size_t length) {
  return Decode<KeyDescription>(data, length, ASN1_ITEM_rptr(KeyDescription));
}

}  // namespace keymaster
