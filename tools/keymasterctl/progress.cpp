#include "progress.h"

#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <string>

namespace {

constexpr std::chrono::milliseconds kDelay(500);
constexpr std::chrono::milliseconds kInterval(100);
constexpr uint64_t kWidth = 40;
constexpr double kMebibyte = 1 << 20;

}  // namespace

Progress::Progress(std::optional<uint64_t> total)
    : total_(total), terminal_(isatty(STDERR_FILENO) == 1), next_(Clock::now() + kDelay) {}

Progress::~Progress() {
  if (drawn_) fputs("\r\x1b[K", stderr);
}

void Progress::Add(size_t bytes) {
  done_ += bytes;
  if (!terminal_ || Clock::now() < next_) return;
  next_ = Clock::now() + kInterval;
  drawn_ = true;
  const double done = static_cast<double>(done_) / kMebibyte;
  if (!total_ || *total_ == 0) {
    fprintf(stderr, "\r%.0f MiB\x1b[K", done);
    return;
  }
  const uint64_t shown = std::min(done_, *total_);
  const uint64_t filled = shown * kWidth / *total_;
  const std::string bar = std::string(filled, '#') + std::string(kWidth - filled, '.');
  fprintf(stderr, "\r[%s] %3u%%  %.0f of %.0f MiB\x1b[K", bar.c_str(),
          static_cast<unsigned>(shown * 100 / *total_), done,
          static_cast<double>(*total_) / kMebibyte);
}
