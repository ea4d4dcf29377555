#include "shared_memory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

SharedMemory::~SharedMemory() {
  if (data_ == nullptr) return;
  if (is_maker_) explicit_bzero(data_, size_);
  munmap(data_, size_);
}

bool SharedMemory::Map(size_t size) {
  void* mapped = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, file_.get(), 0);
  if (mapped == MAP_FAILED) return false;
  data_ = static_cast<uint8_t*>(mapped);
  size_ = size;
  return true;
}

bool SharedMemory::Create(size_t size) {
  is_maker_ = true;
  file_.Reset(memfd_create("tee-call", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  return file_.get() >= 0 && ftruncate(file_.get(), static_cast<off_t>(size)) == 0 &&
         fcntl(file_.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) == 0 &&
         Map(size);
}

bool SharedMemory::Attach(FileDescriptor file, size_t size) {
  file_ = std::move(file);
  struct stat status {};
  const int seals = fcntl(file_.get(), F_GET_SEALS);
  // Memory that shrinks under a reader kills it.
  return seals >= 0 && (seals & F_SEAL_SHRINK) != 0 && fstat(file_.get(), &status) == 0 &&
         static_cast<uint64_t>(status.st_size) >= size && Map(size);
}
