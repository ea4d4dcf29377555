// AES-GCM: the tag follows the ciphertext.
#include "cipher_feed.h"
#include "key_material.h"
#include "operation.h"

namespace ta {
namespace {

constexpr size_t kNonceSize = 12;
constexpr uint64_t kMinTagBits = 96;
constexpr uint64_t kMaxTagBits = 128;

class GcmOperation : public Operation {
 public:
  GcmOperation(CipherCtxPtr ctx, size_t tag_size, bool encrypts)
      : ctx_(std::move(ctx)), tag_size_(tag_size), encrypts_(encrypts) {}

  TEEC_Result AddAssociatedData(ByteView data) override {
    // Input that travels in pieces has the same parameters with each of them.
    if (data_began_) {
      return last_associated_ == Bytes(data.begin(), data.end()) ? TEEC_SUCCESS
                                                                 : Fail(KM_ERROR_INVALID_TAG);
    }
    if (data.size > kMaxAssociated) return Fail(KM_ERROR_INVALID_INPUT_LENGTH);
    int ignored = 0;
    RequireCrypto(data.size == 0 || EVP_CipherUpdate(ctx_.get(), nullptr, &ignored, data.data,
                                                     static_cast<int>(data.size)) == 1);
    last_associated_.assign(data.begin(), data.end());
    return TEEC_SUCCESS;
  }

  TEEC_Result Update(ByteView input, SecureBytes* output) override {
    data_began_ = data_began_ || input.size != 0;
    if (encrypts_) {
      FeedCipher(ctx_.get(), input, output);
      return TEEC_SUCCESS;
    }
    // The last bytes so far may be the tag: they wait.
    AppendBytes(&held_, input);
    if (held_.size() <= tag_size_) return TEEC_SUCCESS;
    const size_t ciphertext = held_.size() - tag_size_;
    FeedCipher(ctx_.get(), ByteView(held_.data(), ciphertext), output);
    held_ = SecureBytes(held_.end() - static_cast<ptrdiff_t>(tag_size_), held_.end());
    return TEEC_SUCCESS;
  }

  TEEC_Result Finish(ByteView, SecureBytes* output) override {
    uint8_t none[EVP_MAX_BLOCK_LENGTH];
    int size = 0;
    if (!encrypts_) {
      if (held_.size() < tag_size_) return Fail(KM_ERROR_INVALID_INPUT_LENGTH);
      RequireCrypto(EVP_CIPHER_CTX_ctrl(ctx_.get(), EVP_CTRL_AEAD_SET_TAG,
                                        static_cast<int>(tag_size_), held_.data()) == 1);
      return EVP_CipherFinal_ex(ctx_.get(), none, &size) == 1 ? TEEC_SUCCESS
                                                              : Fail(KM_ERROR_VERIFICATION_FAILED);
    }
    const size_t before = output->size();
    output->resize(before + tag_size_);
    RequireCrypto(EVP_CipherFinal_ex(ctx_.get(), none, &size) == 1 &&
                  EVP_CIPHER_CTX_ctrl(ctx_.get(), EVP_CTRL_AEAD_GET_TAG,
                                      static_cast<int>(tag_size_), output->data() + before) == 1);
    return TEEC_SUCCESS;
  }

 private:
  static constexpr size_t kMaxAssociated = size_t{1} << 24;

  const CipherCtxPtr ctx_;
  const size_t tag_size_;
  const bool encrypts_;
  bool data_began_ = false;
  Bytes last_associated_;
  SecureBytes held_;
};

TEEC_Result ChooseTagSize(const OperationRequest& request, size_t* size) {
  const std::optional<uint64_t> bits = request.params.Value(KM_TAG_MAC_LENGTH);
  if (!bits) return Fail(KM_ERROR_MISSING_MAC_LENGTH);
  if (*bits < kMinTagBits || *bits > kMaxTagBits || *bits % 8 != 0) {
    return Fail(KM_ERROR_UNSUPPORTED_MAC_LENGTH);
  }
  if (*bits < request.key->hw_enforced.Value(KM_TAG_MIN_MAC_LENGTH).value_or(kMaxTagBits)) {
    return Fail(KM_ERROR_INVALID_MAC_LENGTH);
  }
  *size = *bits / 8;
  return TEEC_SUCCESS;
}

}  // namespace

TEEC_Result MakeGcmOperation(const OperationRequest& request, OperationPtr* operation) {
  const bool encrypts = request.purpose == KM_PURPOSE_ENCRYPT;
  uint32_t padding = 0;
  size_t tag_size = 0;
  Bytes nonce;
  TEEC_Result result = ChoosePadding(request, &padding);
  if (result == 0 && padding != KM_PAD_NONE) result = Fail(KM_ERROR_INCOMPATIBLE_PADDING_MODE);
  if (result == 0) result = ChooseTagSize(request, &tag_size);
  if (result == 0) result = ChooseNonce(request, kNonceSize, &nonce);
  if (result != 0) return result;
  const EVP_CIPHER* const ciphers[] = {EVP_aes_128_gcm(), EVP_aes_192_gcm(), EVP_aes_256_gcm()};
  CipherCtxPtr ctx(EVP_CIPHER_CTX_new());
  RequireCrypto(ctx != nullptr &&
                EVP_CipherInit_ex(ctx.get(), ciphers[request.key->key_size / 64 - 2], nullptr,
                                  request.key->symmetric.data(), nonce.data(),
                                  encrypts ? 1 : 0) == 1);
  *operation = std::make_unique<GcmOperation>(std::move(ctx), tag_size, encrypts);
  return TEEC_SUCCESS;
}

}  // namespace ta
