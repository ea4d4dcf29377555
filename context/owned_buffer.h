// The buffers that a request owns while it runs.
#ifndef CONTEXT_OWNED_BUFFER_H
#define CONTEXT_OWNED_BUFFER_H

#include <openssl/crypto.h>
#include <string.h>

#include "keymaster_ts.h"
#include "marshal/malloc_buffer.h"
#include "wire/ta_protocol.h"

namespace km41 {

// ReplyBuffer is where one TA reply lands. It is zeroed when made, since some commands send it
// along, and knows its capacity: a reported length beyond that is never read.
class ReplyBuffer {
 public:
  explicit ReplyBuffer(uint32_t capacity)
      : bytes_(AllocateBytes(capacity)), capacity_(capacity), length_(capacity) {
    if (bytes_ != nullptr) {
      memset(bytes_.get(), 0, capacity);
    }
  }

  bool allocated() const { return bytes_ != nullptr; }
  uint8_t* data() { return bytes_.get(); }
  uint32_t capacity() const { return capacity_; }
  // The capacity before the command, the reported length after it.
  uint32_t* length_in_out() { return &length_; }
  uint32_t length() const { return length_; }
  // Whether the reported length can be read.
  bool fits() const { return length_ <= capacity_; }

 private:
  MallocBuffer bytes_;
  const uint32_t capacity_;
  uint32_t length_;
};

// SecretBuffer wipes what it held: a decrypted reply, or key material.
class SecretBuffer : public ReplyBuffer {
 public:
  explicit SecretBuffer(uint32_t capacity) : ReplyBuffer(capacity) {}
  ~SecretBuffer() {
    if (allocated()) {
      OPENSSL_cleanse(data(), capacity());
    }
  }
};

// WipeAndFree wipes and frees the bytes of a blob and leaves it empty.
inline void WipeAndFree(keymaster_blob_t* secret) {
  auto* bytes = const_cast<uint8_t*>(secret->data);
  if (bytes != nullptr) {
    OPENSSL_cleanse(bytes, secret->data_length);
  }
  free(bytes);
  *secret = keymaster_blob_t{};
}

// SecretBlob owns a blob of secret bytes that a request handed out, and wipes it.
class SecretBlob {
 public:
  SecretBlob() = default;
  ~SecretBlob() { Release(); }
  SecretBlob(const SecretBlob&) = delete;
  SecretBlob& operator=(const SecretBlob&) = delete;

  void Release() { WipeAndFree(&blob); }

  keymaster_blob_t blob = {};
};

// SerializedParams owns a request's serialised parameters. Empty, it stands for no parameter
// buffer at all.
class SerializedParams {
 public:
  // Serialises a whole set. False on any failure.
  bool Build(const keymaster_key_param_set_t* params) {
    uint8_t* bytes = nullptr;
    const bool built = BuildKmParams(params, &bytes, &length_) == 0;
    bytes_.reset(bytes);
    return built;
  }
  // Serialises the client id and the application data of a key, each only if it is not null;
  // with neither this stays empty. False on any failure.
  bool BuildClient(const keymaster_blob_t* client_id, const keymaster_blob_t* app_data);

  const uint8_t* data() const { return bytes_.get(); }
  uint32_t length() const { return length_; }

 private:
  MallocBuffer bytes_;
  uint32_t length_ = 0;
};

}  // namespace km41

#endif  // CONTEXT_OWNED_BUFFER_H
