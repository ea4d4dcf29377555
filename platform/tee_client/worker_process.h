// The worker: the process that hosts the TAs, as the client sees it.
#ifndef PLATFORM_TEE_CLIENT_WORKER_PROCESS_H
#define PLATFORM_TEE_CLIENT_WORKER_PROCESS_H

#include <sys/types.h>

#include <memory>
#include <mutex>

#include "channel.h"

// WorkerProcess may be used from several threads. Its end, and the end of the client, end the
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

  bool IsAlive();
  // Kill ends the worker at once and leaves no zombie. A worker that is dead already is reaped.
  void Kill();
  // Connect makes the channel of a new session.
  bool Connect(Channel* session) const;

 private:
  const pid_t pid_;
  const FileDescriptor process_;
  Channel control_;
  std::mutex mutex_;
  bool reaped_ = false;
};

#endif  // PLATFORM_TEE_CLIENT_WORKER_PROCESS_H
