// Auth tokens as the instance selected last takes them.
#ifndef TESTS_TA_TOKENS_H
#define TESTS_TA_TOKENS_H

#include "ta/auth.h"
#include "tests/ta/ta_client.h"

inline Str Mac(const Str& message) {
  const ta::SecureBytes mac = ta::SharedHmac(std::string_view(message));
  return Str(mac.begin(), mac.end());
}

// A token of user 5 by authenticator 0x99; type are the 4 bytes of the authenticator's type.
inline Str Token(uint64_t timestamp, const Str& type, uint64_t challenge = 77) {
  const Str head = Str(1, 0) + Le(challenge, 8) + Le(5, 8) + Le(0x99, 8) + type + Be(timestamp, 8);
  return head + Mac(head);
}

#endif  // TESTS_TA_TOKENS_H
