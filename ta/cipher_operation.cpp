// AES and Triple DES in ECB, CBC and CTR mode.
#include "cipher_feed.h"
#include "key_material.h"
#include "operation.h"

namespace ta {
namespace {

const EVP_CIPHER* AesCipher(uint32_t mode, uint32_t key_size) {
  const size_t size = key_size / 64 - 2;  // 128, 192, 256
  switch (mode) {
    case KM_MODE_ECB: {
      const EVP_CIPHER* const ciphers[] = {EVP_aes_128_ecb(), EVP_aes_192_ecb(), EVP_aes_256_ecb()};
      return ciphers[size];
    }
    case KM_MODE_CBC: {
      const EVP_CIPHER* const ciphers[] = {EVP_aes_128_cbc(), EVP_aes_192_cbc(), EVP_aes_256_cbc()};
      return ciphers[size];
    }
    case KM_MODE_CTR: {
      const EVP_CIPHER* const ciphers[] = {EVP_aes_128_ctr(), EVP_aes_192_ctr(), EVP_aes_256_ctr()};
      return ciphers[size];
    }
    default:
      return nullptr;
  }
}

const EVP_CIPHER* CipherOf(const Key& key, uint32_t mode) {
  if (key.algorithm == KM_ALGORITHM_AES) return AesCipher(mode, key.key_size);
  return mode == KM_MODE_ECB   ? EVP_des_ede3_ecb()
         : mode == KM_MODE_CBC ? EVP_des_ede3_cbc()
                               : nullptr;
}

class CipherOperation : public Operation {
 public:
  CipherOperation(CipherCtxPtr ctx, bool unpads) : ctx_(std::move(ctx)), unpads_(unpads) {}

  TEEC_Result Update(ByteView input, SecureBytes* output) override {
    total_ += input.size;
    FeedCipher(ctx_.get(), input, output);
    return TEEC_SUCCESS;
  }

  TEEC_Result Finish(ByteView, SecureBytes* output) override {
    const size_t block = static_cast<size_t>(EVP_CIPHER_CTX_get_block_size(ctx_.get()));
    if (unpads_ && (total_ == 0 || total_ % block != 0)) return Fail(KM_ERROR_INVALID_INPUT_LENGTH);
    const size_t before = output->size();
    int size = 0;
    output->resize(before + block);
    if (EVP_CipherFinal_ex(ctx_.get(), output->data() + before, &size) != 1) {
      return Fail(unpads_ ? KM_ERROR_INVALID_ARGUMENT : KM_ERROR_INVALID_INPUT_LENGTH);
    }
    output->resize(before + static_cast<size_t>(size));
    return TEEC_SUCCESS;
  }

 private:
  const CipherCtxPtr ctx_;
  const bool unpads_;
  uint64_t total_ = 0;
};

}  // namespace

TEEC_Result MakeCipherOperation(const OperationRequest& request, OperationPtr* operation) {
  const bool encrypts = request.purpose == KM_PURPOSE_ENCRYPT;
  uint32_t mode = 0;
  uint32_t padding = 0;
  TEEC_Result result = ChooseBlockMode(request, &mode);
  if (result == 0 && mode == KM_MODE_GCM) return MakeGcmOperation(request, operation);
  if (result == 0) result = ChoosePadding(request, &padding);
  if (result != 0) return result;
  if (mode == KM_MODE_CTR && padding != KM_PAD_NONE)
    return Fail(KM_ERROR_INCOMPATIBLE_PADDING_MODE);
  const EVP_CIPHER* cipher = CipherOf(*request.key, mode);
  if (cipher == nullptr) return Fail(KM_ERROR_UNSUPPORTED_BLOCK_MODE);
  Bytes nonce;
  if (mode != KM_MODE_ECB) {
    const size_t size = static_cast<size_t>(EVP_CIPHER_get_iv_length(cipher));
    if (result = ChooseNonce(request, size, &nonce); result != 0) return result;
  }
  CipherCtxPtr ctx(EVP_CIPHER_CTX_new());
  RequireCrypto(ctx != nullptr &&
                EVP_CipherInit_ex(ctx.get(), cipher, nullptr, request.key->symmetric.data(),
                                  nonce.data(), encrypts ? 1 : 0) == 1 &&
                EVP_CIPHER_CTX_set_padding(ctx.get(), padding == KM_PAD_PKCS7 ? 1 : 0) == 1);
  *operation =
      std::make_unique<CipherOperation>(std::move(ctx), !encrypts && padding == KM_PAD_PKCS7);
  return TEEC_SUCCESS;
}

}  // namespace ta
