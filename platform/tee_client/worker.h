// The worker, the process that hosts the TAs, as the client sees it, and what they say to each
// other.
//
// The client sends one end of a new channel over the control channel for each session that finds no
// idle connection. On the channel of a connection one session follows the other: a request opens
// the session, more of them invoke commands, the last one closes it, and each is answered; the next
// session's first request need not wait for the answer to the closing of the one before. The
// memory references of a request lie in shared memory, in order; the file of that comes with the
// first request that uses it. Neither side believes a size that it has not checked.
#ifndef PLATFORM_TEE_CLIENT_WORKER_H
#define PLATFORM_TEE_CLIENT_WORKER_H

#include <unistd.h>

#include <memory>
#include <mutex>

#include "platform/tee_client/command_memory.h"
#include "platform/tee_client/command_parameters.h"

constexpr uint32_t kWorkerMagic = 0x54454532;

enum class WorkerRequestKind : uint32_t { kOpen = 1, kInvoke, kClose };

// In both, a memory reference has a size and no buffer.
struct WorkerRequest {
  uint32_t magic;
  WorkerRequestKind kind;
  uint32_t code;  // the login method of an open, or the command
  TEEC_UUID uuid;
  uint32_t types;
  TEEC_Parameter params[CommandParameters::kCount];
};

struct WorkerReply {
  uint32_t magic;
  TEEC_Result result;
  uint32_t origin;
  TEEC_Parameter params[CommandParameters::kCount];
};

// What a session needs to reach the worker. One session uses it at a time. The answer to its
// closing is left to whoever uses the connection next, so that nobody waits for it.
struct WorkerConnection {
  // AwaitClose receives that answer, if there is one; false when it does not come.
  bool AwaitClose(int limit_ms);
  bool Receive(WorkerReply* reply, int limit_ms) const;

  Channel channel;
  CommandMemory memory{CommandMemory::Kind::kShared};
  bool is_closing = false;
};

// WorkerProcess may be used from several threads. A child of the process that started it cannot use
// it, and leaves it alone. Its end, and the end of the client, end the
// worker: that lives no longer than its control channel.
class WorkerProcess {
 public:
  // Start starts the program that TEE_WORKER names, else the tee-worker beside this library or in
  // ../bin of its folder. Null, with a line on standard error, when that fails.
  static std::shared_ptr<WorkerProcess> Start();
  WorkerProcess(pid_t pid, FileDescriptor process, Channel control);
  ~WorkerProcess();
  WorkerProcess(const WorkerProcess&) = delete;
  WorkerProcess& operator=(const WorkerProcess&) = delete;

  // IsOurs is false in a child of the process that started the worker.
  bool IsOurs() const { return client_ == getpid(); }
  // IsAlive is false for a worker that is not ours, too.
  bool IsAlive();
  // Kill ends the worker at once and leaves no zombie. A worker that is dead already is reaped.
  void Kill();
  // Connect returns an idle connection, or a new one; null when the worker is out of reach.
  std::unique_ptr<WorkerConnection> Connect();
  // Release keeps the connection of a session that was closed for another.
  void Release(std::unique_ptr<WorkerConnection> connection) { idle_.Give(std::move(connection)); }

 private:
  const pid_t client_;
  const pid_t pid_;
  const FileDescriptor process_;
  Channel control_;
  IdlePool<WorkerConnection> idle_;
  std::mutex mutex_;
  bool reaped_ = false;
};

// A session to a TA, wherever the TA runs.

// What a call is answered with when the TA ended under it.
constexpr Reply kTargetDead = {TEEC_ERROR_TARGET_DEAD, TEEC_ORIGIN_TEE};

// AppSession is called by one thread at a time. Invoke and Close follow an Open that succeeded, and
// nothing follows Close.
class AppSession {
 public:
  virtual ~AppSession() = default;
  // Memory is where the parameters of an open or of a command lie; null when the TA is dead.
  virtual CommandMemory* Memory() = 0;
  virtual Reply Open(uint32_t login, CommandParameters* parameters) = 0;
  virtual Reply Invoke(uint32_t command, CommandParameters* parameters) = 0;
  virtual void Close() = 0;
  // Kill ends the TA as a crash would. Only Close may follow.
  virtual void Kill() = 0;
};

// RemoteSession kills a worker that breaks off, answers something else, or does not answer within
// TEE_TIMEOUT_MS milliseconds (two minutes unless set): the TA is dead then. So it is for a child
// of the process that made the session.
class RemoteSession : public AppSession {
 public:
  RemoteSession(std::shared_ptr<WorkerProcess> worker, const TEEC_UUID& uuid)
      : worker_(std::move(worker)), uuid_(uuid) {}
  CommandMemory* Memory() override;
  Reply Open(uint32_t login, CommandParameters* parameters) override {
    return Exchange(WorkerRequestKind::kOpen, login, parameters);
  }
  Reply Invoke(uint32_t command, CommandParameters* parameters) override {
    return Exchange(WorkerRequestKind::kInvoke, command, parameters);
  }
  void Close() override;
  void Kill() override { worker_->Kill(); }

 private:
  Reply Exchange(WorkerRequestKind kind, uint32_t code, CommandParameters* parameters);
  bool Send(const WorkerRequest& request);

  const std::shared_ptr<WorkerProcess> worker_;
  const TEEC_UUID uuid_;
  std::unique_ptr<WorkerConnection> connection_;  // while the session is open
};

#endif  // PLATFORM_TEE_CLIENT_WORKER_H
