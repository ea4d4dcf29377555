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

void Describe(const CommandParameters& parameters, WorkerRequest* request) {
  request->types = parameters.types();
  for (uint32_t i = 0; i < CommandParameters::kCount; ++i) {
    if (parameters.TypeOf(i) != TEEC_NONE) request->params[i] = parameters.Given(i);
    if (IsMemoryReference(parameters.TypeOf(i))) request->params[i].tmpref.buffer = nullptr;
  }
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

Reply RemoteSession::Reserve(uint64_t size, uint8_t** memory) {
  if (connection_ == nullptr) connection_ = worker_->Connect();
  if (connection_ == nullptr) {
    worker_->Kill();
    return kTargetDead;
  }
  if (size > kMaxSharedSize || !connection_->memory.Reserve(size)) {
    return {TEEC_ERROR_OUT_OF_MEMORY, TEEC_ORIGIN_COMMS};
  }
  *memory = connection_->memory.data();
  return {TEEC_SUCCESS, TEEC_ORIGIN_COMMS};
}

void RemoteSession::EndCommand() { connection_->memory.EndCommand(); }

WorkerRequest RemoteSession::Request(WorkerRequestKind kind, uint32_t code) const {
  return {kWorkerMagic, kind, code, uuid_, TEEC_NONE, {}};
}

bool RemoteSession::Ask(const WorkerRequest& request, WorkerReply* reply) {
  FileDescriptor none;
  const bool is_answered = Send(request) && connection_->AwaitClose(LimitMs()) &&
                           connection_->channel.Receive(reply, sizeof(*reply), &none, LimitMs()) &&
                           reply->magic == kWorkerMagic;
  if (!is_answered) worker_->Kill();
  return is_answered;
}

bool RemoteSession::Send(const WorkerRequest& request) {
  CommandMemory& memory = connection_->memory;
  const bool is_sent =
      worker_->IsOurs() && connection_->channel.Send(&request, sizeof(request), memory.fd());
  memory.ForgetFile();
  return is_sent;
}

Reply RemoteSession::Exchange(WorkerRequest request, CommandParameters* parameters) {
  Describe(*parameters, &request);
  WorkerReply reply = {};
  if (!Ask(request, &reply)) return kTargetDead;
  ReadReply(reply, parameters);
  const bool is_origin = reply.origin >= TEEC_ORIGIN_API && reply.origin <= TEEC_ORIGIN_TRUSTED_APP;
  return {reply.result, is_origin ? reply.origin : TEEC_ORIGIN_COMMS};
}

Reply RemoteSession::Open(uint32_t login, CommandParameters* parameters) {
  return Exchange(Request(WorkerRequestKind::kOpen, login), parameters);
}

Reply RemoteSession::Invoke(uint32_t command, CommandParameters* parameters) {
  return Exchange(Request(WorkerRequestKind::kInvoke, command), parameters);
}

void RemoteSession::Close() {
  connection_->is_closing = Send(Request(WorkerRequestKind::kClose, 0));
  if (connection_->is_closing) worker_->Release(std::move(connection_));
  connection_ = nullptr;
}
