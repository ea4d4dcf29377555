// The memory that the TA's copies of a command's memory references lie in, kept for later commands.
#ifndef PLATFORM_TEE_CLIENT_COMMAND_MEMORY_H
#define PLATFORM_TEE_CLIENT_COMMAND_MEMORY_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/tee_client/channel.h"

// The memory references of a call together, where they are shared with the worker.
constexpr uint64_t kMaxSharedSize = 64u << 20;

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
  bool Reserve(uint64_t size);
  // Attach maps what the other side made in place of what there is; false unless it can never
  // shrink and is not too large.
  bool Attach(FileDescriptor file);
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

// ---- What sessions used, kept for the next ones.

// IdlePool may be used from several threads.
template <typename T>
class IdlePool {
 public:
  static constexpr size_t kMaxIdle = 8;

  IdlePool() { idle_.reserve(kMaxIdle); }
  // Take returns null when nothing is idle.
  std::unique_ptr<T> Take() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (idle_.empty()) return nullptr;
    std::unique_ptr<T> taken = std::move(idle_.back());
    idle_.pop_back();
    return taken;
  }
  // Give keeps an object, or destroys it when enough are kept.
  void Give(std::unique_ptr<T> object) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (idle_.size() < kMaxIdle) idle_.push_back(std::move(object));
  }

 private:
  std::mutex mutex_;
  std::vector<std::unique_ptr<T>> idle_;
};

using MemoryPool = IdlePool<CommandMemory>;

#endif  // PLATFORM_TEE_CLIENT_COMMAND_MEMORY_H
