// tee-worker: hosts the TAs in a process of its own, for one client. A thread a session; when the
// client ends, so do they all, whatever they are doing.
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <system_error>
#include <thread>

#include "built_in_apps.h"
#include "sessions.h"
#include "worker_protocol.h"

namespace {

constexpr int kNoLimit = -1;
// Above what the client allows itself: a thread may outlast the session it served for a moment.
constexpr int kMaxThreads = 2 * static_cast<int>(SessionTable::kMaxSessions);
std::atomic<int> g_threads{0};

// The request as a caller's operation on the shared memory.
TEEC_Operation OperationOn(const WorkerRequest& request, const ReferenceLayout& layout,
                           const SharedMemory& memory) {
  TEEC_Operation operation = {};
  operation.started = 1;
  operation.paramTypes = request.types;
  for (uint32_t i = 0; i < CommandParameters::kCount; ++i) {
    TEEC_TempMemoryReference& reference = operation.params[i].tmpref;
    operation.params[i] = request.params[i];
    if (!IsMemoryReference(TEEC_PARAM_TYPE_GET(request.types, i))) continue;
    reference.buffer = reference.size == 0 ? nullptr : memory.data() + layout.offset[i];
  }
  return operation;
}

class ServedSession {
 public:
  ~ServedSession() {
    if (session_ != nullptr) session_->Close();
  }

  // Answer runs a request; false ends the channel of a client that keeps no rules.
  bool Answer(const WorkerRequest& request, FileDescriptor file, WorkerReply* answer) {
    const ReferenceLayout layout(request);
    SharedMemory memory;
    if (request.magic != kWorkerMagic || layout.total > kMaxSharedSize) return false;
    if (layout.total != 0 && !memory.Attach(std::move(file), layout.total)) return false;
    TEEC_Operation operation = OperationOn(request, layout, memory);
    const Reply reply = Run(request, &operation);
    *answer = {kWorkerMagic, reply.result, reply.origin, {}};
    for (uint32_t i = 0; i < CommandParameters::kCount; ++i) {
      answer->params[i] = operation.params[i];
      if (IsMemoryReference(TEEC_PARAM_TYPE_GET(request.types, i))) {
        answer->params[i].tmpref.buffer = nullptr;
      }
    }
    return true;
  }

 private:
  Reply Run(const WorkerRequest& request, TEEC_Operation* operation) try {
    CommandParameters parameters;
    const TEEC_Result copied = parameters.CopyIn(operation);
    if (copied != TEEC_SUCCESS) return {copied, TEEC_ORIGIN_TEE};
    if (session_ != nullptr) {
      return parameters.CopyOut(session_->Invoke(request.code, &parameters), operation);
    }
    const TrustedApp* app = FindBuiltInApp(request.uuid);
    if (app == nullptr) return {TEEC_ERROR_ITEM_NOT_FOUND, TEEC_ORIGIN_TEE};
    session_ = std::make_unique<Session>(std::make_unique<InlineSession>(*app), 0);
    return session_->Open(request.code, &parameters, operation);
  } catch (const std::bad_alloc&) {
    return {TEEC_ERROR_OUT_OF_MEMORY, TEEC_ORIGIN_TEE};
  }

  std::unique_ptr<Session> session_;
};

void Serve(const Channel& channel) {
  ServedSession session;
  WorkerRequest request = {};
  FileDescriptor file;
  while (channel.Receive(&request, sizeof(request), &file, kNoLimit)) {
    WorkerReply reply = {};
    if (!session.Answer(request, std::move(file), &reply) ||
        !channel.Send(&reply, sizeof(reply), -1)) {
      break;
    }
  }
}

// The client sees the channel end when no thread can be had for it.
void StartThread(FileDescriptor socket) try {
  ++g_threads;
  std::thread([channel = Channel(std::move(socket))] {
    Serve(channel);
    --g_threads;
  }).detach();
} catch (const std::system_error&) {
  --g_threads;
}

}  // namespace

int main() {
  // The client plans faults and traces; it does so once.
  unsetenv("TEE_FAULT");
  unsetenv("TEE_TRACE");
  const Channel control{FileDescriptor(STDIN_FILENO)};
  bool served = false;
  char greeting = 0;
  FileDescriptor socket;
  while (control.Receive(&greeting, sizeof(greeting), &socket, kNoLimit)) {
    served = true;
    if (socket.get() >= 0 && g_threads < kMaxThreads) StartThread(std::move(socket));
    socket.Reset();
  }
  if (!served) (void)fprintf(stderr, "tee-worker: to be started by the TEE client library only\n");
  // Threads may be inside a TA: nothing of theirs is torn down under them.
  _exit(served ? 0 : 2);
}
