// AES-GCM: the tag follows the ciphertext.
#include "ta/operation.h"

namespace ta {
namespace {

constexpr size_t kNonceSize = 12;

class GcmOperation : public Operation {
 public:
  GcmOperation(CipherCtxPtr ctx, size_t tag_size, bool encrypts)
      : ctx_(std::move(ctx)), tag_size_(tag_size), encrypts_(encrypts) {}

  void AddAssociatedData(ByteView data) override {
    // Input that travels in pieces has the same parameters with each of them.
    FailIf(data_began_ && last_associated_ != Bytes(data.begin(), data.end()),
           KM_ERROR_INVALID_TAG);
    if (data_began_) return;
    FailIf(data.size > kMaxAssociated, KM_ERROR_INVALID_INPUT_LENGTH);
    int ignored = 0;
    RequireCrypto(data.size == 0 || EVP_CipherUpdate(ctx_.get(), nullptr, &ignored, data.data,
                                                     static_cast<int>(data.size)) == 1);
    last_associated_.assign(data.begin(), data.end());
  }

  void Update(ByteView input, SecureBytes* output) override {
    data_began_ = data_began_ || input.size != 0;
    if (encrypts_) return FeedCipher(ctx_.get(), input, output);
    // The last bytes so far may be the tag: they wait.
    AppendBytes(&held_, input);
    if (held_.size() <= tag_size_) return;
    const size_t ciphertext = held_.size() - tag_size_;
    FeedCipher(ctx_.get(), ByteView(held_.data(), ciphertext), output);
    held_.erase(held_.begin(), held_.begin() + static_cast<ptrdiff_t>(ciphertext));
  }

  void Finish(ByteView, SecureBytes* output) override {
    const int tag_size = static_cast<int>(tag_size_);
    uint8_t none[EVP_MAX_BLOCK_LENGTH];
    int size = 0;
    if (!encrypts_) {
      FailIf(held_.size() < tag_size_, KM_ERROR_INVALID_INPUT_LENGTH);
      RequireCrypto(
          EVP_CIPHER_CTX_ctrl(ctx_.get(), EVP_CTRL_AEAD_SET_TAG, tag_size, held_.data()) == 1);
      FailIf(EVP_CipherFinal_ex(ctx_.get(), none, &size) != 1, KM_ERROR_VERIFICATION_FAILED);
      return;
    }
    const size_t before = output->size();
    output->resize(before + tag_size_);
    RequireCrypto(EVP_CipherFinal_ex(ctx_.get(), none, &size) == 1 &&
                  EVP_CIPHER_CTX_ctrl(ctx_.get(), EVP_CTRL_AEAD_GET_TAG, tag_size,
                                      output->data() + before) == 1);
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

}  // namespace

OperationPtr MakeGcmOperation(const OperationRequest& request) {
  const bool encrypts = request.purpose == KM_PURPOSE_ENCRYPT;
  FailIf(Choose(request, KM_TAG_PADDING) != KM_PAD_NONE, KM_ERROR_INCOMPATIBLE_PADDING_MODE);
  const size_t tag_size = ChooseMacSize(request, 96, 128);
  const Bytes nonce = ChooseNonce(request, kNonceSize);
  return std::make_unique<GcmOperation>(StartCipher(CipherOf(*request.key, KM_MODE_GCM),
                                                    request.key->symmetric, nonce.data(), encrypts),
                                        tag_size, encrypts);
}

}  // namespace ta
