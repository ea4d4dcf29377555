// Signatures of RSA and EC keys, made and checked, and RSA encryption.
#include <algorithm>

#include "ta/operation.h"

namespace ta {
namespace {

// What a PKCS#1 v1.5 signature adds to a digest, and to bare data, at least.
constexpr size_t kPkcs1DigestInfo = 19;
constexpr size_t kPkcs1Overhead = 11;
// What libcrypto takes for a salt as long as the digest.
constexpr int kPssSaltLikeDigest = -1;

struct Scheme {
  uint32_t purpose = 0;
  uint32_t padding = 0;        // RSA only
  const EVP_MD* md = nullptr;  // null signs the data themselves
};

// What the operations of asymmetric keys share: the data that one call of libcrypto is for.
class PkeyOperation : public Operation {
 protected:
  PkeyOperation(const OperationRequest& request, const Scheme& scheme)
      : scheme_(scheme),
        rsa_(request.key->algorithm == KM_ALGORITHM_RSA),
        key_bytes_((request.key->key_size + 7) / 8),
        pkey_(std::move(request.key->pkey)) {}

  // Data without padding is a number as long as the modulus.
  void PadData() {
    if (rsa_ && scheme_.padding == KM_PAD_NONE) {
      data_.insert(data_.begin(), key_bytes_ - data_.size(), 0);
    }
  }

  PkeyCtxPtr Start(int (*init)(EVP_PKEY_CTX*)) const {
    PkeyCtxPtr ctx(EVP_PKEY_CTX_new(pkey_.get(), nullptr));
    RequireCrypto(ctx != nullptr && init(ctx.get()) == 1);
    if (!rsa_) return ctx;
    const int padding = scheme_.padding == KM_PAD_RSA_PSS    ? RSA_PKCS1_PSS_PADDING
                        : scheme_.padding == KM_PAD_RSA_OAEP ? RSA_PKCS1_OAEP_PADDING
                        : scheme_.padding == KM_PAD_NONE     ? RSA_NO_PADDING
                                                             : RSA_PKCS1_PADDING;
    RequireCrypto(EVP_PKEY_CTX_set_rsa_padding(ctx.get(), padding) == 1);
    return ctx;
  }

  // Appends what libcrypto makes of the data; its failure is the caller's, by that code.
  template <typename Call>
  void Run(Call call, EVP_PKEY_CTX* ctx, keymaster_error_t failure, SecureBytes* output) const {
    const size_t before = output->size();
    size_t size = 0;
    RequireCrypto(call(ctx, nullptr, &size, data_.data(), data_.size()) == 1);
    output->resize(before + size);
    FailIf(call(ctx, output->data() + before, &size, data_.data(), data_.size()) != 1, failure);
    output->resize(before + size);
  }

  const Scheme scheme_;
  const bool rsa_;
  const size_t key_bytes_;
  const PkeyPtr pkey_;
  SecureBytes data_;
};

class SignatureOperation : public PkeyOperation {
 public:
  SignatureOperation(const OperationRequest& request, const Scheme& scheme)
      : PkeyOperation(request, scheme) {
    if (scheme_.md == nullptr) return;
    hash_.reset(EVP_MD_CTX_new());
    RequireCrypto(hash_ != nullptr && EVP_DigestInit_ex(hash_.get(), scheme_.md, nullptr) == 1);
  }

  void Update(ByteView input, SecureBytes*) override {
    if (hash_ != nullptr) {
      return RequireCrypto(EVP_DigestUpdate(hash_.get(), input.data, input.size) == 1);
    }
    const bool has_overhead = rsa_ && scheme_.padding != KM_PAD_NONE;
    const size_t room = key_bytes_ - (has_overhead ? kPkcs1Overhead : 0) - data_.size();
    FailIf(rsa_ && input.size > room, KM_ERROR_INVALID_INPUT_LENGTH);
    // ECDSA uses the leftmost bits of what is longer than its numbers.
    AppendBytes(&data_, ByteView(input.data, std::min(input.size, room)));
  }

  void Finish(ByteView signature, SecureBytes* output) override {
    if (hash_ != nullptr) {
      data_.resize(static_cast<size_t>(EVP_MD_size(scheme_.md)));
      RequireCrypto(EVP_DigestFinal_ex(hash_.get(), data_.data(), nullptr) == 1);
    } else {
      PadData();
    }
    const bool signs = scheme_.purpose == KM_PURPOSE_SIGN;
    const PkeyCtxPtr ctx = Start(signs ? EVP_PKEY_sign_init : EVP_PKEY_verify_init);
    RequireCrypto(scheme_.md == nullptr ||
                  EVP_PKEY_CTX_set_signature_md(ctx.get(), scheme_.md) == 1);
    RequireCrypto(scheme_.padding != KM_PAD_RSA_PSS ||
                  EVP_PKEY_CTX_set_rsa_pss_saltlen(ctx.get(), kPssSaltLikeDigest) == 1);
    // Bare data that is a larger number than the modulus is the caller's fault.
    if (signs) return Run(EVP_PKEY_sign, ctx.get(), KM_ERROR_INVALID_ARGUMENT, output);
    FailIf(
        EVP_PKEY_verify(ctx.get(), signature.data, signature.size, data_.data(), data_.size()) != 1,
        KM_ERROR_VERIFICATION_FAILED);
  }

 private:
  MdCtxPtr hash_;
};

class RsaCipherOperation : public PkeyOperation {
 public:
  RsaCipherOperation(const OperationRequest& request, const Scheme& scheme)
      : PkeyOperation(request, scheme) {}

  void Update(ByteView input, SecureBytes*) override {
    FailIf(input.size > key_bytes_ - data_.size(), KM_ERROR_INVALID_INPUT_LENGTH);
    AppendBytes(&data_, input);
  }

  void Finish(ByteView, SecureBytes* output) override {
    const bool encrypts = scheme_.purpose == KM_PURPOSE_ENCRYPT;
    PadData();
    const PkeyCtxPtr ctx = Start(encrypts ? EVP_PKEY_encrypt_init : EVP_PKEY_decrypt_init);
    if (scheme_.padding == KM_PAD_RSA_OAEP) {
      // The platform's callers expect SHA-1 in the mask whatever the label's digest is.
      RequireCrypto(EVP_PKEY_CTX_set_rsa_oaep_md(ctx.get(), scheme_.md) == 1 &&
                    EVP_PKEY_CTX_set_rsa_mgf1_md(ctx.get(), EVP_sha1()) == 1);
    }
    // Data that no padding is taken off can only be too large a number; data to be padded, too
    // long.
    Run(encrypts ? EVP_PKEY_encrypt : EVP_PKEY_decrypt, ctx.get(),
        scheme_.padding == KM_PAD_NONE ? KM_ERROR_INVALID_ARGUMENT
        : encrypts                     ? KM_ERROR_INVALID_INPUT_LENGTH
                                       : KM_ERROR_UNKNOWN_ERROR,
        output);
  }
};

// Padding and digest must go together, and fit the key.
void CheckRsaScheme(const Scheme& scheme, size_t key_bytes) {
  const size_t digest = scheme.md == nullptr ? 0 : static_cast<size_t>(EVP_MD_size(scheme.md));
  if (scheme.padding == KM_PAD_NONE) {
    FailIf(digest != 0, KM_ERROR_INCOMPATIBLE_DIGEST);
  } else if (scheme.padding == KM_PAD_RSA_PKCS1_1_5_SIGN) {
    FailIf(digest != 0 && key_bytes < digest + kPkcs1DigestInfo + kPkcs1Overhead,
           KM_ERROR_INCOMPATIBLE_DIGEST);
  } else {
    FailIf(scheme.padding != KM_PAD_RSA_PSS, KM_ERROR_UNSUPPORTED_PADDING_MODE);
    FailIf(digest == 0 || key_bytes < 2 * digest + 2, KM_ERROR_INCOMPATIBLE_DIGEST);
  }
}

}  // namespace

OperationPtr MakeSignatureOperation(const OperationRequest& request) {
  Scheme scheme = {request.purpose, 0, DigestAlgorithm(Choose(request, KM_TAG_DIGEST))};
  if (request.key->algorithm == KM_ALGORITHM_RSA) {
    scheme.padding = Choose(request, KM_TAG_PADDING);
    CheckRsaScheme(scheme, request.key->key_size / 8);
  }
  return std::make_unique<SignatureOperation>(request, scheme);
}

OperationPtr MakeRsaCipherOperation(const OperationRequest& request) {
  Scheme scheme = {request.purpose, Choose(request, KM_TAG_PADDING), nullptr};
  if (scheme.padding == KM_PAD_RSA_OAEP) {
    scheme.md = DigestAlgorithm(Choose(request, KM_TAG_DIGEST));
    FailIf(scheme.md == nullptr ||
               request.key->key_size / 8 < 2 * static_cast<size_t>(EVP_MD_size(scheme.md)) + 2,
           KM_ERROR_INCOMPATIBLE_DIGEST);
  } else if (scheme.padding != KM_PAD_NONE && scheme.padding != KM_PAD_RSA_PKCS1_1_5_ENCRYPT) {
    Fail(KM_ERROR_UNSUPPORTED_PADDING_MODE);
  }
  return std::make_unique<RsaCipherOperation>(request, scheme);
}

}  // namespace ta
