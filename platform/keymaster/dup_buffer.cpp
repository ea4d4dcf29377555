#include <keymaster/android_keymaster_utils.h>

namespace keymaster {

uint8_t* dup_buffer(const void* buf, size_t size) {
  if (buf == nullptr) return nullptr;
  auto* copy = static_cast<uint8_t*>(malloc(size == 0 ? 1 : size));
  if (copy != nullptr) memcpy(copy, buf, size);
  return copy;
}

}  // namespace keymaster
