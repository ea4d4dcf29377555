// Bounds-checked memory functions. Both return 0 on success; on a null pointer or a count above
// dest_max they return non-zero and write nothing.
#ifndef SECUREC_H
#define SECUREC_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

int memcpy_s(void* dest, size_t dest_max, const void* src, size_t count);
int memset_s(void* dest, size_t dest_max, int value, size_t count);

#ifdef __cplusplus
}
#endif

#endif  // SECUREC_H
