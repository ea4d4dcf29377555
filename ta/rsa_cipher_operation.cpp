// RSA encryption and decryption of one piece of data.
#include <openssl/rsa.h>

#include "ta/operation.h"

namespace ta {
namespace {

class RsaCipherOperation : public Operation {
 public:
  RsaCipherOperation(const OperationRequest& request, uint32_t padding, const EVP_MD* label_md)
      : encrypts_(request.purpose == KM_PURPOSE_ENCRYPT),
        padding_(padding),
        label_md_(label_md),
        key_bytes_((request.key->key_size + 7) / 8),
        pkey_(std::move(request.key->pkey)) {}

  void Update(ByteView input, SecureBytes*) override {
    FailIf(input.size > key_bytes_ - data_.size(), KM_ERROR_INVALID_INPUT_LENGTH);
    AppendBytes(&data_, input);
  }

  void Finish(ByteView, SecureBytes* output) override {
    if (padding_ == KM_PAD_NONE) data_.insert(data_.begin(), key_bytes_ - data_.size(), 0);
    const PkeyCtxPtr ctx = Start();
    const auto run = encrypts_ ? EVP_PKEY_encrypt : EVP_PKEY_decrypt;
    const size_t before = output->size();
    size_t size = 0;
    RequireCrypto(run(ctx.get(), nullptr, &size, data_.data(), data_.size()) == 1);
    output->resize(before + size);
    FailIf(run(ctx.get(), output->data() + before, &size, data_.data(), data_.size()) != 1,
           FailureOfData());
    output->resize(before + size);
  }

 private:
  // Data that no padding is taken off can only be too large a number; data to be padded, too long.
  keymaster_error_t FailureOfData() const {
    if (padding_ == KM_PAD_NONE) return KM_ERROR_INVALID_ARGUMENT;
    return encrypts_ ? KM_ERROR_INVALID_INPUT_LENGTH : KM_ERROR_UNKNOWN_ERROR;
  }

  PkeyCtxPtr Start() const {
    PkeyCtxPtr ctx(EVP_PKEY_CTX_new(pkey_.get(), nullptr));
    const auto init = encrypts_ ? EVP_PKEY_encrypt_init : EVP_PKEY_decrypt_init;
    const int padding = padding_ == KM_PAD_RSA_OAEP ? RSA_PKCS1_OAEP_PADDING
                        : padding_ == KM_PAD_NONE   ? RSA_NO_PADDING
                                                    : RSA_PKCS1_PADDING;
    RequireCrypto(ctx != nullptr && init(ctx.get()) == 1 &&
                  EVP_PKEY_CTX_set_rsa_padding(ctx.get(), padding) == 1);
    if (padding_ == KM_PAD_RSA_OAEP) {
      // The platform's callers expect SHA-1 in the mask whatever the label's digest is.
      RequireCrypto(EVP_PKEY_CTX_set_rsa_oaep_md(ctx.get(), label_md_) == 1 &&
                    EVP_PKEY_CTX_set_rsa_mgf1_md(ctx.get(), EVP_sha1()) == 1);
    }
    return ctx;
  }

  const bool encrypts_;
  const uint32_t padding_;
  const EVP_MD* const label_md_;
  const size_t key_bytes_;
  const PkeyPtr pkey_;
  SecureBytes data_;
};

}  // namespace

OperationPtr MakeRsaCipherOperation(const OperationRequest& request) {
  const uint32_t padding = Choose(request, KM_TAG_PADDING);
  const EVP_MD* label_md = nullptr;
  if (padding == KM_PAD_RSA_OAEP) {
    label_md = DigestAlgorithm(Choose(request, KM_TAG_DIGEST));
    FailIf(label_md == nullptr ||
               request.key->key_size / 8 < 2 * static_cast<size_t>(EVP_MD_size(label_md)) + 2,
           KM_ERROR_INCOMPATIBLE_DIGEST);
  } else if (padding != KM_PAD_NONE && padding != KM_PAD_RSA_PKCS1_1_5_ENCRYPT) {
    Fail(KM_ERROR_UNSUPPORTED_PADDING_MODE);
  }
  return std::make_unique<RsaCipherOperation>(request, padding, label_md);
}

}  // namespace ta
