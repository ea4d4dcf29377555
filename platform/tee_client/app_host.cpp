#include "platform/tee_client/app_host.h"

#include "platform/tee_client/built_in_apps.h"
#include "platform/tee_client/environment.h"
#include "platform/tee_client/remote_session.h"

namespace {

bool HasWorker() {
  const std::string host = VariableText("TEE_HOST");
  if (!host.empty() && host != "process" && host != "caller") {
    RejectWord("TEE_HOST", host, "process, caller");
  }
  return host == "process";
}

}  // namespace

std::shared_ptr<AppHost> AppHost::Get() {
  static std::mutex mutex;
  static auto* const alive = new std::weak_ptr<AppHost>;  // outlives callers in destructors at exit
  const std::lock_guard<std::mutex> lock(mutex);
  std::shared_ptr<AppHost> host = alive->lock();
  if (host == nullptr) *alive = host = std::make_shared<AppHost>();
  return host;
}

std::shared_ptr<WorkerProcess> AppHost::LiveWorker() {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (worker_ == nullptr || !worker_->IsAlive()) worker_ = WorkerProcess::Start();
  return worker_;
}

Reply AppHost::MakeSession(const TEEC_UUID& uuid, std::unique_ptr<AppSession>* session) {
  if (HasWorker()) {
    const std::shared_ptr<WorkerProcess> worker = LiveWorker();
    if (worker == nullptr) return {TEEC_ERROR_COMMUNICATION, TEEC_ORIGIN_COMMS};
    *session = std::make_unique<RemoteSession>(worker, uuid);
  } else {
    const TrustedApp* app = FindBuiltInApp(uuid);
    if (app == nullptr) return {TEEC_ERROR_ITEM_NOT_FOUND, TEEC_ORIGIN_TEE};
    *session = std::make_unique<InlineSession>(*app, pool_);
  }
  return {TEEC_SUCCESS, TEEC_ORIGIN_TEE};
}
