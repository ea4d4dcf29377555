// The contexts and sessions that are alive in this process.
#ifndef PLATFORM_TEE_CLIENT_SESSIONS_H
#define PLATFORM_TEE_CLIENT_SESSIONS_H

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/tee_client/worker.h"

// FindBuiltInApp returns the TA of that UUID that this build hosts, null when there is none.
const TrustedApp* FindBuiltInApp(const TEEC_UUID& uuid);

// InlineSession calls a TA in this process. An exception is a TA that crashed.
class InlineSession : public AppSession {
 public:
  InlineSession(const TrustedApp& app, std::shared_ptr<MemoryPool> pool);
  CommandMemory* Memory() override { return memory_.get(); }
  Reply Open(uint32_t login, CommandParameters* parameters) override;
  Reply Invoke(uint32_t command, CommandParameters* parameters) override;
  void Close() override;
  void Kill() override {}

 private:
  const TrustedApp& app_;
  const std::shared_ptr<MemoryPool> pool_;
  std::unique_ptr<CommandMemory> memory_;
  void* ta_session_ = nullptr;
};

// Where the TAs run: in this process, or in a worker process while TEE_HOST is "process".
// AppHost is shared by the contexts of this process and ends, with its worker, with the last of
// them. It may be used from several threads.
class AppHost {
 public:
  // Get returns the host of the contexts that are alive, a new one when there are none.
  static std::shared_ptr<AppHost> Get();
  // MakeSession makes a session to the TA of that UUID, to be opened. A worker is started for the
  // first one, and for the first one after a worker died or in a child of this process.
  Reply MakeSession(const TEEC_UUID& uuid, std::unique_ptr<AppSession>* session);

 private:
  std::shared_ptr<WorkerProcess> LiveWorker();

  std::mutex mutex_;
  std::shared_ptr<WorkerProcess> worker_;
  const std::shared_ptr<MemoryPool> pool_ = std::make_shared<MemoryPool>();
};

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

  struct EndCommand {
    void operator()(CommandMemory* memory) const { memory->EndCommand(); }
  };
  using LentMemory = std::unique_ptr<CommandMemory, EndCommand>;

  // Lend has the parameters' memory while the call runs; null, with the reply, when there is none.
  LentMemory Lend(CommandParameters* parameters, Reply* reply);
  Reply CallApp(uint32_t command, CommandParameters* parameters);
  void CloseLocked();

  const std::unique_ptr<AppSession> app_;
  const Handle context_;
  std::mutex mutex_;
  State state_ = State::kNew;
};

// SessionTable may be used from several threads. Its methods throw std::bad_alloc.
class SessionTable {
 public:
  static constexpr size_t kMaxSessions = 64;

  Handle AddContext();
  // TakeContext removes a context and its sessions, and returns these.
  std::vector<std::shared_ptr<Session>> TakeContext(Handle context);
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
