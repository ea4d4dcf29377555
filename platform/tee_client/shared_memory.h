// Memory that the client shares with the worker for one call.
#ifndef PLATFORM_TEE_CLIENT_SHARED_MEMORY_H
#define PLATFORM_TEE_CLIENT_SHARED_MEMORY_H

#include <cstddef>
#include <cstdint>

#include "channel.h"

// SharedMemory is made or attached once at most. Its maker wipes it at the end.
class SharedMemory {
 public:
  SharedMemory() = default;
  ~SharedMemory();
  SharedMemory(const SharedMemory&) = delete;
  SharedMemory& operator=(const SharedMemory&) = delete;

  // Create makes zeroed memory whose size is fixed for good.
  bool Create(size_t size);
  // Attach maps memory that the other side made; false unless it has at least that size and can
  // never shrink.
  bool Attach(FileDescriptor file, size_t size);
  uint8_t* data() const { return data_; }
  // -1 while there is no memory.
  int fd() const { return file_.get(); }

 private:
  bool Map(size_t size);

  FileDescriptor file_;
  uint8_t* data_ = nullptr;
  size_t size_ = 0;
  bool is_maker_ = false;
};

#endif  // PLATFORM_TEE_CLIENT_SHARED_MEMORY_H
