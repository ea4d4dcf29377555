// A progress line on standard error for long work.
#ifndef KEYMASTERCTL_PROGRESS_H
#define KEYMASTERCTL_PROGRESS_H

#include <stddef.h>
#include <stdint.h>

#include <chrono>
#include <optional>

// Progress draws a bar once the work has taken half a second, only when standard error is a
// terminal, and clears it at its end.
class Progress {
 public:
  // total is in bytes; without it the bytes done are counted alone.
  explicit Progress(std::optional<uint64_t> total);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void Add(size_t bytes);

 private:
  using Clock = std::chrono::steady_clock;

  std::optional<uint64_t> total_;
  uint64_t done_ = 0;
  bool terminal_;
  bool drawn_ = false;
  Clock::time_point next_;
};

#endif  // KEYMASTERCTL_PROGRESS_H
