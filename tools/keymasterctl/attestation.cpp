#include "attestation.h"

#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <memory>

#include "errors.h"

namespace {

constexpr const char* kExtension = "1.3.6.1.4.1.11129.2.1.17";

using Certificate = std::unique_ptr<X509, void (*)(X509*)>;
using Sequence = std::unique_ptr<ASN1_SEQUENCE_ANY, void (*)(ASN1_SEQUENCE_ANY*)>;

Certificate Decode(const keymaster_blob_t& der) {
  const uint8_t* at = der.data;
  Certificate certificate(d2i_X509(nullptr, &at, static_cast<long>(der.data_length)), X509_free);
  if (certificate == nullptr) throw Failure("the chain holds something that is no certificate");
  return certificate;
}

// What a libcrypto printer writes.
template <typename Printer>
std::string Printed(Printer print) {
  const std::unique_ptr<BIO, int (*)(BIO*)> bio(BIO_new(BIO_s_mem()), BIO_free);
  print(bio.get());
  char* text = nullptr;
  const long length = BIO_get_mem_data(bio.get(), &text);
  return std::string(text, static_cast<size_t>(length));
}

std::string NameText(const X509_NAME* name) {
  return Printed([name](BIO* bio) { X509_NAME_print_ex(bio, name, 0, XN_FLAG_RFC2253); });
}

void FreeSequence(ASN1_SEQUENCE_ANY* sequence) { sk_ASN1_TYPE_pop_free(sequence, ASN1_TYPE_free); }

int64_t NumberAt(const Sequence& sequence, int index) {
  const ASN1_TYPE* element = sk_ASN1_TYPE_value(sequence.get(), index);
  // Both flavours of libcrypto have these two; they return -1 for what does not fit.
  if (element->type == V_ASN1_INTEGER) return ASN1_INTEGER_get(element->value.integer);
  if (element->type == V_ASN1_ENUMERATED) return ASN1_ENUMERATED_get(element->value.enumerated);
  return -1;
}

}  // namespace

CertificateSummary ReadCertificate(const keymaster_blob_t& der) {
  const Certificate certificate = Decode(der);
  return {NameText(X509_get_subject_name(certificate.get())),
          NameText(X509_get_issuer_name(certificate.get())), Printed([&certificate](BIO* bio) {
            ASN1_TIME_print(bio, X509_get0_notAfter(certificate.get()));
          })};
}

std::optional<Attestation> ReadAttestation(const keymaster_blob_t& der) {
  const Certificate certificate = Decode(der);
  const std::unique_ptr<ASN1_OBJECT, void (*)(ASN1_OBJECT*)> id(OBJ_txt2obj(kExtension, 1),
                                                                ASN1_OBJECT_free);
  const int index = X509_get_ext_by_OBJ(certificate.get(), id.get(), -1);
  if (index < 0) return std::nullopt;
  const ASN1_OCTET_STRING* content =
      X509_EXTENSION_get_data(X509_get_ext(certificate.get(), index));
  const uint8_t* at = ASN1_STRING_get0_data(content);
  const Sequence fields(d2i_ASN1_SEQUENCE_ANY(nullptr, &at, ASN1_STRING_length(content)),
                        FreeSequence);
  if (fields == nullptr || sk_ASN1_TYPE_num(fields.get()) < 5) return std::nullopt;
  const ASN1_TYPE* challenge = sk_ASN1_TYPE_value(fields.get(), 4);
  if (challenge->type != V_ASN1_OCTET_STRING) return std::nullopt;
  const uint8_t* data = ASN1_STRING_get0_data(challenge->value.octet_string);
  return Attestation{NumberAt(fields, 0), NumberAt(fields, 1), NumberAt(fields, 2),
                     NumberAt(fields, 3),
                     Bytes(data, data + ASN1_STRING_length(challenge->value.octet_string))};
}

std::string SecurityLevelName(int64_t level) {
  constexpr const char* kNames[] = {"software", "trusted-environment", "strongbox"};
  return level >= 0 && level < 3 ? kNames[level] : std::to_string(level);
}
