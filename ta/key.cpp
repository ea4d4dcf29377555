#include "ta/key.h"

#include <openssl/sha.h>
#include <string.h>
#include <unistd.h>

#include "ta/auth.h"
#include "ta/key_description.h"
#include "ta/state.h"

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
constexpr size_t kMaxBlob = size_t{64} * 1024;

// What a blob is bound to. An absent id and an empty one are the same.
Bytes BindingOf(const ParamSet& params) {
  Bytes bound;
  for (const Tag tag : {KM_TAG_APPLICATION_ID, KM_TAG_APPLICATION_DATA}) {
    const ByteView value = params.BytesOf(tag);
    AppendInteger<uint64_t>(&bound, value.size);
    AppendBytes(&bound, value);
  }
  Bytes hash(kBindingSize);
  RequireCrypto(SHA256(bound.data(), bound.size(), hash.data()) != nullptr);
  return hash;
}

CipherCtxPtr StartGcm(const uint8_t* nonce, bool encrypts) {
  CipherCtxPtr ctx = StartCipher(EVP_aes_256_gcm(), DeviceKey("key blob"), nonce, encrypts);
  int ignored = 0;
  RequireCrypto(EVP_CipherUpdate(ctx.get(), nullptr, &ignored, &kVersion, sizeof(kVersion)) == 1);
  return ctx;
}

SecureBytes EncodeContent(const Key& key, const ParamSet& params) {
  const SecureBytes secret = EncodeSecret(key);
  SecureBytes content;
  AppendBytes(&content, key.id);
  AppendBytes(&content, BindingOf(params));
  AppendInteger<uint32_t>(&content, static_cast<uint32_t>(secret.size()));
  AppendBytes(&content, secret);
  AppendBytes(&content, Serialize({&key.hw_enforced, &key.sw_enforced}));
  return content;
}

uint32_t HardwareValue(const Key& key, Tag tag) {
  return static_cast<uint32_t>(key.hw_enforced.Value(tag).value_or(0));
}

// Reads everything after the id and the binding.
bool DecodeKey(ByteView encoded, Key* key) {
  ByteReader reader(encoded);
  ByteView secret;
  uint32_t secret_size = 0;
  if (!reader.TakeInteger(&secret_size) || !reader.TakeBytes(secret_size, &secret) ||
      !ParseTwoLists(reader.rest(), &key->hw_enforced, &key->sw_enforced)) {
    return false;
  }
  key->algorithm = HardwareValue(*key, KM_TAG_ALGORITHM);
  key->key_size = HardwareValue(*key, KM_TAG_KEY_SIZE);
  return DecodeSecret(secret, key);
}

// Opens the seal, whoever the blob is bound to. What comes out is long enough for id and binding.
SecureBytes Unseal(ByteView blob) {
  FailIf(blob.size < kHeaderSize + kKeyIdSize + kBindingSize + kTagSize || blob.size > kMaxBlob ||
             blob.data[0] != kVersion,
         KM_ERROR_INVALID_KEY_BLOB);
  const size_t size = blob.size - kHeaderSize - kTagSize;
  const uint8_t* const sealed = blob.data + kHeaderSize;
  Bytes tag(sealed + size, sealed + size + kTagSize);
  SecureBytes content;
  const CipherCtxPtr ctx = StartGcm(blob.data + 1, false);
  FeedCipher(ctx.get(), {sealed, size}, &content);
  int last = 0;
  FailIf(EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_AEAD_SET_TAG, kTagSize, tag.data()) != 1 ||
             EVP_DecryptFinal_ex(ctx.get(), content.data() + size, &last) != 1,
         KM_ERROR_INVALID_KEY_BLOB);
  return content;
}

// The file that says of a key, by being there, that it was deleted.
std::string DeletionFile(const Bytes& key_id) { return "deleted_" + Hex(key_id); }

// How often and when last a key was used since the device booted, as the key's file says it.
struct Usage {
  uint64_t count = 0;
  uint64_t last_use = 0;                                // milliseconds since boot
  uint8_t boot[sizeof(BootState::sharing_nonce)] = {};  // which stands for the boot
};

}  // namespace

const Param* Key::Find(Tag tag) const {
  const Param* param = hw_enforced.Find(tag);
  return param != nullptr ? param : sw_enforced.Find(tag);
}

Bytes SealKeyBlob(const Key& key, const ParamSet& params) {
  const SecureBytes content = EncodeContent(key, params);
  Bytes blob(kHeaderSize, kVersion);
  FillRandom(blob.data() + 1, kNonceSize);
  const CipherCtxPtr ctx = StartGcm(blob.data() + 1, true);
  SecureBytes sealed;
  FeedCipher(ctx.get(), content, &sealed);
  uint8_t tag[kTagSize];
  int last = 0;
  RequireCrypto(EVP_EncryptFinal_ex(ctx.get(), tag, &last) == 1 &&
                EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_AEAD_GET_TAG, kTagSize, tag) == 1);
  AppendBytes(&blob, sealed);
  AppendBytes(&blob, {tag, kTagSize});
  return blob;
}

Key OpenKeyBlob(ByteView blob, const ParamSet& params) {
  const SecureBytes content = Unseal(blob);
  const uint8_t* const binding = content.data() + kKeyIdSize;
  const size_t bound = kKeyIdSize + kBindingSize;
  Key key;
  key.id.assign(content.data(), binding);
  FailIf(CRYPTO_memcmp(binding, BindingOf(params).data(), kBindingSize) != 0 ||
             !DecodeKey({content.data() + bound, content.size() - bound}, &key) ||
             HasStateFile(DeletionFile(key.id)),
         KM_ERROR_INVALID_KEY_BLOB);
  return key;
}

Bytes IdentifyKeyBlob(ByteView blob) {
  const SecureBytes content = Unseal(blob);
  return Bytes(content.data(), content.data() + kKeyIdSize);
}

int VersionOrder(const Key& key) {
  SystemVersion now;
  GetSystemVersion(&now);
  const uint32_t os_version = HardwareValue(key, KM_TAG_OS_VERSION);
  const uint32_t os_patchlevel = HardwareValue(key, KM_TAG_OS_PATCHLEVEL);
  if (os_version > now.os_version || os_patchlevel > now.os_patchlevel) return 1;
  return os_version < now.os_version || os_patchlevel < now.os_patchlevel ? -1 : 0;
}

Key OpenCurrentKey(ByteView blob, const ParamSet& params) {
  Key key = OpenKeyBlob(blob, params);
  const int order = VersionOrder(key);
  FailIf(order > 0, KM_ERROR_INVALID_KEY_BLOB);
  FailIf(order < 0, KM_ERROR_KEY_REQUIRES_UPGRADE);
  return key;
}

void RecordDeletion(const Bytes& key_id) {
  CreateStateFile(DeletionFile(key_id), ByteView());
  unlink(StateFile("usage_" + Hex(key_id)).c_str());
}

void CountUse(const Key& key) {
  const Param* max_uses = key.Find(KM_TAG_MAX_USES_PER_BOOT);
  const Param* min_seconds = key.Find(KM_TAG_MIN_SECONDS_BETWEEN_OPS);
  if (max_uses == nullptr && min_seconds == nullptr) return;
  const BootState boot = UpdateBootState();
  const StateLock lock;
  const std::string name = "usage_" + Hex(key.id);
  const uint64_t now = Millis(CLOCK_BOOTTIME);
  Usage usage;
  if (!ReadRecord(name, &usage) ||
      memcmp(usage.boot, boot.sharing_nonce, sizeof(usage.boot)) != 0) {
    usage = Usage();
    memcpy(usage.boot, boot.sharing_nonce, sizeof(usage.boot));
  }
  FailIf(min_seconds != nullptr && usage.count != 0 &&
             now - usage.last_use < min_seconds->value * 1000,
         KM_ERROR_KEY_RATE_LIMIT_EXCEEDED);
  FailIf(max_uses != nullptr && usage.count >= max_uses->value, KM_ERROR_KEY_MAX_OPS_EXCEEDED);
  ++usage.count;
  usage.last_use = now;
  ReplaceRecord(name, usage);
}

}  // namespace ta
