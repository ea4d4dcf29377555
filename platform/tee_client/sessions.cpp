#include "platform/tee_client/sessions.h"

#include <chrono>
#include <thread>

#include "platform/tee_client/command_trace.h"
#include "platform/tee_client/fault_plan.h"

namespace {

using Clock = std::chrono::steady_clock;

// ParameterLoan lends a call's parameters their memory while the call runs.
class ParameterLoan {
 public:
  ParameterLoan(AppSession* app, CommandParameters* parameters)
      : app_(app), reply_(app->Reserve(ReferenceLayout(*parameters).total, &memory_)) {
    if (is_lent()) parameters->CopyIn(memory_);
  }
  ~ParameterLoan() {
    if (is_lent()) app_->EndCommand();
  }
  ParameterLoan(const ParameterLoan&) = delete;
  ParameterLoan& operator=(const ParameterLoan&) = delete;

  bool is_lent() const { return reply_.result == TEEC_SUCCESS; }
  // Why there is none.
  Reply reply() const { return reply_; }

 private:
  AppSession* const app_;
  uint8_t* memory_ = nullptr;
  const Reply reply_;
};

}  // namespace

Reply Session::Open(uint32_t login, CommandParameters* parameters, TEEC_Operation* operation) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (state_ != State::kNew) return {TEEC_ERROR_BAD_STATE, TEEC_ORIGIN_API};
  Reply reply = {};
  {
    const ParameterLoan loan(app_.get(), parameters);
    reply = loan.is_lent() ? app_->Open(login, parameters) : loan.reply();
    state_ = reply.result == TEEC_SUCCESS ? State::kOpen : State::kClosed;
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
  const ParameterLoan loan(app_.get(), parameters);
  if (!loan.is_lent()) return loan.reply();
  TraceInputs(command, *parameters);
  const Clock::time_point start = Clock::now();
  Reply reply = state_ == State::kDead ? kTargetDead : CallApp(command, parameters);
  if (reply.result == kTargetDead.result && reply.origin == kTargetDead.origin) {
    state_ = State::kDead;
  }
  reply = parameters->CopyOut(reply, operation);
  if (TraceLevelNow() != TraceLevel::kOff) {
    TraceCommand(command, *parameters, reply,
                 std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start));
  }
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

namespace {

// The entry of a handle; null for a handle that stands for none.
template <typename Entry>
std::shared_ptr<Entry> FindIn(const std::map<Handle, std::shared_ptr<Entry>>& entries,
                              Handle handle) {
  const auto found = entries.find(handle);
  return found == entries.end() ? nullptr : found->second;
}

}  // namespace

Handle SessionTable::AddContext() {
  std::shared_ptr<AppHost> host = AppHost::Get();
  const std::lock_guard<std::mutex> lock(mutex_);
  contexts_.emplace(++last_handle_, std::move(host));
  return last_handle_;
}

TakenContext SessionTable::TakeContext(Handle context) {
  const std::lock_guard<std::mutex> lock(mutex_);
  TakenContext taken;
  taken.sessions.reserve(sessions_.size());
  const auto entry = contexts_.extract(context);
  if (entry.empty()) return taken;
  taken.host = entry.mapped();
  for (const auto& [handle, session] : sessions_) {
    if (session->context() == context) taken.sessions.push_back(session);
  }
  for (auto at = sessions_.begin(); at != sessions_.end();) {
    at = at->second->context() == context ? sessions_.erase(at) : std::next(at);
  }
  return taken;
}

std::shared_ptr<AppHost> SessionTable::FindHost(Handle context) {
  const std::lock_guard<std::mutex> lock(mutex_);
  return FindIn(contexts_, context);
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
  return FindIn(sessions_, session);
}

std::shared_ptr<Session> SessionTable::TakeSession(Handle session) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto entry = sessions_.extract(session);
  return entry.empty() ? nullptr : entry.mapped();
}
