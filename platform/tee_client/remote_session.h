// A session to a TA in the worker process.
#ifndef PLATFORM_TEE_CLIENT_REMOTE_SESSION_H
#define PLATFORM_TEE_CLIENT_REMOTE_SESSION_H

#include <memory>

#include "platform/tee_client/app_session.h"
#include "platform/tee_client/worker_process.h"

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

#endif  // PLATFORM_TEE_CLIENT_REMOTE_SESSION_H
