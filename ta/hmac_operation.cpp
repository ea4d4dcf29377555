// HMAC, made and checked.
#include <openssl/hmac.h>

#include "ta/operation.h"

namespace ta {
namespace {

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
