#include "ta/attest_chain.h"

#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <algorithm>

#include "ta/attest_extension.h"
#include "ta/state.h"

namespace ta {
namespace {

// Holds, as PEM: intermediate key and certificate, root key and certificate.
constexpr char kAuthorityFile[] = "attestation.pem";
constexpr char kRootName[] = "Keymaster Host Attestation Root";
constexpr char kIntermediateName[] = "Keymaster Host Attestation Intermediate";
constexpr char kLeafName[] = "Android Keystore Key";
// 9999-12-31T23:59:59Z: a certificate without a well-defined end.
constexpr uint64_t kNoEnd = 253402300799;

using BioPtr = std::unique_ptr<BIO, CallFree<BIO, BIO_free_all>>;
using ExtensionPtr = std::unique_ptr<X509_EXTENSION, CallFree<X509_EXTENSION, X509_EXTENSION_free>>;
using ObjectPtr = std::unique_ptr<ASN1_OBJECT, CallFree<ASN1_OBJECT, ASN1_OBJECT_free>>;
using BitStringPtr =
    std::unique_ptr<ASN1_BIT_STRING, CallFree<ASN1_BIT_STRING, ASN1_BIT_STRING_free>>;
using OctetStringPtr =
    std::unique_ptr<ASN1_OCTET_STRING, CallFree<ASN1_OCTET_STRING, ASN1_OCTET_STRING_free>>;

// The bits of a KeyUsage, as RFC 5280 numbers them.
enum KeyUsageBit { kDigitalSignature = 0, kKeyEncipherment = 2, kDataEncipherment = 3 };

struct PurposeUsage {
  keymaster_purpose_t purpose;
  KeyUsageBit bit;
};
constexpr PurposeUsage kPurposeUsages[] = {
    {KM_PURPOSE_SIGN, kDigitalSignature},    {KM_PURPOSE_VERIFY, kDigitalSignature},
    {KM_PURPOSE_ENCRYPT, kKeyEncipherment},  {KM_PURPOSE_ENCRYPT, kDataEncipherment},
    {KM_PURPOSE_DECRYPT, kKeyEncipherment},  {KM_PURPOSE_DECRYPT, kDataEncipherment},
    {KM_PURPOSE_WRAP_KEY, kKeyEncipherment},
};

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

void AddExtension(X509* certificate, X509* issuer, int nid, const char* value) {
  X509V3_CTX context = {};
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  const ExtensionPtr extension(X509V3_EXT_nconf_nid(nullptr, &context, nid, value));
  RequireCrypto(extension && X509_add_ext(certificate, extension.get(), -1) == 1);
}

PkeyPtr NewSigningKey() {
  const EcKeyPtr key(EC_KEY_new_by_curve_name(NID_X9_62_prime256v1));
  RequireCrypto(key != nullptr && EC_KEY_generate_key(key.get()) == 1);
  return ToPkey(key);
}

// issuer is null for the root, which signs itself.
X509Ptr NewCa(const char* name, X509* issuer, EVP_PKEY* key, EVP_PKEY* signing_key) {
  X509_NAME* const issuer_name = issuer != nullptr ? X509_get_subject_name(issuer) : nullptr;
  const long serial = issuer != nullptr ? 2 : 1;
  X509Ptr ca = Draft(name, issuer_name, key, serial, 0, kNoEnd);
  AddExtension(ca.get(), issuer, NID_basic_constraints,
               issuer != nullptr ? "critical,CA:TRUE,pathlen:0" : "critical,CA:TRUE");
  AddExtension(ca.get(), issuer, NID_key_usage, "critical,keyCertSign");
  AddExtension(ca.get(), issuer, NID_subject_key_identifier, "hash");
  if (issuer != nullptr) {
    AddExtension(ca.get(), issuer, NID_authority_key_identifier, "keyid:always");
  }
  RequireCrypto(X509_sign(ca.get(), signing_key, EVP_sha256()) > 0);
  return ca;
}

SecureBytes NewAuthorityPem() {
  const PkeyPtr root_key = NewSigningKey();
  const PkeyPtr intermediate_key = NewSigningKey();
  const X509Ptr root = NewCa(kRootName, nullptr, root_key.get(), root_key.get());
  const X509Ptr intermediate =
      NewCa(kIntermediateName, root.get(), intermediate_key.get(), root_key.get());
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

AttestationAuthority ParseAuthority(ByteView pem) {
  const BioPtr in(BIO_new_mem_buf(pem.data, static_cast<int>(pem.size)));
  RequireCrypto(in != nullptr);
  // Each read skips to the next block of its kind, so the root's key is passed over.
  AttestationAuthority authority;
  authority.intermediate_key.reset(PEM_read_bio_PrivateKey(in.get(), nullptr, nullptr, nullptr));
  authority.intermediate.reset(PEM_read_bio_X509(in.get(), nullptr, nullptr, nullptr));
  authority.root.reset(PEM_read_bio_X509(in.get(), nullptr, nullptr, nullptr));
  RequireCrypto(authority.intermediate_key && authority.intermediate && authority.root);
  return authority;
}

void AddKeyUsage(X509* leaf, const Key& key) {
  const BitStringPtr usage(ASN1_BIT_STRING_new());
  RequireCrypto(usage != nullptr);
  bool any = false;
  for (const PurposeUsage& row : kPurposeUsages) {
    if (!key.Authorizes(KM_TAG_PURPOSE, row.purpose)) continue;
    RequireCrypto(ASN1_BIT_STRING_set_bit(usage.get(), row.bit, 1) == 1);
    any = true;
  }
  if (any) {
    RequireCrypto(X509_add1_ext_i2d(leaf, NID_key_usage, usage.get(), 1, X509V3_ADD_DEFAULT) == 1);
  }
}

void AddKeyDescription(X509* leaf, ByteView key_description) {
  const ObjectPtr oid(OBJ_txt2obj(kKeyDescriptionOid, 1));
  const OctetStringPtr value(ASN1_OCTET_STRING_new());
  RequireCrypto(oid && value &&
                ASN1_OCTET_STRING_set(value.get(), key_description.data,
                                      static_cast<int>(key_description.size)) == 1);
  const ExtensionPtr extension(X509_EXTENSION_create_by_OBJ(nullptr, oid.get(), 0, value.get()));
  RequireCrypto(extension && X509_add_ext(leaf, extension.get(), -1) == 1);
}

// The seconds since 1970 of the first of two dates that the key has.
uint64_t DateOf(const Key& key, uint32_t tag, uint32_t other_tag, uint64_t otherwise) {
  const Param* date = key.Find(tag);
  if (date == nullptr) date = key.Find(other_tag);
  return date != nullptr ? date->value / 1000 : otherwise;
}

}  // namespace

AttestationAuthority LoadOrCreateAuthority() {
  SecureBytes pem;
  if (!ReadStateFile(kAuthorityFile, &pem)) {
    CreateStateFile(kAuthorityFile, NewAuthorityPem());
    // Another process may have been first: what the folder holds counts.
    RequireCrypto(ReadStateFile(kAuthorityFile, &pem));
  }
  return ParseAuthority(pem);
}

X509Ptr BuildLeaf(const AttestationAuthority& authority, const Key& key, ByteView key_description) {
  X509* const issuer = authority.intermediate.get();
  X509Ptr leaf =
      Draft(kLeafName, X509_get_subject_name(issuer), key.pkey.get(), 1,
            DateOf(key, KM_TAG_ACTIVE_DATETIME, KM_TAG_CREATION_DATETIME, 0),
            DateOf(key, KM_TAG_USAGE_EXPIRE_DATETIME, KM_TAG_USAGE_EXPIRE_DATETIME, kNoEnd));
  AddExtension(leaf.get(), issuer, NID_authority_key_identifier, "keyid:always");
  AddKeyUsage(leaf.get(), key);
  AddKeyDescription(leaf.get(), key_description);
  RequireCrypto(X509_sign(leaf.get(), authority.intermediate_key.get(), EVP_sha256()) > 0);
  return leaf;
}

}  // namespace ta
