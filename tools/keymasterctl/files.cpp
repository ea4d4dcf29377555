#include "files.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <openssl/crypto.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "errors.h"

namespace {

constexpr size_t kHeldLimit = 64u << 20;

std::string DirectoryOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

void WriteAll(int fd, const std::string& path, const uint8_t* data, size_t length) {
  while (length > 0) {
    const ssize_t written = write(fd, data, length);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) throw SystemFailure("cannot write", path);
    data += written;
    length -= static_cast<size_t>(written);
  }
}

// Appends, and leaves no copy behind where the bytes were before they had to move.
void AppendSecret(const uint8_t* data, size_t length, Bytes* to) {
  if (length > to->capacity() - to->size()) {
    Bytes larger;
    larger.reserve(std::max(to->size() + length, 2 * to->capacity()));
    larger.insert(larger.end(), to->begin(), to->end());
    OPENSSL_cleanse(to->data(), to->size());
    to->swap(larger);
  }
  to->insert(to->end(), data, data + length);
}

}  // namespace

Input::Input(const std::string& path) : path_(path), fd_(STDIN_FILENO) {
  if (path == "-") {
    static bool taken = false;
    if (taken) throw UsageFailure("only one input can be -, standard input: name the others");
    taken = true;
    return;
  }
  fd_ = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd_ < 0) throw SystemFailure("cannot open", path);
}

Input::~Input() {
  if (fd_ != STDIN_FILENO) close(fd_);
}

void Input::Read(size_t limit, Bytes* bytes) {
  bytes->resize(limit);
  size_t length = 0;
  while (length < limit) {
    const ssize_t count = read(fd_, bytes->data() + length, limit - length);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) throw SystemFailure("cannot read", path_);
    if (count == 0) break;
    length += static_cast<size_t>(count);
  }
  bytes->resize(length);
}

Bytes Input::Read(size_t limit) {
  Bytes bytes;
  Read(limit, &bytes);
  return bytes;
}

std::optional<uint64_t> Input::size() const {
  struct stat status;
  if (fstat(fd_, &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
  return static_cast<uint64_t>(status.st_size);
}

Bytes ReadFile(const std::string& path) {
  Input input(path);
  if (input.size().value_or(0) > kHeldLimit) throw Failure(path + " is too large for this use");
  Bytes bytes;
  while (true) {
    Bytes piece = input.Read(64u << 10);
    if (piece.empty()) return bytes;
    AppendSecret(piece.data(), piece.size(), &bytes);
    OPENSSL_cleanse(piece.data(), piece.size());
    if (bytes.size() > kHeldLimit) throw Failure(path + " is too large for this use");
  }
}

// Delegates, so that what fails below has its file closed and removed.
Output::Output(const std::string& path, Access access, Release release) : Output(access, release) {
  path_ = path;
  if (path == "-") {
    fd_ = STDOUT_FILENO;
    return;
  }
  // A link is written through, not replaced.
  char resolved[PATH_MAX];
  if (realpath(path.c_str(), resolved) != nullptr) path_ = resolved;
  struct stat status;
  const bool exists = stat(path_.c_str(), &status) == 0;
  if (exists && S_ISDIR(status.st_mode)) throw Failure(path + " is a directory");
  if (exists && !S_ISREG(status.st_mode)) {
    fd_ = open(path_.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd_ < 0) throw SystemFailure("cannot open", path);
    return;
  }
  is_file_ = true;
  hold_ = false;
  OpenTemporary(path);
  if (exists && access_ == Access::kByUmask && !KeepMode(status.st_mode & 0777)) {
    throw SystemFailure("cannot write", path);
  }
}

// A file without a name vanishes with this process, however it ends; not every file system has it.
void Output::OpenTemporary(const std::string& path) {
  const mode_t mode = access_ == Access::kOwnerOnly ? 0600 : 0666;
  fd_ = open(DirectoryOf(path_).c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, mode);
  if (fd_ >= 0) return;
  temporary_ = path_ + ".part" + std::to_string(getpid());
  fd_ = open(temporary_.c_str(), O_CREAT | O_EXCL | O_NOFOLLOW | O_WRONLY | O_CLOEXEC, mode);
  if (fd_ >= 0) return;
  temporary_.clear();
  throw SystemFailure("cannot write", path);
}

// A file that was closed to others stays closed; not every file system lets its mode be set.
bool Output::KeepMode(mode_t mode) const {
  struct stat now;
  return fchmod(fd_, mode) == 0 || (fstat(fd_, &now) == 0 && (now.st_mode & 0777 & ~mode) == 0);
}

void Output::NameTemporary() {
  if (!temporary_.empty()) return;
  const std::string open_file = "/proc/self/fd/" + std::to_string(fd_);
  const std::string name = path_ + ".part" + std::to_string(getpid());
  if (linkat(AT_FDCWD, open_file.c_str(), AT_FDCWD, name.c_str(), AT_SYMLINK_FOLLOW) != 0) {
    throw SystemFailure("cannot name", path_);
  }
  temporary_ = name;
}

Output::~Output() {
  OPENSSL_cleanse(held_.data(), held_.size());
  if (fd_ != STDOUT_FILENO && fd_ >= 0) close(fd_);
  if (!temporary_.empty()) unlink(temporary_.c_str());
}

void Output::Write(const uint8_t* data, size_t length) {
  bytes_ += length;
  if (!hold_) return WriteAll(fd_, path_, data, length);
  if (length > kHeldLimit - held_.size()) {
    throw Failure("more than 64 MiB cannot be held until the tag is verified; give --out FILE");
  }
  AppendSecret(data, length, &held_);
}

void Output::Commit() {
  WriteAll(fd_, path_, held_.data(), held_.size());
  if (!is_file_) return;
  if (access_ == Access::kOwnerOnly && fsync(fd_) != 0) throw SystemFailure("cannot write", path_);
  NameTemporary();
  if (rename(temporary_.c_str(), path_.c_str()) != 0) throw SystemFailure("cannot name", path_);
  temporary_.clear();
}

void WriteFile(const std::string& path, const Bytes& bytes, Output::Access access) {
  Output output(path, access, Output::Release::kAsItComes);
  output.Write(bytes);
  output.Commit();
}
