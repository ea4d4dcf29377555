// The contexts and sessions that are alive in this process.
#ifndef PLATFORM_TEE_CLIENT_SESSIONS_H
#define PLATFORM_TEE_CLIENT_SESSIONS_H

#include <trusted_app.h>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <vector>

#include "command_parameters.h"

// Callers hold contexts and sessions by number. Numbers are never used twice, so that a handle
// kept too long meets nothing, and not somebody else's session. 0 is none.
using Handle = uintptr_t;

// Session is one session to a TA; its calls into the TA run one at a time.
class Session {
 public:
  Session(const TrustedApp& app, Handle context) : app_(app), context_(context) {}

  Reply Open(uint32_t login, CommandParameters* parameters, TEEC_Operation* operation);
  Reply Invoke(uint32_t command, CommandParameters* parameters);
  // Close waits for a call that runs. It does nothing for a session that is not open.
  void Close();
  Handle context() const { return context_; }

 private:
  enum class State { kClosed, kOpen, kDead };

  // Calls the TA. An exception is a TA that crashed: its session is dead from then on.
  template <typename Call>
  Reply CallApp(Call call);
  void CloseLocked();

  const TrustedApp& app_;
  const Handle context_;
  std::mutex mutex_;
  State state_ = State::kClosed;
  void* ta_session_ = nullptr;
};

// SessionTable may be used from several threads. Its methods throw std::bad_alloc.
class SessionTable {
 public:
  Handle AddContext();
  // Takes a context out and returns what was still open in it.
  std::vector<std::shared_ptr<Session>> TakeContext(Handle context);

  // 0 when the session's context is gone.
  Handle AddSession(const std::shared_ptr<Session>& session);
  std::shared_ptr<Session> FindSession(Handle session);
  std::shared_ptr<Session> TakeSession(Handle session);

 private:
  std::mutex mutex_;
  Handle last_handle_ = 0;
  std::set<Handle> contexts_;
  std::map<Handle, std::shared_ptr<Session>> sessions_;
};

#endif  // PLATFORM_TEE_CLIENT_SESSIONS_H
