// What sessions used, kept for the next ones.
#ifndef PLATFORM_TEE_CLIENT_IDLE_POOL_H
#define PLATFORM_TEE_CLIENT_IDLE_POOL_H

#include <memory>
#include <mutex>
#include <vector>

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

#endif  // PLATFORM_TEE_CLIENT_IDLE_POOL_H
