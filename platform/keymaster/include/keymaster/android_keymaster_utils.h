// Blob holders of the platform's keymaster support library.
#ifndef KEYMASTER_ANDROID_KEYMASTER_UTILS_H
#define KEYMASTER_ANDROID_KEYMASTER_UTILS_H

#include <hardware/keymaster_defs.h>
#include <stdlib.h>
#include <string.h>

namespace keymaster {

// Copies size bytes into a new malloc buffer (of at least one byte, so that an empty copy is not
// null); null when that fails or buf is null.
__attribute__((visibility("default"))) uint8_t* dup_buffer(const void* buf, size_t size);

// The two blob structures name their fields differently; these name them once.
inline const uint8_t*& BlobData(keymaster_blob_t& blob) { return blob.data; }
inline size_t& BlobSize(keymaster_blob_t& blob) { return blob.data_length; }
inline const uint8_t*& BlobData(keymaster_key_blob_t& blob) { return blob.key_material; }
inline size_t& BlobSize(keymaster_key_blob_t& blob) { return blob.key_material_size; }

// TKeymasterBlob owns the malloc buffer of a blob structure. Its release zeroes the bytes first.
template <typename BlobType>
struct TKeymasterBlob : public BlobType {
  TKeymasterBlob() {
    BlobData(*this) = nullptr;
    BlobSize(*this) = 0;
  }
  ~TKeymasterBlob() { Clear(); }
  TKeymasterBlob(const TKeymasterBlob&) = delete;
  TKeymasterBlob& operator=(const TKeymasterBlob&) = delete;

  // Zeroes and frees what is held and leaves the blob empty.
  void Clear() {
    uint8_t* bytes = const_cast<uint8_t*>(BlobData(*this));
    if (bytes != nullptr) {
      explicit_bzero(bytes, BlobSize(*this));
      free(bytes);
    }
    BlobData(*this) = nullptr;
    BlobSize(*this) = 0;
  }
};

}  // namespace keymaster

#endif  // KEYMASTER_ANDROID_KEYMASTER_UTILS_H
