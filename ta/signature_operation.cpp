// RSA and ECDSA signatures, made and checked.
#include <openssl/rsa.h>

#include "ta/operation.h"

namespace ta {
namespace {

// What a PKCS#1 v1.5 signature adds to a digest, and to bare data, at least.
constexpr size_t kPkcs1DigestInfo = 19;
constexpr size_t kPkcs1Overhead = 11;
// What libcrypto takes for a salt as long as the digest.
constexpr int kPssSaltLikeDigest = -1;

struct Scheme {
  bool signs = false;
  uint32_t padding = 0;        // RSA only
  const EVP_MD* md = nullptr;  // null signs the data themselves
};

class SignatureOperation : public Operation {
 public:
  SignatureOperation(const Key& key, PkeyPtr pkey, const Scheme& scheme)
      : rsa_(key.algorithm == KM_ALGORITHM_RSA),
        key_bytes_((key.key_size + 7) / 8),
        pkey_(std::move(pkey)),
        scheme_(scheme) {
    if (scheme_.md == nullptr) return;
    hash_.reset(EVP_MD_CTX_new());
    RequireCrypto(hash_ != nullptr && EVP_DigestInit_ex(hash_.get(), scheme_.md, nullptr) == 1);
  }

  void Update(ByteView input, SecureBytes*) override {
    if (hash_ != nullptr) {
      return RequireCrypto(EVP_DigestUpdate(hash_.get(), input.data, input.size) == 1);
    }
    const size_t room = MaxBareData() - data_.size();
    FailIf(rsa_ && input.size > room, KM_ERROR_INVALID_INPUT_LENGTH);
    // ECDSA uses the leftmost bits of what is longer than its numbers.
    AppendBytes(&data_, ByteView(input.data, std::min(input.size, room)));
  }

  void Finish(ByteView signature, SecureBytes* output) override {
    if (hash_ != nullptr) {
      data_.resize(EVP_MAX_MD_SIZE);
      unsigned int size = 0;
      RequireCrypto(EVP_DigestFinal_ex(hash_.get(), data_.data(), &size) == 1);
      data_.resize(size);
    } else if (rsa_ && scheme_.padding == KM_PAD_NONE) {
      data_.insert(data_.begin(), key_bytes_ - data_.size(), 0);
    }
    return scheme_.signs ? Sign(output) : Verify(signature);
  }

 private:
  size_t MaxBareData() const {
    return rsa_ && scheme_.padding != KM_PAD_NONE ? key_bytes_ - kPkcs1Overhead : key_bytes_;
  }

  PkeyCtxPtr Start(int (*init)(EVP_PKEY_CTX*)) const {
    PkeyCtxPtr ctx(EVP_PKEY_CTX_new(pkey_.get(), nullptr));
    RequireCrypto(ctx != nullptr && init(ctx.get()) == 1);
    if (rsa_) {
      const int padding = scheme_.padding == KM_PAD_RSA_PSS ? RSA_PKCS1_PSS_PADDING
                          : scheme_.padding == KM_PAD_NONE  ? RSA_NO_PADDING
                                                            : RSA_PKCS1_PADDING;
      RequireCrypto(EVP_PKEY_CTX_set_rsa_padding(ctx.get(), padding) == 1);
    }
    if (scheme_.md != nullptr) {
      RequireCrypto(EVP_PKEY_CTX_set_signature_md(ctx.get(), scheme_.md) == 1);
    }
    if (rsa_ && scheme_.padding == KM_PAD_RSA_PSS) {
      RequireCrypto(EVP_PKEY_CTX_set_rsa_pss_saltlen(ctx.get(), kPssSaltLikeDigest) == 1);
    }
    return ctx;
  }

  void Sign(SecureBytes* output) const {
    const PkeyCtxPtr ctx = Start(EVP_PKEY_sign_init);
    size_t size = 0;
    RequireCrypto(EVP_PKEY_sign(ctx.get(), nullptr, &size, data_.data(), data_.size()) == 1);
    const size_t before = output->size();
    output->resize(before + size);
    // Bare data that is a larger number than the modulus is the caller's fault.
    FailIf(
        EVP_PKEY_sign(ctx.get(), output->data() + before, &size, data_.data(), data_.size()) != 1,
        KM_ERROR_INVALID_ARGUMENT);
    output->resize(before + size);
  }

  void Verify(ByteView signature) const {
    const PkeyCtxPtr ctx = Start(EVP_PKEY_verify_init);
    FailIf(
        EVP_PKEY_verify(ctx.get(), signature.data, signature.size, data_.data(), data_.size()) != 1,
        KM_ERROR_VERIFICATION_FAILED);
  }

  const bool rsa_;
  const size_t key_bytes_;
  const PkeyPtr pkey_;
  const Scheme scheme_;
  MdCtxPtr hash_;
  SecureBytes data_;
};

// Padding and digest must go together, and fit the key.
void CheckRsaScheme(const Scheme& scheme, size_t key_bytes) {
  const size_t digest = scheme.md == nullptr ? 0 : static_cast<size_t>(EVP_MD_size(scheme.md));
  bool fits = false;
  switch (scheme.padding) {
    case KM_PAD_NONE:
      fits = digest == 0;
      break;
    case KM_PAD_RSA_PKCS1_1_5_SIGN:
      fits = digest == 0 || key_bytes >= digest + kPkcs1DigestInfo + kPkcs1Overhead;
      break;
    case KM_PAD_RSA_PSS:
      fits = digest != 0 && key_bytes >= 2 * digest + 2;
      break;
    default:
      Fail(KM_ERROR_UNSUPPORTED_PADDING_MODE);
  }
  FailIf(!fits, KM_ERROR_INCOMPATIBLE_DIGEST);
}

}  // namespace

OperationPtr MakeSignatureOperation(const OperationRequest& request) {
  Scheme scheme;
  scheme.signs = request.purpose == KM_PURPOSE_SIGN;
  scheme.md = DigestAlgorithm(Choose(request, KM_TAG_DIGEST));
  if (request.key->algorithm == KM_ALGORITHM_RSA) {
    scheme.padding = Choose(request, KM_TAG_PADDING);
    CheckRsaScheme(scheme, request.key->key_size / 8);
  }
  return std::make_unique<SignatureOperation>(*request.key, std::move(request.key->pkey), scheme);
}

}  // namespace ta
