// RSA and ECDSA signatures, made and checked.
#include <openssl/rsa.h>

#include "key_material.h"
#include "operation.h"

namespace ta {
namespace {

// What a PKCS#1 v1.5 signature adds to a digest, and to bare data, at least.
constexpr size_t kPkcs1DigestInfo = 19;
constexpr size_t kPkcs1Overhead = 11;

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

  TEEC_Result Update(ByteView input, SecureBytes*) override {
    if (hash_ != nullptr) {
      RequireCrypto(EVP_DigestUpdate(hash_.get(), input.data, input.size) == 1);
      return TEEC_SUCCESS;
    }
    const size_t room = MaxBareData() - data_.size();
    if (rsa_ && input.size > room) return Fail(KM_ERROR_INVALID_INPUT_LENGTH);
    // ECDSA uses the leftmost bits of what is longer than its numbers.
    AppendBytes(&data_, ByteView(input.data, std::min(input.size, room)));
    return TEEC_SUCCESS;
  }

  TEEC_Result Finish(ByteView signature, SecureBytes* output) override {
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
    PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, pkey_.get(), nullptr));
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
      RequireCrypto(EVP_PKEY_CTX_set_rsa_pss_saltlen(ctx.get(), RSA_PSS_SALTLEN_DIGEST) == 1);
    }
    return ctx;
  }

  TEEC_Result Sign(SecureBytes* output) const {
    const PkeyCtxPtr ctx = Start(EVP_PKEY_sign_init);
    size_t size = 0;
    RequireCrypto(EVP_PKEY_sign(ctx.get(), nullptr, &size, data_.data(), data_.size()) == 1);
    const size_t before = output->size();
    output->resize(before + size);
    // Bare data that is a larger number than the modulus is the caller's fault.
    if (EVP_PKEY_sign(ctx.get(), output->data() + before, &size, data_.data(), data_.size()) != 1) {
      return Fail(KM_ERROR_INVALID_ARGUMENT);
    }
    output->resize(before + size);
    return TEEC_SUCCESS;
  }

  TEEC_Result Verify(ByteView signature) const {
    const PkeyCtxPtr ctx = Start(EVP_PKEY_verify_init);
    const bool verified =
        EVP_PKEY_verify(ctx.get(), signature.data, signature.size, data_.data(), data_.size()) == 1;
    return verified ? TEEC_SUCCESS : Fail(KM_ERROR_VERIFICATION_FAILED);
  }

  const bool rsa_;
  const size_t key_bytes_;
  const PkeyPtr pkey_;
  const Scheme scheme_;
  MdCtxPtr hash_;
  SecureBytes data_;
};

// Whether padding and digest go together, and fit the key.
TEEC_Result CheckRsaScheme(const Scheme& scheme, uint32_t key_size) {
  const size_t key_bytes = key_size / 8;
  const size_t digest = scheme.md == nullptr ? 0 : static_cast<size_t>(EVP_MD_get_size(scheme.md));
  switch (scheme.padding) {
    case KM_PAD_NONE:
      return digest == 0 ? TEEC_SUCCESS : Fail(KM_ERROR_INCOMPATIBLE_DIGEST);
    case KM_PAD_RSA_PKCS1_1_5_SIGN:
      return digest == 0 || key_bytes >= digest + kPkcs1DigestInfo + kPkcs1Overhead
                 ? TEEC_SUCCESS
                 : Fail(KM_ERROR_INCOMPATIBLE_DIGEST);
    case KM_PAD_RSA_PSS:
      return digest != 0 && key_bytes >= 2 * digest + 2 ? TEEC_SUCCESS
                                                        : Fail(KM_ERROR_INCOMPATIBLE_DIGEST);
    default:
      return Fail(KM_ERROR_UNSUPPORTED_PADDING_MODE);
  }
}

}  // namespace

TEEC_Result MakeSignatureOperation(const OperationRequest& request, OperationPtr* operation) {
  Scheme scheme;
  scheme.signs = request.purpose == KM_PURPOSE_SIGN;
  uint32_t digest = 0;
  TEEC_Result result = ChooseDigest(request, &digest);
  scheme.md = DigestAlgorithm(digest);
  if (request.key->algorithm == KM_ALGORITHM_RSA) {
    if (result == 0) result = ChoosePadding(request, &scheme.padding);
    if (result == 0) result = CheckRsaScheme(scheme, request.key->key_size);
  }
  if (result != 0) return result;
  *operation =
      std::make_unique<SignatureOperation>(*request.key, std::move(request.key->pkey), scheme);
  return TEEC_SUCCESS;
}

}  // namespace ta
