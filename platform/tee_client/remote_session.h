// A session to a TA in the worker process.
#ifndef PLATFORM_TEE_CLIENT_REMOTE_SESSION_H
#define PLATFORM_TEE_CLIENT_REMOTE_SESSION_H

#include <memory>

#include "app_session.h"
#include "worker_process.h"

// RemoteSession kills a worker that breaks off, answers something else, or does not answer within
// TEE_TIMEOUT_MS milliseconds (two minutes unless set): the TA is dead then.
class RemoteSession : public AppSession {
 public:
  RemoteSession(std::shared_ptr<WorkerProcess> worker, const TEEC_UUID& uuid)
      : worker_(std::move(worker)), uuid_(uuid) {}
  Reply Open(uint32_t login, CommandParameters* parameters) override;
  Reply Invoke(uint32_t command, CommandParameters* parameters) override;
  void Close() override;
  void Kill() override { worker_->Kill(); }

 private:
  Reply Exchange(uint32_t code, CommandParameters* parameters);

  const std::shared_ptr<WorkerProcess> worker_;
  const TEEC_UUID uuid_;
  Channel channel_;
};

#endif  // PLATFORM_TEE_CLIENT_REMOTE_SESSION_H
