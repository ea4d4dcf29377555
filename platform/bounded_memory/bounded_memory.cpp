#include <securec.h>
#include <string.h>

int memcpy_s(void* dest, size_t dest_max, const void* src, size_t count) {
  if (dest == nullptr || src == nullptr || count > dest_max) return -1;
  // The ranges may overlap.
  memmove(dest, src, count);
  return 0;
}

int memset_s(void* dest, size_t dest_max, int value, size_t count) {
  if (dest == nullptr || count > dest_max) return -1;
  memset(dest, value, count);
  return 0;
}
