#include <openssl/rand.h>

#include <algorithm>

#include "key_material.h"
#include "operation.h"

namespace ta {
namespace {

struct Choice {
  uint32_t tag;
  keymaster_error_t unsupported;
  keymaster_error_t incompatible;
};

TEEC_Result Choose(const OperationRequest& request, const Choice& choice, uint32_t* value) {
  const auto has_tag = [&](const Param& param) { return param.tag == choice.tag; };
  if (std::count_if(request.params.begin(), request.params.end(), has_tag) != 1) {
    return Fail(choice.unsupported);
  }
  *value = static_cast<uint32_t>(*request.params.Value(choice.tag));
  return request.key->Authorizes(choice.tag, *value) ? TEEC_SUCCESS : Fail(choice.incompatible);
}

}  // namespace

TEEC_Result Operation::AddAssociatedData(ByteView) { return Fail(KM_ERROR_INVALID_TAG); }

TEEC_Result ChooseDigest(const OperationRequest& request, uint32_t* digest) {
  return Choose(request, {KM_TAG_DIGEST, KM_ERROR_UNSUPPORTED_DIGEST, KM_ERROR_INCOMPATIBLE_DIGEST},
                digest);
}

TEEC_Result ChoosePadding(const OperationRequest& request, uint32_t* padding) {
  return Choose(
      request,
      {KM_TAG_PADDING, KM_ERROR_UNSUPPORTED_PADDING_MODE, KM_ERROR_INCOMPATIBLE_PADDING_MODE},
      padding);
}

TEEC_Result ChooseBlockMode(const OperationRequest& request, uint32_t* mode) {
  return Choose(
      request,
      {KM_TAG_BLOCK_MODE, KM_ERROR_UNSUPPORTED_BLOCK_MODE, KM_ERROR_INCOMPATIBLE_BLOCK_MODE}, mode);
}

TEEC_Result ChooseNonce(const OperationRequest& request, size_t size, Bytes* nonce) {
  const bool encrypts = request.purpose == KM_PURPOSE_ENCRYPT;
  if (const Param* given = request.params.Find(KM_TAG_NONCE); given != nullptr) {
    if (encrypts && !request.key->hw_enforced.IsTrue(KM_TAG_CALLER_NONCE)) {
      return Fail(KM_ERROR_CALLER_NONCE_PROHIBITED);
    }
    *nonce = given->bytes;
    return nonce->size() == size ? TEEC_SUCCESS : Fail(KM_ERROR_INVALID_NONCE);
  }
  if (!encrypts) return Fail(KM_ERROR_MISSING_NONCE);
  nonce->resize(size);
  RequireCrypto(RAND_bytes(nonce->data(), static_cast<int>(size)) == 1);
  request.out_params->AddBytes(KM_TAG_NONCE, *nonce);
  return TEEC_SUCCESS;
}

const EVP_MD* DigestAlgorithm(uint32_t digest) {
  switch (digest) {
    case KM_DIGEST_MD5:
      return EVP_md5();
    case KM_DIGEST_SHA1:
      return EVP_sha1();
    case KM_DIGEST_SHA_2_224:
      return EVP_sha224();
    case KM_DIGEST_SHA_2_256:
      return EVP_sha256();
    case KM_DIGEST_SHA_2_384:
      return EVP_sha384();
    case KM_DIGEST_SHA_2_512:
      return EVP_sha512();
    default:
      return nullptr;
  }
}

}  // namespace ta
