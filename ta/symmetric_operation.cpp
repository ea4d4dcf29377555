// AES, Triple DES and HMAC.
#include <openssl/hmac.h>

#include "ta/operation.h"

namespace ta {
namespace {

// ECB, CBC and CTR mode.
class CipherOperation : public Operation {
 public:
  CipherOperation(CipherCtxPtr ctx, bool unpads) : ctx_(std::move(ctx)), unpads_(unpads) {}

  void Update(ByteView input, SecureBytes* output) override {
    total_ += input.size;
    FeedCipher(ctx_.get(), input, output);
  }

  void Finish(ByteView, SecureBytes* output) override {
    const size_t block = static_cast<size_t>(EVP_CIPHER_CTX_block_size(ctx_.get()));
    FailIf(unpads_ && (total_ == 0 || total_ % block != 0), KM_ERROR_INVALID_INPUT_LENGTH);
    const size_t before = output->size();
    int size = 0;
    output->resize(before + block);
    FailIf(EVP_CipherFinal_ex(ctx_.get(), output->data() + before, &size) != 1,
           unpads_ ? KM_ERROR_INVALID_ARGUMENT : KM_ERROR_INVALID_INPUT_LENGTH);
    output->resize(before + static_cast<size_t>(size));
  }

 private:
  const CipherCtxPtr ctx_;
  const bool unpads_;
  uint64_t total_ = 0;
};

// AES-GCM: the tag follows the ciphertext.
class GcmOperation : public Operation {
 public:
  static constexpr size_t kNonceSize = 12;

  GcmOperation(CipherCtxPtr ctx, size_t tag_size, bool encrypts)
      : ctx_(std::move(ctx)), tag_size_(tag_size), encrypts_(encrypts) {}

  void AddAssociatedData(ByteView data) override {
    // Input that travels in chunks has the same parameters with each of them.
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

OperationPtr MakeGcmOperation(const OperationRequest& request) {
  const bool encrypts = request.purpose == KM_PURPOSE_ENCRYPT;
  FailIf(Choose(request, KM_TAG_PADDING) != KM_PAD_NONE, KM_ERROR_INCOMPATIBLE_PADDING_MODE);
  const size_t tag_size = ChooseMacSize(request, 96, 128);
  const Bytes nonce = ChooseNonce(request, GcmOperation::kNonceSize);
  return std::make_unique<GcmOperation>(StartCipher(CipherOf(*request.key, KM_MODE_GCM),
                                                    request.key->symmetric, nonce.data(), encrypts),
                                        tag_size, encrypts);
}

using HmacCtxPtr = std::unique_ptr<HMAC_CTX, CallFree<HMAC_CTX, HMAC_CTX_free>>;

class HmacOperation : public Operation {
 public:
  // mac_size is that of the MAC to make, or of the shortest one to accept.
  HmacOperation(const SecureBytes& key, const EVP_MD* md, size_t mac_size, bool signs)
      : signs_(signs), mac_size_(mac_size), ctx_(HMAC_CTX_new()) {
    RequireCrypto(ctx_ != nullptr && HMAC_Init_ex(ctx_.get(), key.data(),
                                                  static_cast<int>(key.size()), md, nullptr) == 1);
  }

  void Update(ByteView input, SecureBytes*) override {
    RequireCrypto(input.size == 0 || HMAC_Update(ctx_.get(), input.data, input.size) == 1);
  }

  void Finish(ByteView signature, SecureBytes* output) override {
    SecureBytes mac(EVP_MAX_MD_SIZE);
    unsigned int size = 0;
    RequireCrypto(HMAC_Final(ctx_.get(), mac.data(), &size) == 1);
    if (signs_) return AppendBytes(output, ByteView(mac.data(), mac_size_));
    FailIf(signature.size < mac_size_, KM_ERROR_INVALID_MAC_LENGTH);
    FailIf(signature.size > size || CRYPTO_memcmp(signature.data, mac.data(), signature.size) != 0,
           KM_ERROR_VERIFICATION_FAILED);
  }

 private:
  const bool signs_;
  const size_t mac_size_;
  const HmacCtxPtr ctx_;
};

}  // namespace

OperationPtr MakeCipherOperation(const OperationRequest& request) {
  const uint32_t mode = Choose(request, KM_TAG_BLOCK_MODE);
  if (mode == KM_MODE_GCM) return MakeGcmOperation(request);
  const bool encrypts = request.purpose == KM_PURPOSE_ENCRYPT;
  const bool pads = Choose(request, KM_TAG_PADDING) != KM_PAD_NONE;
  FailIf(mode == KM_MODE_CTR && pads, KM_ERROR_INCOMPATIBLE_PADDING_MODE);
  const EVP_CIPHER* cipher = CipherOf(*request.key, mode);
  FailIf(cipher == nullptr, KM_ERROR_UNSUPPORTED_BLOCK_MODE);
  const size_t nonce_size = static_cast<size_t>(EVP_CIPHER_iv_length(cipher));
  const Bytes nonce = nonce_size == 0 ? Bytes() : ChooseNonce(request, nonce_size);
  CipherCtxPtr ctx = StartCipher(cipher, request.key->symmetric, nonce.data(), encrypts);
  RequireCrypto(EVP_CIPHER_CTX_set_padding(ctx.get(), pads ? 1 : 0) == 1);
  return std::make_unique<CipherOperation>(std::move(ctx), pads && !encrypts);
}

OperationPtr MakeHmacOperation(const OperationRequest& request) {
  const bool signs = request.purpose == KM_PURPOSE_SIGN;
  const ParamSet& allowed = request.key->hw_enforced;
  // A key has one digest, so that a begin need not name it.
  const EVP_MD* md = DigestAlgorithm(
      request.params.Contains(KM_TAG_DIGEST)
          ? Choose(request, KM_TAG_DIGEST)
          : static_cast<uint32_t>(allowed.Value(KM_TAG_DIGEST).value_or(KM_DIGEST_NONE)));
  FailIf(md == nullptr, KM_ERROR_UNSUPPORTED_DIGEST);
  const uint64_t bits = static_cast<uint64_t>(EVP_MD_size(md)) * 8;
  const size_t size = signs ? ChooseMacSize(request, 0, bits)
                            : allowed.Value(KM_TAG_MIN_MAC_LENGTH).value_or(bits) / 8;
  return std::make_unique<HmacOperation>(request.key->symmetric, md, size, signs);
}

}  // namespace ta
