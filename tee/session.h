// Sessions to the keymaster TA.
#ifndef TEE_SESSION_H
#define TEE_SESSION_H

#include <stdint.h>
#include <tee_client_api.h>

namespace km41 {

// ClearOperation zeroes an operation record in full, the client library's fields included. False
// when the platform's memset_s rejects it.
[[nodiscard]] bool ClearOperation(TEEC_Operation* operation);

// KmSession is one session to the keymaster TA: closed at the end of its life if it was opened,
// and never when the TA marked it as its first.
class KmSession {
 public:
  KmSession() = default;
  ~KmSession() { Close(); }
  KmSession(const KmSession&) = delete;
  KmSession& operator=(const KmSession&) = delete;

  // Open opens it on the TEE context, which exists, under the watchdog. Returns a TEE result.
  [[nodiscard]] uint32_t Open();
  // Close closes and releases it; one that is not open, or the TA's first one, stays as it is.
  void Close();
  TEEC_Session* get() const { return session_; }

 private:
  TEEC_Session* session_ = nullptr;  // a malloc block, once open
  uint32_t first_session_ = 0;       // the TA's flag
};

}  // namespace km41

#endif  // TEE_SESSION_H
