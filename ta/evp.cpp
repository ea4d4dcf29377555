#include "ta/evp.h"

#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <algorithm>
#include <stdexcept>

namespace ta {

void RequireCrypto(bool success) {
  if (!success) throw std::runtime_error("libcrypto failed");
}

void FillRandom(void* out, size_t size) {
  RequireCrypto(RAND_bytes(static_cast<uint8_t*>(out), static_cast<int>(size)) == 1);
}

SecureBytes HmacSha256(ByteView key, ByteView message) {
  SecureBytes mac(32);
  RequireCrypto(HMAC(EVP_sha256(), key.data, static_cast<int>(key.size), message.data, message.size,
                     mac.data(), nullptr) != nullptr);
  return mac;
}

PkeyPtr NewEcPkey(int curve) {
  const EcKeyPtr key(EC_KEY_new_by_curve_name(curve));
  RequireCrypto(key != nullptr && EC_KEY_generate_key(key.get()) == 1);
  return ToPkey(key, EVP_PKEY_set1_EC_KEY);
}

CipherCtxPtr StartCipher(const EVP_CIPHER* cipher, const SecureBytes& key, const uint8_t* nonce,
                         bool encrypts) {
  CipherCtxPtr ctx(EVP_CIPHER_CTX_new());
  RequireCrypto(ctx != nullptr && EVP_CipherInit_ex(ctx.get(), cipher, nullptr, key.data(), nonce,
                                                    encrypts ? 1 : 0) == 1);
  return ctx;
}

void FeedCipher(EVP_CIPHER_CTX* ctx, ByteView input, SecureBytes* output) {
  constexpr size_t kChunk = size_t{1} << 20;  // libcrypto counts in int
  while (input.size != 0) {
    const size_t chunk = std::min(input.size, kChunk);
    const size_t before = output->size();
    int produced = 0;
    output->resize(before + chunk + EVP_MAX_BLOCK_LENGTH);
    RequireCrypto(EVP_CipherUpdate(ctx, output->data() + before, &produced, input.data,
                                   static_cast<int>(chunk)) == 1);
    output->resize(before + static_cast<size_t>(produced));
    input = ByteView(input.data + chunk, input.size - chunk);
  }
}

}  // namespace ta
