// Where the TAs run: in this process, or in a worker process while TEE_HOST is "process".
#ifndef PLATFORM_TEE_CLIENT_APP_HOST_H
#define PLATFORM_TEE_CLIENT_APP_HOST_H

#include <memory>
#include <mutex>

#include "platform/tee_client/app_session.h"
#include "platform/tee_client/worker_process.h"

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

#endif  // PLATFORM_TEE_CLIENT_APP_HOST_H
