// Files and standard streams; "-" is standard input or standard output.
#ifndef KEYMASTERCTL_FILES_H
#define KEYMASTERCTL_FILES_H

#include <stdint.h>
#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

using Bytes = std::vector<uint8_t>;

// Input reads a file or standard input in pieces. Failures throw. Standard input is read once.
class Input {
 public:
  explicit Input(const std::string& path);
  ~Input();
  Input(const Input&) = delete;
  Input& operator=(const Input&) = delete;

  // Reads the next limit bytes; fewer only at the end of the input. The room of bytes is used
  // again.
  void Read(size_t limit, Bytes* bytes);
  Bytes Read(size_t limit);
  // The size in bytes of a regular file.
  std::optional<uint64_t> size() const;

 private:
  std::string path_;
  int fd_;
};

// ReadFile returns a whole input, of at most 64 MiB.
Bytes ReadFile(const std::string& path);

// Output writes a file that appears under its name, complete, with Commit; without it nothing is
// left behind. Standard output and other streams are written as the data come.
class Output {
 public:
  enum class Access {
    kByUmask,    // or as the file that it replaces
    kOwnerOnly,  // mode 0600, and on disk before it is named
  };
  enum class Release {
    kAsItComes,
    kAtCommit,  // streams too receive nothing before Commit; at most 64 MiB are held for that
  };
  Output(const std::string& path, Access access, Release release);
  ~Output();
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  void Write(const uint8_t* data, size_t length);
  void Write(const Bytes& bytes) { Write(bytes.data(), bytes.size()); }
  void Commit();
  uint64_t bytes() const { return bytes_; }

 private:
  Output(Access access, Release release) : access_(access), hold_(release == Release::kAtCommit) {}
  void OpenTemporary(const std::string& path);
  bool KeepMode(mode_t mode) const;
  void NameTemporary();

  std::string path_;
  std::string temporary_;  // the name of the unfinished file; empty while it has none
  Access access_;
  bool hold_;
  bool is_file_ = false;
  int fd_ = -1;
  Bytes held_;
  uint64_t bytes_ = 0;
};

// WriteFile writes a whole output at once.
void WriteFile(const std::string& path, const Bytes& bytes,
               Output::Access access = Output::Access::kByUmask);

#endif  // KEYMASTERCTL_FILES_H
