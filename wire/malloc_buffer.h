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

// MallocPtr owns what comes from malloc and may go to a caller who frees it.
template <typename T>
using MallocPtr = std::unique_ptr<T, FreeDeleter>;
using MallocBuffer = MallocPtr<uint8_t>;

// Allocate returns an uninitialised array of count records of a C type, null when memory runs out.
template <typename T>
[[nodiscard]] MallocPtr<T> Allocate(size_t count) {
  return MallocPtr<T>(static_cast<T*>(malloc(count * sizeof(T))));
}

// AllocateBytes returns a buffer of that size, null when memory runs out.
[[nodiscard]] inline MallocBuffer AllocateBytes(size_t size) { return Allocate<uint8_t>(size); }

}  // namespace km41

#endif  // WIRE_MALLOC_BUFFER_H
