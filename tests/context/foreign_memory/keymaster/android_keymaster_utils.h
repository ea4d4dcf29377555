// A platform whose allocator is not malloc: what a device's own header may well have in place of
// the stand-in's. Its memory lies inside a malloc block, so that free() of it ends the process.
#ifndef KEYMASTER_ANDROID_KEYMASTER_UTILS_H
#define KEYMASTER_ANDROID_KEYMASTER_UTILS_H

#include <hardware/keymaster_defs.h>

namespace keymaster {

// Hidden, so that the support library keeps its own.
#pragma GCC visibility push(hidden)
// PlatformRelease reports memory that is none of dup_buffer's, and null is none.
void PlatformRelease(const uint8_t* memory, size_t size);
uint8_t* dup_buffer(const void* buf, size_t size);
#pragma GCC visibility pop

inline const uint8_t*& BlobData(keymaster_blob_t& blob) { return blob.data; }
inline size_t& BlobSize(keymaster_blob_t& blob) { return blob.data_length; }
inline const uint8_t*& BlobData(keymaster_key_blob_t& blob) { return blob.key_material; }
inline size_t& BlobSize(keymaster_key_blob_t& blob) { return blob.key_material_size; }

template <typename BlobType>
struct TKeymasterBlob : public BlobType {
  TKeymasterBlob() : BlobType{} {}
  ~TKeymasterBlob() { Clear(); }
  TKeymasterBlob(const TKeymasterBlob&) = delete;
  TKeymasterBlob& operator=(const TKeymasterBlob&) = delete;

  void Clear() {
    PlatformRelease(BlobData(*this), BlobSize(*this));
    BlobData(*this) = nullptr;
    BlobSize(*this) = 0;
  }
};

}  // namespace keymaster

#endif  // KEYMASTER_ANDROID_KEYMASTER_UTILS_H
