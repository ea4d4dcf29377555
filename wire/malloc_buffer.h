// Ownership of malloc memory.
#ifndef WIRE_MALLOC_BUFFER_H
#define WIRE_MALLOC_BUFFER_H

#include <stdint.h>
#include <stdlib.h>

#include <memory>

namespace km41 {

struct FreeDeleter {
  void operator()(void* memory) const { free(memory); }
};

// MallocBuffer owns bytes that come from malloc and may go to a caller who frees them.
using MallocBuffer = std::unique_ptr<uint8_t, FreeDeleter>;

// AllocateBytes returns a buffer of that size, empty when memory runs out.
[[nodiscard]] inline MallocBuffer AllocateBytes(size_t size) {
  return MallocBuffer(static_cast<uint8_t*>(malloc(size)));
}

}  // namespace km41

#endif  // WIRE_MALLOC_BUFFER_H
