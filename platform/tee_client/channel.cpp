#include "platform/tee_client/channel.h"

#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

namespace {

// A record, and the room that one descriptor takes beside it: without the padding, in which a
// second one would have room, for what is received.
struct Message {
  Message(void* record, size_t size) : part{record, size} {
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    header.msg_control = ancillary;
    header.msg_controllen = CMSG_LEN(sizeof(int));
  }
  Message(const Message&) = delete;
  Message& operator=(const Message&) = delete;

  iovec part;
  alignas(cmsghdr) char ancillary[CMSG_SPACE(sizeof(int))] = {};
  msghdr header = {};
};

// Asks for a moment before anyone goes to sleep: most answers come sooner than a thread wakes up.
ssize_t ReceiveSoon(int socket, msghdr* header) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point end = Clock::now() + std::chrono::microseconds(50);
  ssize_t got;
  do {
    got = recvmsg(socket, header, MSG_CMSG_CLOEXEC | MSG_DONTWAIT);
  } while (got < 0 && errno == EAGAIN && sched_yield() == 0 && Clock::now() < end);
  return got;
}

}  // namespace

void FileDescriptor::Reset(int fd) {
  if (fd_ >= 0) close(fd_);
  fd_ = fd;
}

bool Channel::MakePair(FileDescriptor* one, FileDescriptor* other) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) return false;
  one->Reset(ends[0]);
  other->Reset(ends[1]);
  return true;
}

bool Channel::Send(const void* record, size_t size, int fd) const {
  Message message(const_cast<void*>(record), size);
  message.header.msg_controllen = fd < 0 ? 0 : sizeof(message.ancillary);
  if (cmsghdr* header = CMSG_FIRSTHDR(&message.header); header != nullptr) {
    *header = {CMSG_LEN(sizeof(fd)), SOL_SOCKET, SCM_RIGHTS};
    std::memcpy(CMSG_DATA(header), &fd, sizeof(fd));
  }
  return TEMP_FAILURE_RETRY(sendmsg(socket_.get(), &message.header, MSG_NOSIGNAL)) ==
         static_cast<ssize_t>(size);
}

bool Channel::Receive(void* record, size_t size, FileDescriptor* fd, int limit_ms) const {
  Message message(record, size);
  ssize_t got = ReceiveSoon(socket_.get(), &message.header);
  if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
    if (limit_ms >= 0 && !WaitReadable(socket_.get(), limit_ms)) return false;
    got = TEMP_FAILURE_RETRY(recvmsg(socket_.get(), &message.header, MSG_CMSG_CLOEXEC));
  }
  fd->Reset();
  const cmsghdr* header = got < 0 ? nullptr : CMSG_FIRSTHDR(&message.header);
  if (header != nullptr && header->cmsg_type == SCM_RIGHTS &&
      header->cmsg_len == CMSG_LEN(sizeof(int))) {
    int received = -1;
    std::memcpy(&received, CMSG_DATA(header), sizeof(received));
    fd->Reset(received);
  }
  return got == static_cast<ssize_t>(size) &&
         (message.header.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) == 0;
}

bool WaitReadable(int fd, int limit_ms) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(limit_ms);
  int wait = limit_ms;
  for (;;) {
    pollfd polled = {fd, POLLIN, 0};
    const int ready = poll(&polled, 1, wait);
    if (ready >= 0 || errno != EINTR) return ready > 0;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    wait = left.count() < 0 ? 0 : static_cast<int>(left.count());
  }
}
