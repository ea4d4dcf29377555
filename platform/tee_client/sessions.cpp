#include "platform/tee_client/sessions.h"

#include <chrono>
#include <thread>

#include "platform/tee_client/command_trace.h"
#include "platform/tee_client/environment.h"
#include "platform/tee_client/fault_plan.h"

namespace {

template <typename Call>
Reply CallApp(Call call) {
  try {
    return {call(), TEEC_ORIGIN_TRUSTED_APP};
  } catch (...) {
    return kTargetDead;
  }
}

}  // namespace

InlineSession::InlineSession(const TrustedApp& app, std::shared_ptr<MemoryPool> pool)
    : app_(app), pool_(std::move(pool)), memory_(pool_->Take()) {
  if (memory_ == nullptr) memory_ = std::make_unique<CommandMemory>(CommandMemory::Kind::kPrivate);
}

Reply InlineSession::Open(uint32_t login, CommandParameters* parameters) {
  return CallApp([&] {
    return app_.open_session(login, parameters->types(), parameters->ta_params(), &ta_session_);
  });
}

Reply InlineSession::Invoke(uint32_t command, CommandParameters* parameters) {
  return CallApp([&] {
    return app_.invoke(ta_session_, command, parameters->types(), parameters->ta_params());
  });
}

void InlineSession::Close() {
  CallApp([&] {
    app_.close_session(ta_session_);
    return TEEC_SUCCESS;
  });
  pool_->Give(std::move(memory_));
}

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
  const std::string where = VariableText("TEE_HOST");
  if (where == "process") {
    const std::shared_ptr<WorkerProcess> worker = LiveWorker();
    if (worker == nullptr) return {TEEC_ERROR_COMMUNICATION, TEEC_ORIGIN_COMMS};
    *session = std::make_unique<RemoteSession>(worker, uuid);
  } else if (where.empty() || where == "caller") {
    const TrustedApp* app = FindBuiltInApp(uuid);
    if (app == nullptr) return {TEEC_ERROR_ITEM_NOT_FOUND, TEEC_ORIGIN_TEE};
    *session = std::make_unique<InlineSession>(*app, pool_);
  } else {
    RejectWord("TEE_HOST", where, "process, caller");
  }
  return {TEEC_SUCCESS, TEEC_ORIGIN_TEE};
}

Session::LentMemory Session::Lend(CommandParameters* parameters, Reply* reply) {
  LentMemory memory(app_->Memory());
  if (memory == nullptr) {
    *reply = kTargetDead;
  } else if (!memory->Reserve(ReferenceLayout(*parameters).total)) {
    *reply = {TEEC_ERROR_OUT_OF_MEMORY, TEEC_ORIGIN_COMMS};
    memory = nullptr;
  } else {
    parameters->CopyIn(memory->data());
  }
  return memory;
}

Reply Session::Open(uint32_t login, CommandParameters* parameters, TEEC_Operation* operation) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (state_ != State::kNew) return {TEEC_ERROR_BAD_STATE, TEEC_ORIGIN_API};
  state_ = State::kClosed;
  Reply reply = {};
  if (const LentMemory memory = Lend(parameters, &reply); memory != nullptr) {
    reply = app_->Open(login, parameters);
    if (reply.result == TEEC_SUCCESS) state_ = State::kOpen;
    reply = parameters->CopyOut(reply, operation);
  }
  if (reply.result != TEEC_SUCCESS) CloseLocked();
  return reply;
}

Reply Session::CallApp(uint32_t command, CommandParameters* parameters) {
  PlannedFault fault;
  if (!TakePlannedFault(command, &fault)) return app_->Invoke(command, parameters);
  Reply reply = kTargetDead;
  if (fault.crash) {
    app_->Kill();
  } else if (!AnswerInstead(fault, parameters, &reply)) {
    reply = app_->Invoke(command, parameters);
    BendLength(fault, reply, parameters);
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(fault.delay_ms));
  return reply;
}

Reply Session::Invoke(uint32_t command, CommandParameters* parameters, TEEC_Operation* operation) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (state_ != State::kOpen && state_ != State::kDead) {
    return {TEEC_ERROR_BAD_STATE, TEEC_ORIGIN_API};
  }
  Reply reply = {};
  const LentMemory memory = Lend(parameters, &reply);
  if (memory == nullptr) return reply;
  TraceInputs(command, *parameters);
  const auto start = std::chrono::steady_clock::now();
  reply = state_ == State::kDead ? kTargetDead : CallApp(command, parameters);
  if (reply.result == kTargetDead.result && reply.origin == kTargetDead.origin) {
    state_ = State::kDead;
  }
  reply = parameters->CopyOut(reply, operation);
  TraceCommand(command, *parameters, reply, start);
  return reply;
}

void Session::Close() {
  const std::lock_guard<std::mutex> lock(mutex_);
  CloseLocked();
}

void Session::CloseLocked() {
  if (state_ == State::kOpen || state_ == State::kDead) app_->Close();
  state_ = State::kClosed;
}

Handle SessionTable::AddContext() {
  std::shared_ptr<AppHost> host = AppHost::Get();
  const std::lock_guard<std::mutex> lock(mutex_);
  contexts_.emplace(++last_handle_, std::move(host));
  return last_handle_;
}

std::vector<std::shared_ptr<Session>> SessionTable::TakeContext(Handle context) {
  std::shared_ptr<AppHost> host;  // which may end with its last context, but not under the lock
  const std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::shared_ptr<Session>> taken;
  taken.reserve(sessions_.size());
  if (const auto entry = contexts_.extract(context); !entry.empty()) host = entry.mapped();
  for (auto at = sessions_.begin(); at != sessions_.end();) {
    const bool is_of_context = at->second->context() == context;
    if (is_of_context) taken.push_back(at->second);
    at = is_of_context ? sessions_.erase(at) : std::next(at);
  }
  return taken;
}

std::shared_ptr<AppHost> SessionTable::FindHost(Handle context) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = contexts_.find(context);
  return found == contexts_.end() ? nullptr : found->second;
}

Reply SessionTable::AddSession(const std::shared_ptr<Session>& session, Handle* handle) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (contexts_.count(session->context()) == 0) return {TEEC_ERROR_BAD_STATE, TEEC_ORIGIN_API};
  if (sessions_.size() >= kMaxSessions) return {TEEC_ERROR_BUSY, TEEC_ORIGIN_TEE};
  sessions_.emplace(++last_handle_, session);
  *handle = last_handle_;
  return {TEEC_SUCCESS, TEEC_ORIGIN_TEE};
}

std::shared_ptr<Session> SessionTable::FindSession(Handle session) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = sessions_.find(session);
  return found == sessions_.end() ? nullptr : found->second;
}

std::shared_ptr<Session> SessionTable::TakeSession(Handle session) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto entry = sessions_.extract(session);
  return entry.empty() ? nullptr : entry.mapped();
}
