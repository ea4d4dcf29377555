#include "platform/tee_client/remote_session.h"

#include <algorithm>
#include <cstdlib>

namespace {

int LimitMs() {
  constexpr long kDefault = 120000;
  constexpr long kMax = 24L * 3600 * 1000;
  const char* text = getenv("TEE_TIMEOUT_MS");
  const long limit = text == nullptr ? 0 : strtol(text, nullptr, 10);
  return static_cast<int>(limit <= 0 ? kDefault : std::min(limit, kMax));
}

// Sizes come as the worker says; the parameters check them before the caller sees them.
void ReadReply(const WorkerReply& reply, CommandParameters* parameters) {
  for (uint32_t i = 0; i < CommandParameters::kCount; ++i) {
    TaParam& param = parameters->ta_params()[i];
    if (!IsOutput(parameters->TypeOf(i))) continue;
    if (IsMemoryReference(parameters->TypeOf(i))) {
      param.size = reply.params[i].tmpref.size;
    } else {
      param.a = reply.params[i].value.a;
      param.b = reply.params[i].value.b;
    }
  }
}

}  // namespace

CommandMemory* RemoteSession::Memory() {
  if (connection_ == nullptr) connection_ = worker_->Connect();
  if (connection_ != nullptr) return &connection_->memory;
  worker_->Kill();
  return nullptr;
}

bool RemoteSession::Send(const WorkerRequest& request) {
  CommandMemory& memory = connection_->memory;
  const bool is_sent =
      worker_->IsOurs() && connection_->channel.Send(&request, sizeof(request), memory.fd());
  memory.ForgetFile();
  return is_sent;
}

Reply RemoteSession::Exchange(WorkerRequestKind kind, uint32_t code,
                              CommandParameters* parameters) {
  WorkerRequest request = {kWorkerMagic, kind, code, uuid_, parameters->types(), {}};
  for (uint32_t i = 0; i < CommandParameters::kCount; ++i) {
    if (parameters->TypeOf(i) != TEEC_NONE) request.params[i] = parameters->Given(i);
  }
  PointReferences(request.types, nullptr, request.params);
  WorkerReply reply = {};
  if (!Send(request) || !connection_->AwaitClose(LimitMs()) ||
      !connection_->Receive(&reply, LimitMs())) {
    worker_->Kill();
    return kTargetDead;
  }
  ReadReply(reply, parameters);
  const bool is_origin = reply.origin >= TEEC_ORIGIN_API && reply.origin <= TEEC_ORIGIN_TRUSTED_APP;
  return {reply.result, is_origin ? reply.origin : TEEC_ORIGIN_COMMS};
}

void RemoteSession::Close() {
  connection_->is_closing =
      Send({kWorkerMagic, WorkerRequestKind::kClose, 0, uuid_, TEEC_NONE, {}});
  if (connection_->is_closing) worker_->Release(std::move(connection_));
  connection_ = nullptr;
}
