// Ownership of secret bytes.
#ifndef MARSHAL_SECRET_BLOB_H
#define MARSHAL_SECRET_BLOB_H

#include <hardware/keymaster_defs.h>
#include <openssl/crypto.h>
#include <securec.h>

#include "wire/malloc_buffer.h"

namespace km41 {

// SecretBlob owns bytes that come from malloc and are wiped before they are freed: keys, what is
// encrypted or decrypted, and serialised parameters, which may hold auth tokens.
class SecretBlob {
 public:
  SecretBlob() = default;
  ~SecretBlob() {
    if (blob_.data != nullptr) {
      OPENSSL_cleanse(bytes(), blob_.data_length);
      free(bytes());
    }
  }
  SecretBlob(const SecretBlob&) = delete;
  SecretBlob& operator=(const SecretBlob&) = delete;

  // Allocate makes an empty blob one of size bytes. False when memory runs out.
  [[nodiscard]] bool Allocate(size_t size) {
    blob_ = {AllocateBytes(size).release(), size};
    return blob_.data != nullptr;
  }
  // Join copies two blobs, one behind the other, into a blob of their joint size. False when
  // memcpy_s rejects a copy.
  [[nodiscard]] bool Join(const keymaster_blob_t& first, const keymaster_blob_t& second) {
    return Copy(first, 0) && Copy(second, first.data_length);
  }
  // Truncate leaves the first size bytes, and wipes the others.
  void Truncate(size_t size) {
    OPENSSL_cleanse(bytes() + size, this->size() - size);
    blob_.data_length = size;
  }
  // blob is for a function that stores a malloc buffer here, or takes its input without const.
  keymaster_blob_t* blob() { return &blob_; }
  // HandOver leaves the bytes to the caller, who frees them.
  uint8_t* HandOver() {
    uint8_t* const bytes = this->bytes();
    blob_ = keymaster_blob_t{};
    return bytes;
  }
  // HandOverTo leaves the bytes to output, whose owner frees them.
  void HandOverTo(keymaster_blob_t* output) {
    *output = blob_;
    blob_ = keymaster_blob_t{};
  }

  const keymaster_blob_t& get() const { return blob_; }
  uint8_t* bytes() const { return const_cast<uint8_t*>(blob_.data); }
  size_t size() const { return blob_.data_length; }

 private:
  bool Copy(const keymaster_blob_t& part, size_t at) {
    return part.data_length == 0 ||
           memcpy_s(bytes() + at, size() - at, part.data, part.data_length) == 0;
  }

  keymaster_blob_t blob_ = {};
};

}  // namespace km41

#endif  // MARSHAL_SECRET_BLOB_H
