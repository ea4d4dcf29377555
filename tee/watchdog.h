// The watchdog's bracket around a call into the TEE client.
#ifndef TEE_WATCHDOG_H
#define TEE_WATCHDOG_H

#include <zubrel.h>

#include "keymaster_ts.h"

namespace km41 {

// WatchdogBracket guards the calls made while it lives: an overrun archives the TEE's log as a
// fault event. It neither cancels nor changes the guarded call.
class WatchdogBracket {
 public:
  explicit WatchdogBracket(const char* label)
      : id_(__zubrel_start_ex(label, kTimeout, TeeosLogExceptionArchive, nullptr, kFlags)) {}
  ~WatchdogBracket() { zubrel_end(id_); }
  WatchdogBracket(const WatchdogBracket&) = delete;
  WatchdogBracket& operator=(const WatchdogBracket&) = delete;

 private:
  static constexpr unsigned kTimeout = 32;
  static constexpr unsigned kFlags = 3;
  const int id_;
};

}  // namespace km41

#endif  // TEE_WATCHDOG_H
