#include "remote_session.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "worker_protocol.h"

namespace {

int LimitMs() {
  constexpr long kDefault = 120000;
  constexpr long kMax = 24L * 3600 * 1000;
  const char* text = getenv("TEE_TIMEOUT_MS");
  const long limit = text == nullptr ? 0 : strtol(text, nullptr, 10);
  return static_cast<int>(limit <= 0 ? kDefault : std::min(limit, kMax));
}

WorkerRequest RequestOf(uint32_t code, const TEEC_UUID& uuid, const CommandParameters& parameters) {
  WorkerRequest request = {kWorkerMagic, code, uuid, parameters.types(), {}};
  for (uint32_t i = 0; i < CommandParameters::kCount; ++i) {
    if (parameters.TypeOf(i) != TEEC_NONE) request.params[i] = parameters.Given(i);
    if (IsMemoryReference(parameters.TypeOf(i))) request.params[i].tmpref.buffer = nullptr;
  }
  return request;
}

void CopyReferences(const CommandParameters& parameters, const ReferenceLayout& layout,
                    const SharedMemory& memory) {
  for (uint32_t i = 0; i < CommandParameters::kCount; ++i) {
    const TaParam& param = parameters.ta_params()[i];
    if (IsMemoryReference(parameters.TypeOf(i)) && param.size != 0) {
      std::memcpy(memory.data() + layout.offset[i], param.buffer, param.size);
    }
  }
}

// Sizes come as the worker says; the parameters check them before the caller sees them.
void TakeReply(const WorkerReply& reply, const ReferenceLayout& layout, const SharedMemory& memory,
               CommandParameters* parameters) {
  for (uint32_t i = 0; i < CommandParameters::kCount; ++i) {
    if (!IsOutput(parameters->TypeOf(i))) continue;
    TaParam& param = parameters->ta_params()[i];
    param.a = reply.params[i].value.a;
    param.b = reply.params[i].value.b;
    if (!IsMemoryReference(parameters->TypeOf(i))) continue;
    param.size = reply.params[i].tmpref.size;
    const uint32_t fits = std::min(param.size, parameters->CapacityOf(i));
    if (fits != 0) std::memcpy(param.buffer, memory.data() + layout.offset[i], fits);
  }
}

}  // namespace

Reply RemoteSession::Exchange(uint32_t code, CommandParameters* parameters) {
  const WorkerRequest request = RequestOf(code, uuid_, *parameters);
  const ReferenceLayout layout(request);
  SharedMemory memory;
  if (layout.total > kMaxSharedSize || (layout.total != 0 && !memory.Create(layout.total))) {
    return {TEEC_ERROR_OUT_OF_MEMORY, TEEC_ORIGIN_COMMS};
  }
  CopyReferences(*parameters, layout, memory);
  WorkerReply reply = {};
  FileDescriptor none;
  if (!channel_.Send(&request, sizeof(request), memory.fd()) ||
      !channel_.Receive(&reply, sizeof(reply), &none, LimitMs()) || reply.magic != kWorkerMagic) {
    worker_->Kill();
    return kTargetDead;
  }
  TakeReply(reply, layout, memory, parameters);
  const bool is_origin = reply.origin >= TEEC_ORIGIN_API && reply.origin <= TEEC_ORIGIN_TRUSTED_APP;
  return {reply.result, is_origin ? reply.origin : TEEC_ORIGIN_COMMS};
}

Reply RemoteSession::Open(uint32_t login, CommandParameters* parameters) {
  if (!worker_->Connect(&channel_)) {
    worker_->Kill();
    return kTargetDead;
  }
  return Exchange(login, parameters);
}

Reply RemoteSession::Invoke(uint32_t command, CommandParameters* parameters) {
  return Exchange(command, parameters);
}

void RemoteSession::Close() {
  if (!channel_.EndAndWait(LimitMs())) worker_->Kill();
  channel_ = Channel();
}
