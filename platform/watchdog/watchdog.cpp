#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <zubrel.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <exception>
#include <map>
#include <mutex>
#include <string>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kFailed = -1;

struct Bracket {
  std::string label;
  unsigned timeout;
  void (*callback)(void*);
  void* arg;
  unsigned flags;
  Clock::time_point deadline;  // never once it has expired
};

// The unit of a time-out is a second, unless a test shortens it.
Clock::time_point DeadlineOf(unsigned timeout) {
  // A year stands for never, and keeps the clock's arithmetic in range.
  constexpr unsigned long long kYear = 365ULL * 24 * 3600 * 1000;
  const char* text = getenv("ZUBREL_UNIT_MS");
  const unsigned long long wanted = text == nullptr ? 0 : strtoull(text, nullptr, 10);
  const unsigned long long unit = wanted == 0 ? 1000 : std::min(wanted, kYear);
  const unsigned long long total = std::min(unit * timeout, kYear);
  return Clock::now() + std::chrono::milliseconds(total);
}

// Watchdog keeps the open brackets and the thread that watches over them. The thread sleeps until
// the earliest deadline it has been told of. A closed bracket does not wake it: it finds out when
// that deadline comes, so in a run of short calls it wakes once a time-out and not once a call.
class Watchdog {
 public:
  int Open(const Bracket& bracket);
  int Close(int id);

 private:
  bool StartThread();
  void Run();
  void Expire(std::unique_lock<std::mutex>* lock, int id);

  std::mutex mutex_;
  std::condition_variable earlier_deadline_;
  std::condition_variable callback_returned_;
  std::map<int, Bracket> brackets_;
  Clock::time_point wake_at_ = Clock::time_point::max();
  std::thread::id thread_;
  int last_id_ = 0;
  int calling_back_ = 0;  // the bracket whose callback runs
};

// The host's signal handlers must not run on this thread, so it starts with all signals blocked.
bool Watchdog::StartThread() {
  if (thread_ != std::thread::id()) return true;
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  try {
    std::thread thread(&Watchdog::Run, this);
    thread_ = thread.get_id();
    thread.detach();
  } catch (const std::exception&) {
    // No thread to be had; the next bracket tries again.
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return thread_ != std::thread::id();
}

int Watchdog::Open(const Bracket& bracket) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (!StartThread()) return kFailed;
  do {
    last_id_ = last_id_ == INT_MAX ? 1 : last_id_ + 1;
  } while (!brackets_.try_emplace(last_id_, bracket).second);
  if (bracket.deadline < wake_at_) {
    wake_at_ = bracket.deadline;
    earlier_deadline_.notify_one();
  }
  return last_id_;
}

int Watchdog::Close(int id) {
  std::unique_lock<std::mutex> lock(mutex_);
  // A callback may close its own bracket; waiting for itself would never end.
  callback_returned_.wait(lock, [&] {
    return calling_back_ != id || id == 0 || std::this_thread::get_id() == thread_;
  });
  return brackets_.erase(id) == 0 ? kFailed : 0;
}

void Watchdog::Expire(std::unique_lock<std::mutex>* lock, int id) {
  Bracket& bracket = brackets_.at(id);
  bracket.deadline = Clock::time_point::max();
  calling_back_ = id;
  // Until the callback returns nobody but the callback itself can take the bracket away.
  lock->unlock();
  (void)fprintf(stderr, "watchdog: %s has not ended after %u s (flags %u)\n", bracket.label.c_str(),
                bracket.timeout, bracket.flags);
  bracket.callback(bracket.arg);
  lock->lock();
  calling_back_ = 0;
  callback_returned_.notify_all();
}

void Watchdog::Run() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    const Clock::time_point now = Clock::now();
    int expired = 0;
    wake_at_ = Clock::time_point::max();
    for (const auto& [id, bracket] : brackets_) {
      if (bracket.deadline <= now) expired = id;
      wake_at_ = std::min(wake_at_, bracket.deadline);
    }
    if (expired != 0) {
      Expire(&lock, expired);
    } else if (wake_at_ == Clock::time_point::max()) {
      earlier_deadline_.wait(lock);
    } else {
      earlier_deadline_.wait_until(lock, wake_at_);
    }
  }
}

// Never destroyed: its thread, and callers in other destructors, may still need it at exit.
Watchdog& TheWatchdog() {
  static auto* const watchdog = new Watchdog;
  return *watchdog;
}

}  // namespace

// The thread starts with the first bracket, so there is nothing to ready.
int zubrel_init(void) { return 0; }

int __zubrel_start_ex(const char* label, unsigned timeout, void (*callback)(void*), void* arg,
                      unsigned flags) try {
  if (label == nullptr || callback == nullptr) return kFailed;
  return TheWatchdog().Open({label, timeout, callback, arg, flags, DeadlineOf(timeout)});
} catch (const std::exception&) {
  return kFailed;
}

int zubrel_end(int id) try { return TheWatchdog().Close(id); } catch (const std::exception&) {
  return kFailed;
}
