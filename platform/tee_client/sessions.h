// The contexts and sessions that are alive in this process.
#ifndef PLATFORM_TEE_CLIENT_SESSIONS_H
#define PLATFORM_TEE_CLIENT_SESSIONS_H

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/tee_client/app_host.h"
#include "platform/tee_client/app_session.h"

// Callers hold contexts and sessions by number. Numbers are never used twice, so that a handle
// kept too long meets nothing, and not somebody else's session. 0 is none.
using Handle = uintptr_t;

// Session is one session to a TA; its calls into the TA run one at a time. Once the TA died under
// it, it stays dead.
class Session {
 public:
  Session(std::unique_ptr<AppSession> app, Handle context)
      : app_(std::move(app)), context_(context) {}

  Reply Open(uint32_t login, CommandParameters* parameters, TEEC_Operation* operation);
  Reply Invoke(uint32_t command, CommandParameters* parameters, TEEC_Operation* operation);
  // Close waits for a call that runs. A session that is not open yet will not open any more.
  void Close();
  Handle context() const { return context_; }

 private:
  enum class State { kNew, kOpen, kDead, kClosed };

  Reply CallApp(uint32_t command, CommandParameters* parameters);
  void CloseLocked();

  const std::unique_ptr<AppSession> app_;
  const Handle context_;
  std::mutex mutex_;
  State state_ = State::kNew;
};

// A context that was taken out, and what was still open in it.
struct TakenContext {
  std::shared_ptr<AppHost> host;
  std::vector<std::shared_ptr<Session>> sessions;
};

// SessionTable may be used from several threads. Its methods throw std::bad_alloc.
class SessionTable {
 public:
  static constexpr size_t kMaxSessions = 64;

  Handle AddContext();
  TakenContext TakeContext(Handle context);
  // Null for a context that is gone.
  std::shared_ptr<AppHost> FindHost(Handle context);

  // Success stores the session's handle. BAD_STATE: its context is gone; BUSY: too many sessions.
  Reply AddSession(const std::shared_ptr<Session>& session, Handle* handle);
  std::shared_ptr<Session> FindSession(Handle session);
  std::shared_ptr<Session> TakeSession(Handle session);

 private:
  std::mutex mutex_;
  Handle last_handle_ = 0;
  std::map<Handle, std::shared_ptr<AppHost>> contexts_;
  std::map<Handle, std::shared_ptr<Session>> sessions_;
};

#endif  // PLATFORM_TEE_CLIENT_SESSIONS_H
