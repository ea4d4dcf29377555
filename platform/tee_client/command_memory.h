// The memory that the TA's copies of a command's memory references lie in, kept for later commands.
#ifndef PLATFORM_TEE_CLIENT_COMMAND_MEMORY_H
#define PLATFORM_TEE_CLIENT_COMMAND_MEMORY_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "platform/tee_client/channel.h"

// CommandMemory is all zeros between commands: none meets what another left. Shared memory is made
// by the client and attached by the worker. A child of the process that made or attached it has no
// part in it. One thread at a time.
class CommandMemory {
 public:
  enum class Kind { kPrivate, kShared };
  // What is kept at most; more is given back after the command.
  static constexpr size_t kKeptSize = size_t{2} << 20;

  explicit CommandMemory(Kind kind) : kind_(kind) {}
  ~CommandMemory() { Unmap(); }
  CommandMemory(const CommandMemory&) = delete;
  CommandMemory& operator=(const CommandMemory&) = delete;

  // Reserve has at least that many bytes for the next command; false when there is no memory.
  bool Reserve(size_t size);
  // Attach maps what the other side made in place of what there is; false unless it can never
  // shrink and has no more than that many bytes.
  bool Attach(FileDescriptor file, size_t max_size);
  // EndCommand zeroes what was reserved, and gives back what is too large to be kept. Both sides of
  // shared memory end each command.
  void EndCommand();

  uint8_t* data() const { return data_; }
  size_t size() const { return size_; }
  // The file of shared memory until ForgetFile, by which it has been sent; -1 otherwise.
  int fd() const { return file_.get(); }
  void ForgetFile() { file_.Reset(); }

 private:
  bool MakeFile(size_t size);
  bool Map(size_t size);
  void Unmap();

  const Kind kind_;
  FileDescriptor file_;
  uint8_t* data_ = nullptr;
  size_t size_ = 0;
  size_t reserved_ = 0;  // by the command that runs
  pid_t owner_ = 0;
};

#endif  // PLATFORM_TEE_CLIENT_COMMAND_MEMORY_H
