// Attestation: the certificate chain of a key, made of the device's attestation authority, which is
// an EC P-256 intermediate under an EC P-256 root, and the leaf that it signs.
#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <initializer_list>
#include <set>

#include "ta/commands.h"
#include "ta/key_description.h"
#include "ta/state.h"

namespace ta {
namespace {

// ---- The attestation extension's ASN.1.

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
  while (content.size() > 1 && content[0] == 0) {
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

// What KM_TAG_ROOT_OF_TRUST carries here: no key, unlocked, and, as a host has no verified boot,
// unverified.
Bytes HostRootOfTrust() {
  constexpr uint64_t kUnverified = 2;
  const Bytes none(32), is_locked = Element(V_ASN1_BOOLEAN, V_ASN1_UNIVERSAL, false, Bytes(1));
  return Sequence({OctetString(none), is_locked, Enumerated(kUnverified), OctetString(none)});
}

}  // namespace

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

namespace {

// ---- What is attested.

// Holds, as PEM: intermediate key and certificate, root key and certificate.
constexpr char kAuthorityFile[] = "attestation.pem";
// 9999-12-31T23:59:59Z: a certificate without a well-defined end.
constexpr uint64_t kNoEnd = 253402300799;

using BioPtr = std::unique_ptr<BIO, CallFree<BIO, BIO_free_all>>;
using ExtensionPtr = std::unique_ptr<X509_EXTENSION, CallFree<X509_EXTENSION, X509_EXTENSION_free>>;

// What signs leaf certificates.
struct AttestationAuthority {
  PkeyPtr intermediate_key;
  X509Ptr intermediate;
  X509Ptr root;
};

// What this device can attest about itself. A tag with a null text is one it has no value for.
constexpr std::pair<keymaster_tag_t, const char*> kDeviceIds[] = {
    {KM_TAG_ATTESTATION_ID_BRAND, "host"},
    {KM_TAG_ATTESTATION_ID_DEVICE, "keymaster_host"},
    {KM_TAG_ATTESTATION_ID_PRODUCT, "keymaster_host"},
    {KM_TAG_ATTESTATION_ID_SERIAL, nullptr},
    {KM_TAG_ATTESTATION_ID_IMEI, nullptr},
    {KM_TAG_ATTESTATION_ID_MEID, nullptr},
    {KM_TAG_ATTESTATION_ID_MANUFACTURER, "host"},
    {KM_TAG_ATTESTATION_ID_MODEL, "Keymaster Host"},
};

// False if an id is asked for that is not this device's.
bool AddDeviceIds(const ParamSet& request, ParamSet* tee_enforced) {
  for (const auto& [tag, text] : kDeviceIds) {
    const Param* const asked = request.Find(tag);
    if (asked == nullptr) continue;
    if (text == nullptr || std::string(asked->bytes.begin(), asked->bytes.end()) != text) {
      return false;
    }
    tee_enforced->Add(*asked);
  }
  return true;
}

// An id of this device for an application, other ones every 30 days and after the user's reset.
// Empty for a key that is not to have it.
Bytes UniqueId(const Key& key, const ParamSet& request) {
  constexpr uint64_t kSlotMillis = uint64_t{30} * 24 * 60 * 60 * 1000;
  constexpr size_t kUniqueIdSize = 16;
  const Param* const created = key.Find(KM_TAG_CREATION_DATETIME);
  if (!key.hw_enforced.IsTrue(KM_TAG_INCLUDE_UNIQUE_ID) || created == nullptr) return {};
  Bytes message;
  AppendInteger<uint64_t>(&message, created->value / kSlotMillis);
  AppendBytes(&message, request.BytesOf(KM_TAG_APPLICATION_ID));
  message.push_back(request.IsTrue(KM_TAG_RESET_SINCE_ID_ROTATION) ? 1 : 0);
  const SecureBytes mac = HmacSha256(DeviceKey("unique id"), message);
  return Bytes(mac.begin(), mac.begin() + kUniqueIdSize);
}

// The value of the attestation extension: Android's KeyDescription.
Bytes DescribeForAttestation(const Key& key, const ParamSet& request) {
  constexpr uint64_t kAttestationVersion = 4, kKeymasterVersion = 41;
  constexpr size_t kMaxChallenge = 128, kMaxApplicationId = 1024;
  const Param* const challenge = request.Find(KM_TAG_ATTESTATION_CHALLENGE);
  const Param* const application = request.Find(KM_TAG_ATTESTATION_APPLICATION_ID);
  FailIf(challenge == nullptr, KM_ERROR_ATTESTATION_CHALLENGE_MISSING);
  FailIf(application == nullptr, KM_ERROR_ATTESTATION_APPLICATION_ID_MISSING);
  FailIf(challenge->bytes.size() > kMaxChallenge || application->bytes.size() > kMaxApplicationId,
         KM_ERROR_INVALID_INPUT_LENGTH);

  // What an attestation adds is in no key's list.
  ParamSet software_enforced = key.sw_enforced, tee_enforced = key.hw_enforced;
  software_enforced.Add(*application);
  // Secure ids say nothing to a relying party.
  tee_enforced.Remove(KM_TAG_USER_SECURE_ID);
  tee_enforced.AddBytes(KM_TAG_ROOT_OF_TRUST, HostRootOfTrust());
  FailIf(!AddDeviceIds(request, &tee_enforced), KM_ERROR_CANNOT_ATTEST_IDS);
  const Bytes level = Enumerated(KM_SECURITY_LEVEL_TRUSTED_ENVIRONMENT);
  return Sequence({Integer(kAttestationVersion), level, Integer(kKeymasterVersion), level,
                   OctetString(challenge->bytes), OctetString(UniqueId(key, request)),
                   EncodeAuthorizationList(software_enforced),
                   EncodeAuthorizationList(tee_enforced)});
}

// A certificate that wants its extensions and signature. Validity in seconds since 1970.
X509Ptr Draft(const char* common_name, X509_NAME* issuer, EVP_PKEY* key, long serial,
              uint64_t not_before, uint64_t not_after) {
  X509Ptr certificate(X509_new());
  RequireCrypto(certificate && X509_set_version(certificate.get(), X509_VERSION_3) == 1);
  RequireCrypto(ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), serial) == 1);
  X509_NAME* const subject = X509_get_subject_name(certificate.get());
  RequireCrypto(X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_UTF8,
                                           reinterpret_cast<const unsigned char*>(common_name), -1,
                                           -1, 0) == 1);
  RequireCrypto(X509_set_issuer_name(certificate.get(), issuer != nullptr ? issuer : subject) == 1);
  const auto set_time = [](ASN1_TIME* field, uint64_t seconds) {
    const time_t time = static_cast<time_t>(std::min(seconds, kNoEnd));
    RequireCrypto(ASN1_TIME_set(field, time) != nullptr);
  };
  set_time(X509_getm_notBefore(certificate.get()), not_before);
  set_time(X509_getm_notAfter(certificate.get()), not_after);
  RequireCrypto(X509_set_pubkey(certificate.get(), key) == 1);
  return certificate;
}

// Adds an extension by its name or object identifier, as libcrypto's configuration files say it.
void AddExtension(X509* certificate, X509* issuer, const char* name, const std::string& value) {
  X509V3_CTX context = {};
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  const ExtensionPtr extension(X509V3_EXT_nconf(nullptr, &context, name, value.c_str()));
  RequireCrypto(extension && X509_add_ext(certificate, extension.get(), -1) == 1);
}

// issuer is null for the root, which signs itself.
X509Ptr NewCa(const char* name, X509* issuer, EVP_PKEY* key, EVP_PKEY* signing_key) {
  X509_NAME* const issuer_name = issuer != nullptr ? X509_get_subject_name(issuer) : nullptr;
  const long serial = issuer != nullptr ? 2 : 1;
  X509Ptr ca = Draft(name, issuer_name, key, serial, 0, kNoEnd);
  AddExtension(ca.get(), issuer, "basicConstraints",
               issuer != nullptr ? "critical,CA:TRUE,pathlen:0" : "critical,CA:TRUE");
  AddExtension(ca.get(), issuer, "keyUsage", "critical,keyCertSign");
  AddExtension(ca.get(), issuer, "subjectKeyIdentifier", "hash");
  if (issuer != nullptr) {
    AddExtension(ca.get(), issuer, "authorityKeyIdentifier", "keyid:always");
  }
  RequireCrypto(X509_sign(ca.get(), signing_key, EVP_sha256()) > 0);
  return ca;
}

SecureBytes NewAuthorityPem() {
  const PkeyPtr root_key = NewEcPkey(NID_X9_62_prime256v1);
  const PkeyPtr intermediate_key = NewEcPkey(NID_X9_62_prime256v1);
  const X509Ptr root =
      NewCa("Keymaster Host Attestation Root", nullptr, root_key.get(), root_key.get());
  const X509Ptr intermediate = NewCa("Keymaster Host Attestation Intermediate", root.get(),
                                     intermediate_key.get(), root_key.get());
  const BioPtr out(BIO_new(BIO_s_mem()));
  const auto write = [&out](EVP_PKEY* key, X509* certificate) {
    RequireCrypto(PEM_write_bio_PrivateKey(out.get(), key, nullptr, nullptr, 0, nullptr, nullptr) ==
                  1);
    RequireCrypto(PEM_write_bio_X509(out.get(), certificate) == 1);
  };
  RequireCrypto(out != nullptr);
  write(intermediate_key.get(), intermediate.get());
  write(root_key.get(), root.get());
  char* text = nullptr;
  const long length = BIO_get_mem_data(out.get(), &text);
  return SecureBytes(text, text + length);
}

// This device's authority, made the first time it is asked for and kept, with both keys.
AttestationAuthority LoadOrCreateAuthority() {
  const SecureBytes pem = LoadOrCreate(kAuthorityFile, NewAuthorityPem);
  const BioPtr in(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  RequireCrypto(in != nullptr);
  // Each read skips to the next block of its kind, so the root's key is passed over.
  AttestationAuthority authority;
  authority.intermediate_key.reset(PEM_read_bio_PrivateKey(in.get(), nullptr, nullptr, nullptr));
  authority.intermediate.reset(PEM_read_bio_X509(in.get(), nullptr, nullptr, nullptr));
  authority.root.reset(PEM_read_bio_X509(in.get(), nullptr, nullptr, nullptr));
  RequireCrypto(authority.intermediate_key && authority.intermediate && authority.root);
  return authority;
}

// The purposes of a key as the usage of its certificate; none for a key without any.
void AddKeyUsage(X509* leaf, const Key& key) {
  constexpr std::pair<keymaster_purpose_t, const char*> kUsages[] = {
      {KM_PURPOSE_SIGN, ",digitalSignature"},
      {KM_PURPOSE_VERIFY, ",digitalSignature"},
      {KM_PURPOSE_ENCRYPT, ",keyEncipherment,dataEncipherment"},
      {KM_PURPOSE_DECRYPT, ",keyEncipherment,dataEncipherment"},
      {KM_PURPOSE_WRAP_KEY, ",keyEncipherment"},
  };
  const std::string none = "critical";
  std::string usage = none;
  for (const auto& [purpose, names] : kUsages) {
    if (key.Authorizes(KM_TAG_PURPOSE, purpose)) usage += names;
  }
  if (usage != none) AddExtension(leaf, leaf, "keyUsage", usage);
}

// The seconds since 1970 of the first of two dates that the key has.
uint64_t DateOf(const Key& key, Tag tag, Tag other_tag, uint64_t otherwise) {
  const Param* date = key.Find(tag);
  if (date == nullptr) date = key.Find(other_tag);
  return date != nullptr ? date->value / 1000 : otherwise;
}

// The certificate of an RSA or EC key, its dates as validity, with the attestation extension.
X509Ptr BuildLeaf(const AttestationAuthority& authority, const Key& key, ByteView key_description) {
  X509* const issuer = authority.intermediate.get();
  X509Ptr leaf =
      Draft("Android Keystore Key", X509_get_subject_name(issuer), key.pkey.get(), 1,
            DateOf(key, KM_TAG_ACTIVE_DATETIME, KM_TAG_CREATION_DATETIME, 0),
            DateOf(key, KM_TAG_USAGE_EXPIRE_DATETIME, KM_TAG_USAGE_EXPIRE_DATETIME, kNoEnd));
  AddExtension(leaf.get(), issuer, "authorityKeyIdentifier", "keyid:always");
  AddKeyUsage(leaf.get(), key);
  AddExtension(leaf.get(), issuer, "1.3.6.1.4.1.11129.2.1.17", "DER:" + Hex(key_description));
  RequireCrypto(X509_sign(leaf.get(), authority.intermediate_key.get(), EVP_sha256()) > 0);
  return leaf;
}

}  // namespace

// Replies with leaf, intermediate, root: a 32-bit count, then of each certificate a 32-bit length
// and its DER.
void AttestKey(uint32_t types, TaParam params[4]) {
  const ParamSet request = RequestOf(types, params, 1);
  const Key key = OpenCurrentKey(InputOf(params[0]), request);
  FailIf(!key.pkey, KM_ERROR_INCOMPATIBLE_ALGORITHM);
  const Bytes key_description = DescribeForAttestation(key, request);

  const AttestationAuthority authority = LoadOrCreateAuthority();
  const X509Ptr leaf = BuildLeaf(authority, key, key_description);
  X509* const certificates[] = {leaf.get(), authority.intermediate.get(), authority.root.get()};
  Bytes chain;
  AppendInteger<uint32_t>(&chain, static_cast<uint32_t>(std::size(certificates)));
  for (X509* certificate : certificates) {
    const Bytes der = ToDer(certificate, i2d_X509);
    AppendInteger<uint32_t>(&chain, static_cast<uint32_t>(der.size()));
    AppendBytes(&chain, der);
  }
  Reply(chain, &params[2]);
}

}  // namespace ta
