#include "ta/attest_extension.h"

#include <openssl/asn1.h>

#include <initializer_list>
#include <set>

#include "ta/evp.h"
#include "ta/key_description.h"

namespace ta {
namespace {

constexpr uint64_t kAttestationVersion = 4;
constexpr uint64_t kKeymasterVersion = 41;

Bytes Element(int tag, int tag_class, bool constructed, ByteView content) {
  const int length = static_cast<int>(content.size);
  const int total = ASN1_object_size(constructed, length, tag);
  RequireCrypto(length >= 0 && total > length);
  Bytes der(static_cast<size_t>(total) - content.size);
  unsigned char* end = der.data();
  ASN1_put_object(&end, constructed, length, tag, tag_class);
  AppendBytes(&der, content);
  return der;
}

// Numbers here are never negative.
Bytes Number(int tag, uint64_t value) {
  Bytes content;
  AppendBigEndian(&content, value, sizeof(value));
  while (content.size() > 1 && content[0] == 0 && content[1] < 0x80) {
    content.erase(content.begin());
  }
  if (content[0] >= 0x80) content.insert(content.begin(), 0);
  return Element(tag, V_ASN1_UNIVERSAL, false, content);
}

Bytes Integer(uint64_t value) { return Number(V_ASN1_INTEGER, value); }
Bytes Enumerated(uint64_t value) { return Number(V_ASN1_ENUMERATED, value); }

Bytes OctetString(ByteView content) {
  return Element(V_ASN1_OCTET_STRING, V_ASN1_UNIVERSAL, false, content);
}

Bytes Boolean(bool value) {
  return Element(V_ASN1_BOOLEAN, V_ASN1_UNIVERSAL, false,
                 Bytes{value ? uint8_t{0xFF} : uint8_t{0}});
}

Bytes Sequence(std::initializer_list<Bytes> elements) {
  Bytes content;
  for (const Bytes& element : elements) {
    AppendBytes(&content, element);
  }
  return Element(V_ASN1_SEQUENCE, V_ASN1_UNIVERSAL, true, content);
}

// Rising values are rising encodings too.
Bytes SetOfInteger(const ParamSet& params, Tag tag) {
  std::set<uint64_t> values;
  for (const Param& param : params) {
    if (param.tag == tag) values.insert(param.value);
  }
  Bytes content;
  for (const uint64_t value : values) {
    AppendBytes(&content, Integer(value));
  }
  return Element(V_ASN1_SET, V_ASN1_UNIVERSAL, true, content);
}

// The value of one field; empty for a field that is not there.
Bytes FieldValue(const ParamSet& params, keymaster_tag_t tag) {
  const Param* const param = params.Find(tag);
  if (param == nullptr) return {};
  if (tag == KM_TAG_ROOT_OF_TRUST) return param->bytes;
  switch (keymaster_tag_get_type(tag)) {
    case KM_ENUM_REP:
    case KM_UINT_REP:
    case KM_ULONG_REP:
      return SetOfInteger(params, tag);
    case KM_BOOL:
      return params.IsTrue(tag) ? Element(V_ASN1_NULL, V_ASN1_UNIVERSAL, false, {}) : Bytes();
    case KM_BYTES:
      return OctetString(param->bytes);
    default:
      return Integer(param->value);
  }
}

}  // namespace

Bytes HostRootOfTrust() {
  constexpr uint64_t kUnverified = 2;
  const Bytes none(32);
  return Sequence({OctetString(none), Boolean(false), Enumerated(kUnverified), OctetString(none)});
}

Bytes EncodeAuthorizationList(const ParamSet& params) {
  Bytes content;
  for (const KnownTag& row : kKnownTags) {
    const Bytes value = row.is_attested ? FieldValue(params, row.tag) : Bytes();
    if (!value.empty()) {
      const auto number = static_cast<int>(keymaster_tag_mask_type(row.tag));
      AppendBytes(&content, Element(number, V_ASN1_CONTEXT_SPECIFIC, true, value));
    }
  }
  return Element(V_ASN1_SEQUENCE, V_ASN1_UNIVERSAL, true, content);
}

Bytes EncodeKeyDescription(ByteView challenge, ByteView unique_id,
                           const ParamSet& software_enforced, const ParamSet& tee_enforced) {
  return Sequence({Integer(kAttestationVersion), Enumerated(KM_SECURITY_LEVEL_TRUSTED_ENVIRONMENT),
                   Integer(kKeymasterVersion), Enumerated(KM_SECURITY_LEVEL_TRUSTED_ENVIRONMENT),
                   OctetString(challenge), OctetString(unique_id),
                   EncodeAuthorizationList(software_enforced),
                   EncodeAuthorizationList(tee_enforced)});
}

}  // namespace ta
