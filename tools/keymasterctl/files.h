// Files and standard streams; "-" is standard input or standard output.
#ifndef KEYMASTERCTL_FILES_H
#define KEYMASTERCTL_FILES_H

#include <openssl/crypto.h>
#include <stdint.h>
#include <sys/stat.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

// Wiping zeroes what it frees, so that no secret stays behind where a vector grew or ended.
template <typename T>
struct Wiping : std::allocator<T> {
  template <typename Other>
  struct rebind {  // NOLINT(readability-identifier-naming): named by the standard
    using other = Wiping<Other>;
  };
  void deallocate(T* data, size_t count) {
    OPENSSL_cleanse(data, count * sizeof(T));
    std::allocator<T>::deallocate(data, count);
  }
};

using Bytes = std::vector<uint8_t, Wiping<uint8_t>>;

// NotCopied is the base of what owns something that cannot be owned twice.
struct NotCopied {
  NotCopied() = default;
  NotCopied(const NotCopied&) = delete;
  NotCopied& operator=(const NotCopied&) = delete;
};

// Input reads a file or standard input in pieces. Failures throw. Standard input is read once.
class Input : NotCopied {
 public:
  explicit Input(const std::string& path);
  ~Input();

  // Reads the next limit bytes; fewer only at the end of the input. The room of bytes is used
  // again.
  void Read(size_t limit, Bytes* bytes);
  // The size in bytes of a regular file.
  std::optional<uint64_t> size() const { return size_; }

 private:
  std::string path_;
  int fd_;
  std::optional<uint64_t> size_;
  bool ended_ = false;  // a terminal could be read on behind its end
};

// ReadFile returns a whole input, of at most 64 MiB.
Bytes ReadFile(const std::string& path);

// Output writes a file that appears under its name, complete, with Commit; without it nothing is
// left behind. Standard output and other streams are written as the data come. A file that this
// program has read is never written, whatever its name.
class Output : NotCopied {
 public:
  enum class Content {
    kText,    // for a terminal too
    kBinary,  // not for a terminal
    kSecret,  // binary, for the owner alone: mode 0600, and on disk before it is named
  };
  enum class Existing {
    kReplace,  // an existing file is replaced, and keeps its mode unless the content is secret
    kKeep,     // an existing file is not touched: the output fails
    kInPlace,  // an existing file is replaced, though it was read
  };
  Output(const std::string& path, Content content, Existing existing = Existing::kReplace);
  ~Output();

  // Has streams too receive nothing before Commit; at most 64 MiB are held for that.
  void Hold() { hold_ = !is_file_; }
  void Write(const uint8_t* data, size_t length);
  void Write(const Bytes& bytes) { Write(bytes.data(), bytes.size()); }
  void Commit();
  uint64_t bytes() const { return bytes_; }

 private:
  explicit Output(Content content) : secret_(content == Content::kSecret) {}
  void OpenStream(const std::string& path, Content content);
  void OpenTemporary(const std::string& path);
  void KeepMode(mode_t mode) const;
  void Name();

  std::string path_;
  std::string temporary_;  // the name of the unfinished file; empty while it has none
  bool secret_;
  bool replaces_ = true;
  bool hold_ = false;
  bool is_file_ = false;
  int fd_ = -1;
  Bytes held_;
  uint64_t bytes_ = 0;
};

#endif  // KEYMASTERCTL_FILES_H
