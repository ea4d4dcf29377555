// Sessions to the keymaster TA.
#ifndef TEE_SESSION_H
#define TEE_SESSION_H

#include <stdint.h>
#include <tee_client_api.h>

namespace km41 {

// OpenKmSession opens a session to the keymaster TA under the watchdog. On success *session is a
// malloc block that CloseKmSession releases, and *first_session (may be null) is the TA's flag: 1
// for the session that it keeps. On failure both are untouched. Returns a TEE result.
uint32_t OpenKmSession(TEEC_Session** session, uint32_t* first_session);

// CloseKmSession closes and frees a session. A null session, and the TA's first one, stay as they
// are.
void CloseKmSession(TEEC_Session* session, uint32_t first_session);

// ClearOperation zeroes an operation record in full, the client library's fields included. False
// when the platform's memset_s refuses.
bool ClearOperation(TEEC_Operation* operation);

// KmSession is one session to the keymaster TA: closed at the end of its life if it was opened,
// and never when the TA marked it as its first.
class KmSession {
 public:
  KmSession() = default;
  ~KmSession() { Close(); }
  KmSession(const KmSession&) = delete;
  KmSession& operator=(const KmSession&) = delete;

  uint32_t Open() { return OpenKmSession(&session_, &first_session_); }
  void Close() {
    CloseKmSession(session_, first_session_);
    session_ = nullptr;
  }
  TEEC_Session* get() const { return session_; }

 private:
  TEEC_Session* session_ = nullptr;
  uint32_t first_session_ = 0;
};

}  // namespace km41

#endif  // TEE_SESSION_H
