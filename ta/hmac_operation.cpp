// HMAC, made and checked.
#include <openssl/hmac.h>

#include "key_material.h"
#include "operation.h"

namespace ta {
namespace {

using HmacCtxPtr = std::unique_ptr<HMAC_CTX, CallFree<HMAC_CTX, HMAC_CTX_free>>;

class HmacOperation : public Operation {
 public:
  HmacOperation(const SecureBytes& key, const EVP_MD* md, size_t mac_size, size_t min_mac_size,
                bool signs)
      : signs_(signs), mac_size_(mac_size), min_mac_size_(min_mac_size), ctx_(HMAC_CTX_new()) {
    RequireCrypto(ctx_ != nullptr && HMAC_Init_ex(ctx_.get(), key.data(),
                                                  static_cast<int>(key.size()), md, nullptr) == 1);
  }

  TEEC_Result Update(ByteView input, SecureBytes*) override {
    RequireCrypto(input.size == 0 || HMAC_Update(ctx_.get(), input.data, input.size) == 1);
    return TEEC_SUCCESS;
  }

  TEEC_Result Finish(ByteView signature, SecureBytes* output) override {
    SecureBytes mac(EVP_MAX_MD_SIZE);
    unsigned int size = 0;
    RequireCrypto(HMAC_Final(ctx_.get(), mac.data(), &size) == 1);
    if (signs_) {
      AppendBytes(output, ByteView(mac.data(), mac_size_));
      return TEEC_SUCCESS;
    }
    if (signature.size < min_mac_size_) return Fail(KM_ERROR_INVALID_MAC_LENGTH);
    const bool verified =
        signature.size <= size && CRYPTO_memcmp(signature.data, mac.data(), signature.size) == 0;
    return verified ? TEEC_SUCCESS : Fail(KM_ERROR_VERIFICATION_FAILED);
  }

 private:
  const bool signs_;
  const size_t mac_size_;
  const size_t min_mac_size_;
  const HmacCtxPtr ctx_;
};

}  // namespace

TEEC_Result MakeHmacOperation(const OperationRequest& request, OperationPtr* operation) {
  const bool signs = request.purpose == KM_PURPOSE_SIGN;
  // A key has one digest, so that a begin need not name it.
  uint32_t digest =
      static_cast<uint32_t>(request.key->hw_enforced.Value(KM_TAG_DIGEST).value_or(0));
  if (request.params.Contains(KM_TAG_DIGEST)) {
    if (const TEEC_Result result = ChooseDigest(request, &digest); result != 0) return result;
  }
  const EVP_MD* md = DigestAlgorithm(digest);
  if (md == nullptr) return Fail(KM_ERROR_UNSUPPORTED_DIGEST);
  const uint64_t digest_bits = static_cast<uint64_t>(EVP_MD_get_size(md)) * 8;
  const uint64_t least =
      request.key->hw_enforced.Value(KM_TAG_MIN_MAC_LENGTH).value_or(digest_bits);
  const std::optional<uint64_t> length = request.params.Value(KM_TAG_MAC_LENGTH);
  if (signs) {
    if (!length) return Fail(KM_ERROR_MISSING_MAC_LENGTH);
    if (*length > digest_bits || *length % 8 != 0) return Fail(KM_ERROR_UNSUPPORTED_MAC_LENGTH);
    if (*length < least) return Fail(KM_ERROR_INVALID_MAC_LENGTH);
  }
  *operation = std::make_unique<HmacOperation>(request.key->symmetric, md, length.value_or(0) / 8,
                                               least / 8, signs);
  return TEEC_SUCCESS;
}

}  // namespace ta
