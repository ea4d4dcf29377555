#include "tools/keymasterctl/files.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <set>

#include "tools/keymasterctl/errors.h"

namespace {

constexpr size_t kHeldLimit = 64u << 20;

// The regular files that were read, by what no link changes.
using FileId = std::pair<dev_t, ino_t>;
std::set<FileId>& ReadFiles() {
  static std::set<FileId> files;
  return files;
}

void RequireUnread(const struct stat& status, const std::string& path) {
  RequireUsage(!S_ISREG(status.st_mode) || ReadFiles().count({status.st_dev, status.st_ino}) == 0,
               "the output " + path + " is one of the files that are read: give another --out");
}

void WriteAll(int fd, const std::string& path, const uint8_t* data, size_t length) {
  while (length > 0) {
    const ssize_t written = write(fd, data, length);
    if (written < 0 && errno != EINTR) throw SystemFailure("cannot write", path);
    data += std::max<ssize_t>(written, 0);
    length -= static_cast<size_t>(std::max<ssize_t>(written, 0));
  }
}

}  // namespace

Input::Input(const std::string& path) : path_(path), fd_(STDIN_FILENO) {
  if (path == "-") {
    static bool taken = false;
    RequireUsage(!taken, "only one input can be -, standard input: name the others");
    taken = true;
  } else {
    fd_ = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  }
  struct stat status;
  if (fd_ < 0 || fstat(fd_, &status) != 0) throw SystemFailure("cannot open", path);
  if (S_ISREG(status.st_mode)) {
    size_ = static_cast<uint64_t>(status.st_size);
    ReadFiles().insert({status.st_dev, status.st_ino});
  }
}

Input::~Input() {
  if (fd_ != STDIN_FILENO) close(fd_);
}

void Input::Read(size_t limit, Bytes* bytes) {
  bytes->resize(limit);
  size_t length = 0;
  while (length < limit && !ended_) {
    const ssize_t count = read(fd_, bytes->data() + length, limit - length);
    if (count < 0 && errno != EINTR) throw SystemFailure("cannot read", path_);
    ended_ = count == 0;
    length += static_cast<size_t>(std::max<ssize_t>(count, 0));
  }
  bytes->resize(length);
}

Bytes ReadFile(const std::string& path) {
  Input input(path);
  Bytes bytes;
  Bytes piece;
  for (input.Read(64u << 10, &piece); !piece.empty(); input.Read(64u << 10, &piece)) {
    bytes.insert(bytes.end(), piece.begin(), piece.end());
    Require(bytes.size() <= kHeldLimit, path + " is too large for this use");
  }
  return bytes;
}

// Delegates, so that what fails below has its file closed and removed.
Output::Output(const std::string& path, Content content, Existing existing) : Output(content) {
  path_ = path;
  // A link is written through, not replaced.
  char resolved[PATH_MAX];
  if (realpath(path.c_str(), resolved) != nullptr) path_ = resolved;
  struct stat status;
  const bool exists = stat(path_.c_str(), &status) == 0;
  Require(!exists || !S_ISDIR(status.st_mode), path + " is a directory");
  if (path == "-" || (exists && !S_ISREG(status.st_mode))) {
    OpenStream(path, content);
    return;
  }
  replaces_ = existing != Existing::kKeep;
  if (exists && !replaces_) {
    throw Failure(path + " exists", "give --force to replace it, and what it holds is gone");
  }
  if (exists && existing != Existing::kInPlace) RequireUnread(status, path);
  is_file_ = true;
  OpenTemporary(path);
  if (exists && !secret_) KeepMode(status.st_mode & 0777);
}

void Output::OpenStream(const std::string& path, Content content) {
  fd_ = path == "-" ? STDOUT_FILENO : open(path_.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY);
  struct stat status;
  if (fd_ < 0 || fstat(fd_, &status) != 0) throw SystemFailure("cannot open", path);
  RequireUnread(status, path);
  RequireUsage(content == Content::kText || isatty(fd_) != 1,
               "the output is not text and not for a terminal: name a file, or use a pipe");
}

// A file without a name vanishes with this process, however it ends; not every file system has it.
void Output::OpenTemporary(const std::string& path) {
  const mode_t mode = secret_ ? 0600 : 0666;
  const std::filesystem::path folder = std::filesystem::path(path_).parent_path();
  fd_ = open(folder.empty() ? "." : folder.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, mode);
  if (fd_ >= 0) return;
  const std::string name = path_ + ".part" + std::to_string(getpid());
  fd_ = open(name.c_str(), O_CREAT | O_EXCL | O_NOFOLLOW | O_WRONLY | O_CLOEXEC, mode);
  if (fd_ < 0) throw SystemFailure("cannot write", path);
  temporary_ = name;
}

// A file that was closed to others stays closed; not every file system lets its mode be set.
void Output::KeepMode(mode_t mode) const {
  struct stat now;
  if (fchmod(fd_, mode) != 0 && (fstat(fd_, &now) != 0 || (now.st_mode & 0777 & ~mode) != 0)) {
    throw SystemFailure("cannot write", path_);
  }
}

// A link, unlike a rename, never replaces what came to be there meanwhile.
void Output::Name() {
  const bool has_name = !temporary_.empty();
  const std::string from = has_name ? temporary_ : "/proc/self/fd/" + std::to_string(fd_);
  const std::string part = path_ + ".part" + std::to_string(getpid());
  const std::string& to = replaces_ ? part : path_;
  bool named = (has_name && replaces_) ||
               linkat(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), AT_SYMLINK_FOLLOW) == 0;
  if (named && replaces_) {
    temporary_ = part;
    named = rename(part.c_str(), path_.c_str()) == 0;
    temporary_ = named ? "" : part;
  }
  if (!named) throw SystemFailure("cannot name", path_);
}

Output::~Output() {
  if (fd_ != STDOUT_FILENO && fd_ >= 0) close(fd_);
  if (!temporary_.empty()) unlink(temporary_.c_str());
}

void Output::Write(const uint8_t* data, size_t length) {
  bytes_ += length;
  if (!hold_) {
    WriteAll(fd_, path_, data, length);
    return;
  }
  Require(length <= kHeldLimit - held_.size(),
          "more than 64 MiB cannot be held until the tag is verified; give --out FILE");
  held_.insert(held_.end(), data, data + length);
}

void Output::Commit() {
  WriteAll(fd_, path_, held_.data(), held_.size());
  if (!is_file_) return;
  if (secret_ && fsync(fd_) != 0) throw SystemFailure("cannot write", path_);
  Name();
}
