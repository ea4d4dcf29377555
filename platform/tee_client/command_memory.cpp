#include "platform/tee_client/command_memory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

namespace {

// In steps as far as it is kept, so that it need not grow with every command.
size_t RoundedUp(size_t size) {
  size_t rounded = size_t{64} << 10;
  while (rounded < size && rounded < CommandMemory::kKeptSize) {
    rounded *= 2;
  }
  return std::max(rounded, size);
}

}  // namespace

bool CommandMemory::MakeFile(size_t size) {
  file_.Reset(memfd_create("tee-command", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  return file_.get() >= 0 && ftruncate(file_.get(), static_cast<off_t>(size)) == 0 &&
         fcntl(file_.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) == 0;
}

bool CommandMemory::Map(size_t size) {
  const int flags = kind_ == Kind::kShared ? MAP_SHARED : MAP_PRIVATE | MAP_ANONYMOUS;
  void* mapped = mmap(nullptr, size, PROT_READ | PROT_WRITE, flags, file_.get(), 0);
  if (mapped == MAP_FAILED) return false;
  (void)madvise(mapped, size, MADV_DONTFORK);
  data_ = static_cast<uint8_t*>(mapped);
  size_ = size;
  owner_ = getpid();
  return true;
}

void CommandMemory::Unmap() {
  // In a child something else may be mapped there.
  if (data_ != nullptr && owner_ == getpid()) {
    explicit_bzero(data_, reserved_);
    munmap(data_, size_);
  }
  file_.Reset();
  data_ = nullptr;
  size_ = reserved_ = 0;
}

bool CommandMemory::Reserve(uint64_t size) {
  if (kind_ == Kind::kShared && size > kMaxSharedSize) return false;
  if (size > size_ || (data_ != nullptr && owner_ != getpid())) {
    Unmap();
    const size_t rounded = RoundedUp(size);
    if ((kind_ == Kind::kShared && !MakeFile(rounded)) || !Map(rounded)) return false;
  }
  reserved_ = size;
  return true;
}

bool CommandMemory::Attach(FileDescriptor file) {
  Unmap();
  file_ = std::move(file);
  struct stat status {};
  const int seals = fcntl(file_.get(), F_GET_SEALS);
  // Memory that shrinks under a reader kills it.
  const bool attached = seals >= 0 && (seals & F_SEAL_SHRINK) != 0 &&
                        fstat(file_.get(), &status) == 0 && status.st_size > 0 &&
                        static_cast<uint64_t>(status.st_size) <= kMaxSharedSize &&
                        Map(static_cast<size_t>(status.st_size));
  file_.Reset();
  return attached;
}

void CommandMemory::EndCommand() {
  if (data_ != nullptr && owner_ == getpid()) explicit_bzero(data_, reserved_);
  reserved_ = 0;
  if (size_ > kKeptSize) Unmap();
}
