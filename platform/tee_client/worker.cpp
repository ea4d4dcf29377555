#include "platform/tee_client/worker.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/tee_client/command_trace.h"

extern "C" {  // which this header leaves to its user
#include <sys/pidfd.h>
}

namespace {

constexpr int kExitLimitMs = 2000;

std::string WorkerPath() {
  if (const char* named = secure_getenv("TEE_WORKER"); named != nullptr) return named;
  Dl_info self = {};
  if (dladdr(reinterpret_cast<void*>(&WorkerPath), &self) == 0) return "tee-worker";
  const std::string file = self.dli_fname;
  const std::string folder = file.substr(0, file.rfind('/') + 1);
  const std::string beside = folder + "tee-worker";
  return access(beside.c_str(), X_OK) == 0 ? beside : folder + "../bin/tee-worker";
}

// Starts the program with the control channel as standard input, the client's standard error, and
// nothing else of the client: neither its files nor its signal mask, nor the terminal's interrupts
// that are meant for it.
int Spawn(const std::string& path, int control, pid_t* pid) {
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  sigset_t none;
  sigemptyset(&none);
  posix_spawn_file_actions_init(&actions);
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETPGROUP);
  posix_spawn_file_actions_adddup2(&actions, control, STDIN_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
  char name[] = "tee-worker";
  char* const arguments[] = {name, nullptr};
  const int error = posix_spawn(pid, path.c_str(), &actions, &attributes, arguments, environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  return error;
}

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

std::shared_ptr<WorkerProcess> WorkerProcess::Start() {
  const std::string path = WorkerPath();
  FileDescriptor ours, theirs;
  pid_t pid = -1;
  const int error = Channel::MakePair(&ours, &theirs) ? Spawn(path, theirs.get(), &pid) : errno;
  FileDescriptor process(error == 0 ? pidfd_open(pid, 0) : -1);
  if (process.get() < 0) {
    const int reason = error == 0 ? errno : error;
    if (error == 0) {
      kill(pid, SIGKILL);
      (void)TEMP_FAILURE_RETRY(waitpid(pid, nullptr, 0));
    }
    (void)fprintf(stderr, "tee: cannot start %s: %s\n", path.c_str(), strerror(reason));
    return nullptr;
  }
  TraceEvent("worker " + std::to_string(pid) + " started");
  return std::make_shared<WorkerProcess>(pid, std::move(process), Channel(std::move(ours)));
}

WorkerProcess::WorkerProcess(pid_t pid, FileDescriptor process, Channel control)
    : client_(getpid()), pid_(pid), process_(std::move(process)), control_(std::move(control)) {}

bool WorkerConnection::Receive(WorkerReply* reply, int limit_ms) const {
  FileDescriptor none;
  return channel.Receive(reply, sizeof(*reply), &none, limit_ms) && reply->magic == kWorkerMagic;
}

bool WorkerConnection::AwaitClose(int limit_ms) {
  WorkerReply reply = {};
  return !std::exchange(is_closing, false) || Receive(&reply, limit_ms);
}

WorkerProcess::~WorkerProcess() {
  // A TA may have much to do when a session is closed.
  for (auto idle = idle_.Take(); idle != nullptr && IsOurs(); idle = idle_.Take()) {
    if (!idle->AwaitClose(kExitLimitMs)) break;
  }
  control_ = Channel();
  if (IsOurs()) {
    WaitReadable(process_.get(), kExitLimitMs);
    Kill();
  }
}

bool WorkerProcess::IsAlive() {
  if (!IsOurs()) return false;
  if (WaitReadable(process_.get(), 0)) Kill();
  const std::lock_guard<std::mutex> lock(mutex_);
  return !reaped_;
}

void WorkerProcess::Kill() {
  if (!IsOurs()) return;
  const std::lock_guard<std::mutex> lock(mutex_);
  if (reaped_) return;
  reaped_ = true;
  pidfd_send_signal(process_.get(), SIGKILL, nullptr, 0);
  siginfo_t status = {};
  while (waitid(P_PIDFD, static_cast<id_t>(process_.get()), &status, WEXITED) != 0 &&
         errno == EINTR) {
  }
  TraceEvent("worker " + std::to_string(pid_) +
             (status.si_code == CLD_EXITED ? " ended" : " was killed"));
}

std::unique_ptr<WorkerConnection> WorkerProcess::Connect() {
  if (!IsOurs()) return nullptr;
  std::unique_ptr<WorkerConnection> connection = idle_.Take();
  if (connection != nullptr) return connection;
  FileDescriptor ours, theirs;
  const char greeting = 0;
  if (!Channel::MakePair(&ours, &theirs) ||
      !control_.Send(&greeting, sizeof(greeting), theirs.get())) {
    return nullptr;
  }
  connection = std::make_unique<WorkerConnection>();
  connection->channel = Channel(std::move(ours));
  return connection;
}

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
