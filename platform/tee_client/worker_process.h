// The worker: the process that hosts the TAs, as the client sees it.
#ifndef PLATFORM_TEE_CLIENT_WORKER_PROCESS_H
#define PLATFORM_TEE_CLIENT_WORKER_PROCESS_H

#include <sys/types.h>

#include <memory>
#include <mutex>

#include "platform/tee_client/channel.h"
#include "platform/tee_client/command_memory.h"
#include "platform/tee_client/worker_protocol.h"

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
  bool IsOurs() const;
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

#endif  // PLATFORM_TEE_CLIENT_WORKER_PROCESS_H
