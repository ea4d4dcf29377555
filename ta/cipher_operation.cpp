// AES and Triple DES in ECB, CBC and CTR mode.
#include "ta/operation.h"

namespace ta {
namespace {

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

}  // namespace ta
