// A socket between the client and the worker that carries whole records, each with at most one file
// descriptor.
#ifndef PLATFORM_TEE_CLIENT_CHANNEL_H
#define PLATFORM_TEE_CLIENT_CHANNEL_H

#include <cstddef>
#include <utility>

// FileDescriptor owns a descriptor; -1 is none.
class FileDescriptor {
 public:
  explicit FileDescriptor(int fd = -1) : fd_(fd) {}
  ~FileDescriptor() { Reset(); }
  FileDescriptor(FileDescriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    Reset(std::exchange(other.fd_, -1));
    return *this;
  }
  void Reset(int fd = -1);
  int get() const { return fd_; }

 private:
  int fd_;
};

class Channel {
 public:
  Channel() = default;
  explicit Channel(FileDescriptor socket) : socket_(std::move(socket)) {}
  // MakePair makes the two ends of a channel; they are not inherited by programs started later.
  static bool MakePair(FileDescriptor* one, FileDescriptor* other);

  // Send sends a record, and a duplicate of fd unless that is -1.
  bool Send(const void* record, size_t size, int fd) const;
  // Receive waits for a record of exactly that size and for what descriptor came with it, for
  // limit_ms milliseconds or, if negative, without limit. False when the time is over, the other
  // side is gone, or what came is something else.
  bool Receive(void* record, size_t size, FileDescriptor* fd, int limit_ms) const;

 private:
  FileDescriptor socket_;
};

// WaitReadable waits for input or the end of a descriptor; false when the time is over.
bool WaitReadable(int fd, int limit_ms);

#endif  // PLATFORM_TEE_CLIENT_CHANNEL_H
