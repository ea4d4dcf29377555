// tee-worker: hosts the TAs in a process of its own, for one client. A thread a connection; when
// the client ends, so do they all, whatever they are doing.
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/tee_client/sessions.h"

namespace {

constexpr int kNoLimit = -1;

// A TA's large buffers stay with the process for the next command.
void KeepFreedMemory() {
  constexpr int kKept = 4 << 20;
  mallopt(M_MMAP_THRESHOLD, kKept);
  mallopt(M_TRIM_THRESHOLD, kKept);
}

// ServedConnection has one session at a time.
class ServedConnection {
 public:
  ~ServedConnection() {
    if (session_ != nullptr) session_->Close();
  }

  // Answer runs a request; false ends the channel of a client that keeps no rules.
  bool Answer(const WorkerRequest& request, FileDescriptor file, WorkerReply* answer) {
    const bool is_open = request.kind == WorkerRequestKind::kOpen;
    if (request.magic != kWorkerMagic || request.kind > WorkerRequestKind::kClose ||
        is_open != (session_ == nullptr) || (file.get() >= 0 && !memory_.Attach(std::move(file))) ||
        ReferenceLayout(request.types, request.params).total > memory_.size()) {
      return false;
    }
    // The request as a caller's operation on the shared memory.
    TEEC_Operation operation = {1, request.types, {}, nullptr, 0};
    std::copy(std::begin(request.params), std::end(request.params), operation.params);
    PointReferences(request.types, memory_.data(), operation.params);
    const Reply reply = Run(request, &operation);
    memory_.EndCommand();
    *answer = {kWorkerMagic, reply.result, reply.origin, {}};
    std::copy(std::begin(operation.params), std::end(operation.params), answer->params);
    PointReferences(request.types, nullptr, answer->params);
    return true;
  }

 private:
  Reply Run(const WorkerRequest& request, TEEC_Operation* operation) try {
    CommandParameters parameters;
    const TEEC_Result read = parameters.Read(operation);
    if (read != TEEC_SUCCESS) return {read, TEEC_ORIGIN_TEE};
    switch (request.kind) {
      case WorkerRequestKind::kOpen:
        return Open(request, &parameters, operation);
      case WorkerRequestKind::kInvoke:
        return session_->Invoke(request.code, &parameters, operation);
      default:
        session_->Close();
        session_ = nullptr;
        return {TEEC_SUCCESS, TEEC_ORIGIN_TEE};
    }
  } catch (const std::bad_alloc&) {
    return {TEEC_ERROR_OUT_OF_MEMORY, TEEC_ORIGIN_TEE};
  }

  Reply Open(const WorkerRequest& request, CommandParameters* parameters,
             TEEC_Operation* operation) {
    const TrustedApp* app = FindBuiltInApp(request.uuid);
    if (app == nullptr) return {TEEC_ERROR_ITEM_NOT_FOUND, TEEC_ORIGIN_TEE};
    // Outlives the threads: the process ends without destructors.
    static const auto pool = std::make_shared<MemoryPool>();
    session_ = std::make_unique<Session>(std::make_unique<InlineSession>(*app, pool), 0);
    const Reply reply = session_->Open(request.code, parameters, operation);
    if (reply.result != TEEC_SUCCESS) session_ = nullptr;
    return reply;
  }

  CommandMemory memory_{CommandMemory::Kind::kShared};
  std::unique_ptr<Session> session_;
};

void Serve(const Channel& channel) {
  ServedConnection connection;
  WorkerRequest request = {};
  FileDescriptor file;
  while (channel.Receive(&request, sizeof(request), &file, kNoLimit)) {
    WorkerReply reply = {};
    if (!connection.Answer(request, std::move(file), &reply) ||
        !channel.Send(&reply, sizeof(reply), -1)) {
      break;
    }
  }
}

// The client sees the channel end when no thread can be had for it.
void StartThread(FileDescriptor socket) try {
  std::thread([channel = Channel(std::move(socket))] { Serve(channel); }).detach();
} catch (const std::system_error&) {
}

}  // namespace

int main() {
  // The client plans faults and traces; it does so once.
  unsetenv("TEE_FAULT");
  unsetenv("TEE_TRACE");
  KeepFreedMemory();
  const Channel control{FileDescriptor(STDIN_FILENO)};
  bool served = false;
  char greeting = 0;
  FileDescriptor socket;
  while (control.Receive(&greeting, sizeof(greeting), &socket, kNoLimit)) {
    served = true;
    if (socket.get() >= 0) StartThread(std::exchange(socket, FileDescriptor()));
  }
  if (!served) (void)fprintf(stderr, "tee-worker: to be started by the TEE client library only\n");
  // Threads may be inside a TA: nothing of theirs is torn down under them.
  _exit(served ? 0 : 2);
}
