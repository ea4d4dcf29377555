#include <stdio.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "tools/keymasterctl/operation.h"

namespace {

constexpr std::chrono::milliseconds kDelay(500);
constexpr std::chrono::milliseconds kInterval(100);
constexpr size_t kWidestBar = 40;

size_t TerminalWidth() {
  winsize size = {};
  const bool known = ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col != 0;
  return known ? size.ws_col : 80;
}

std::string MiB(uint64_t bytes) { return std::to_string(bytes >> 20); }

// "[####....] 50%  10 of 20 MiB", with as much of a bar as fits.
std::string Line(uint64_t done, uint64_t total, size_t width) {
  const std::string text =
      std::to_string(done * 100 / total) + "%  " + MiB(done) + " of " + MiB(total) + " MiB";
  if (text.size() + 6 > width) return text.substr(0, width);
  const size_t bar = std::min(kWidestBar, width - text.size() - 3);
  const size_t filled = done * bar / total;
  return "[" + std::string(filled, '#') + std::string(bar - filled, '.') + "] " + text;
}

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
  // The last column stays free: a line that fills it would wrap.
  const size_t width = TerminalWidth() - 1;
  const uint64_t total = total_.value_or(0);
  const std::string line =
      total == 0 ? MiB(done_) + " MiB" : Line(std::min(done_, total), total, width);
  fprintf(stderr, "\r%s\x1b[K", line.c_str());
}
