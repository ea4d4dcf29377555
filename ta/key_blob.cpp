#include <openssl/hmac.h>
#include <openssl/rand.h>
#include <openssl/sha.h>
#include <string.h>

#include "key.h"
#include "key_description.h"
#include "key_material.h"
#include "key_records.h"
#include "state.h"

// A blob is a version byte, a nonce, the encrypted content and the tag of AES-256-GCM, which covers
// the version too. The content is the key's id, a hash of the application id and data that the blob
// is bound to, the length and bytes of the secret, and the characteristics. The hash is inside
// because a deletion, which names neither, must still tell a real blob from a forged one.
namespace ta {
namespace {

constexpr uint8_t kVersion = 1;
constexpr size_t kNonceSize = 12;
constexpr size_t kTagSize = 16;
constexpr size_t kBindingSize = SHA256_DIGEST_LENGTH;
constexpr size_t kHeaderSize = 1 + kNonceSize;
constexpr size_t kMaxBlob = 64 * 1024;

SecureBytes BlobKey() {
  static constexpr char kLabel[] = "key blob";
  const SecureBytes device_key = DeviceKey();
  SecureBytes key(SHA256_DIGEST_LENGTH);
  RequireCrypto(HMAC(EVP_sha256(), device_key.data(), static_cast<int>(device_key.size()),
                     reinterpret_cast<const uint8_t*>(kLabel), sizeof(kLabel) - 1, key.data(),
                     nullptr) != nullptr);
  return key;
}

// What a blob is bound to. An absent id and an empty one are the same.
Bytes BindingOf(const ParamSet& params) {
  Bytes bound;
  for (const uint32_t tag : {static_cast<uint32_t>(KM_TAG_APPLICATION_ID),
                             static_cast<uint32_t>(KM_TAG_APPLICATION_DATA)}) {
    const ByteView value = params.BytesOf(tag);
    AppendU64(&bound, value.size);
    AppendBytes(&bound, value);
  }
  Bytes hash(kBindingSize);
  SHA256(bound.data(), bound.size(), hash.data());
  return hash;
}

CipherCtxPtr StartGcm(const uint8_t* nonce, bool encrypt) {
  const SecureBytes key = BlobKey();
  CipherCtxPtr ctx(EVP_CIPHER_CTX_new());
  int ignored = 0;
  RequireCrypto(ctx != nullptr &&
                EVP_CipherInit_ex(ctx.get(), EVP_aes_256_gcm(), nullptr, key.data(), nonce,
                                  encrypt ? 1 : 0) == 1 &&
                EVP_CipherUpdate(ctx.get(), nullptr, &ignored, &kVersion, sizeof(kVersion)) == 1);
  return ctx;
}

SecureBytes EncodeContent(const Key& key, const ParamSet& params) {
  const SecureBytes secret = EncodeSecret(key);
  SecureBytes content;
  AppendBytes(&content, key.id);
  AppendBytes(&content, BindingOf(params));
  AppendU32(&content, static_cast<uint32_t>(secret.size()));
  AppendBytes(&content, secret);
  AppendBytes(&content, SerializeTwoLists(key.hw_enforced, key.sw_enforced));
  return content;
}

uint32_t HardwareValue(const Key& key, uint32_t tag) {
  return static_cast<uint32_t>(key.hw_enforced.Value(tag).value_or(0));
}

// Reads everything after the id and the binding.
bool DecodeKey(ByteView encoded, Key* key) {
  ByteReader reader(encoded);
  ByteView secret;
  uint32_t secret_size = 0;
  if (!reader.TakeU32(&secret_size) || !reader.TakeBytes(secret_size, &secret) ||
      !ParseTwoLists(reader.rest(), &key->hw_enforced, &key->sw_enforced)) {
    return false;
  }
  key->algorithm = HardwareValue(*key, KM_TAG_ALGORITHM);
  key->key_size = HardwareValue(*key, KM_TAG_KEY_SIZE);
  key->curve = HardwareValue(*key, KM_TAG_EC_CURVE);
  key->origin = HardwareValue(*key, KM_TAG_ORIGIN);
  return DecodeSecret(secret, key);
}

// Opens the seal, whoever the blob is bound to.
bool Unseal(ByteView blob, SecureBytes* content) {
  if (blob.size < kHeaderSize + kKeyIdSize + kBindingSize + kTagSize || blob.size > kMaxBlob ||
      blob.data[0] != kVersion) {
    return false;
  }
  const size_t size = blob.size - kHeaderSize - kTagSize;
  const uint8_t* const sealed = blob.data + kHeaderSize;
  Bytes tag(sealed + size, sealed + size + kTagSize);
  content->resize(size);
  const CipherCtxPtr ctx = StartGcm(blob.data + 1, false);
  int done = 0;
  int last = 0;
  return EVP_DecryptUpdate(ctx.get(), content->data(), &done, sealed, static_cast<int>(size)) ==
             1 &&
         EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_AEAD_SET_TAG, kTagSize, tag.data()) == 1 &&
         EVP_DecryptFinal_ex(ctx.get(), content->data() + done, &last) == 1;
}

}  // namespace

const Param* Key::Find(uint32_t tag) const {
  const Param* param = hw_enforced.Find(tag);
  return param != nullptr ? param : sw_enforced.Find(tag);
}

TEEC_Result SealKeyBlob(const Key& key, const ParamSet& params, Bytes* blob) {
  const SecureBytes content = EncodeContent(key, params);
  blob->assign(kHeaderSize + content.size() + kTagSize, kVersion);
  uint8_t* const nonce = blob->data() + 1;
  uint8_t* const sealed = blob->data() + kHeaderSize;
  RequireCrypto(RAND_bytes(nonce, kNonceSize) == 1);
  const CipherCtxPtr ctx = StartGcm(nonce, true);
  int size = 0;
  int last = 0;
  RequireCrypto(EVP_EncryptUpdate(ctx.get(), sealed, &size, content.data(),
                                  static_cast<int>(content.size())) == 1 &&
                EVP_EncryptFinal_ex(ctx.get(), sealed + size, &last) == 1 &&
                EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_AEAD_GET_TAG, kTagSize,
                                    sealed + content.size()) == 1);
  return TEEC_SUCCESS;
}

TEEC_Result OpenKeyBlob(ByteView blob, const ParamSet& params, Key* key) {
  SecureBytes content;
  if (!Unseal(blob, &content)) return Fail(KM_ERROR_INVALID_KEY_BLOB);
  ByteReader reader(content);
  ByteView id;
  ByteView binding;
  if (!reader.TakeBytes(kKeyIdSize, &id) || !reader.TakeBytes(kBindingSize, &binding) ||
      CRYPTO_memcmp(binding.data, BindingOf(params).data(), kBindingSize) != 0 ||
      !DecodeKey(reader.rest(), key)) {
    return Fail(KM_ERROR_INVALID_KEY_BLOB);
  }
  key->id.assign(id.begin(), id.end());
  return IsKeyDeleted(key->id) ? Fail(KM_ERROR_INVALID_KEY_BLOB) : TEEC_SUCCESS;
}

TEEC_Result IdentifyKeyBlob(ByteView blob, Bytes* key_id) {
  SecureBytes content;
  if (!Unseal(blob, &content)) return Fail(KM_ERROR_INVALID_KEY_BLOB);
  key_id->assign(content.data(), content.data() + kKeyIdSize);
  return TEEC_SUCCESS;
}

TEEC_Result OpenCurrentKey(ByteView blob, const ParamSet& params, Key* key) {
  if (const TEEC_Result result = OpenKeyBlob(blob, params, key); result != 0) return result;
  SystemVersion now;
  GetSystemVersion(&now);
  const uint32_t os_version = HardwareValue(*key, KM_TAG_OS_VERSION);
  const uint32_t os_patchlevel = HardwareValue(*key, KM_TAG_OS_PATCHLEVEL);
  if (os_version > now.os_version || os_patchlevel > now.os_patchlevel) {
    return Fail(KM_ERROR_INVALID_KEY_BLOB);
  }
  if (os_version < now.os_version || os_patchlevel < now.os_patchlevel) {
    return Fail(KM_ERROR_KEY_REQUIRES_UPGRADE);
  }
  return TEEC_SUCCESS;
}

}  // namespace ta
