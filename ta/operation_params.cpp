#include <algorithm>

#include "ta/operation.h"

namespace ta {

void Operation::AddAssociatedData(ByteView) { Fail(KM_ERROR_INVALID_TAG); }

uint32_t Choose(const OperationRequest& request, keymaster_tag_t tag) {
  constexpr struct {
    keymaster_tag_t tag;
    keymaster_error_t unsupported;
    keymaster_error_t incompatible;
  } kChoices[] = {
      {KM_TAG_DIGEST, KM_ERROR_UNSUPPORTED_DIGEST, KM_ERROR_INCOMPATIBLE_DIGEST},
      {KM_TAG_PADDING, KM_ERROR_UNSUPPORTED_PADDING_MODE, KM_ERROR_INCOMPATIBLE_PADDING_MODE},
      {KM_TAG_BLOCK_MODE, KM_ERROR_UNSUPPORTED_BLOCK_MODE, KM_ERROR_INCOMPATIBLE_BLOCK_MODE},
  };
  const auto* const choice = std::find_if(std::begin(kChoices), std::end(kChoices),
                                          [tag](const auto& row) { return row.tag == tag; });
  FailIf(request.params.Count(tag) != 1, choice->unsupported);
  const uint64_t value = *request.params.Value(tag);
  FailIf(!request.key->Authorizes(tag, value), choice->incompatible);
  return static_cast<uint32_t>(value);
}

Bytes ChooseNonce(const OperationRequest& request, size_t size) {
  const bool encrypts = request.purpose == KM_PURPOSE_ENCRYPT;
  if (const Param* given = request.params.Find(KM_TAG_NONCE); given != nullptr) {
    FailIf(encrypts && !request.key->hw_enforced.IsTrue(KM_TAG_CALLER_NONCE),
           KM_ERROR_CALLER_NONCE_PROHIBITED);
    FailIf(given->bytes.size() != size, KM_ERROR_INVALID_NONCE);
    return given->bytes;
  }
  FailIf(!encrypts, KM_ERROR_MISSING_NONCE);
  Bytes nonce(size);
  FillRandom(nonce.data(), size);
  request.out_params->AddBytes(KM_TAG_NONCE, nonce);
  return nonce;
}

size_t ChooseMacSize(const OperationRequest& request, uint64_t least, uint64_t most) {
  const std::optional<uint64_t> bits = request.params.Value(KM_TAG_MAC_LENGTH);
  FailIf(!bits, KM_ERROR_MISSING_MAC_LENGTH);
  FailIf(*bits < least || *bits > most || *bits % 8 != 0, KM_ERROR_UNSUPPORTED_MAC_LENGTH);
  FailIf(*bits < request.key->hw_enforced.Value(KM_TAG_MIN_MAC_LENGTH).value_or(most),
         KM_ERROR_INVALID_MAC_LENGTH);
  return *bits / 8;
}

const EVP_CIPHER* CipherOf(const Key& key, uint32_t mode) {
  using Cipher = const EVP_CIPHER* (*)();
  constexpr struct {
    uint32_t mode;
    Cipher aes[3], triple_des;
  } kRows[] = {
      {KM_MODE_ECB, {EVP_aes_128_ecb, EVP_aes_192_ecb, EVP_aes_256_ecb}, EVP_des_ede3_ecb},
      {KM_MODE_CBC, {EVP_aes_128_cbc, EVP_aes_192_cbc, EVP_aes_256_cbc}, EVP_des_ede3_cbc},
      {KM_MODE_CTR, {EVP_aes_128_ctr, EVP_aes_192_ctr, EVP_aes_256_ctr}, nullptr},
      {KM_MODE_GCM, {EVP_aes_128_gcm, EVP_aes_192_gcm, EVP_aes_256_gcm}, nullptr},
  };
  for (const auto& row : kRows) {
    const Cipher cipher =
        key.algorithm == KM_ALGORITHM_AES ? row.aes[key.key_size / 64 - 2] : row.triple_des;
    if (row.mode == mode && cipher != nullptr) return cipher();
  }
  return nullptr;
}

const EVP_MD* DigestAlgorithm(uint32_t digest) {
  using Digest = const EVP_MD* (*)();
  constexpr Digest kDigests[] = {nullptr,    EVP_md5,    EVP_sha1,  EVP_sha224,
                                 EVP_sha256, EVP_sha384, EVP_sha512};
  if (digest >= std::size(kDigests) || kDigests[digest] == nullptr) return nullptr;
  return kDigests[digest]();
}

}  // namespace ta
