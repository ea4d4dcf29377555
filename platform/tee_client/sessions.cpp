#include "sessions.h"

#include "fault_plan.h"

template <typename Call>
Reply Session::CallApp(Call call) {
  try {
    return {call(), TEEC_ORIGIN_TRUSTED_APP};
  } catch (...) {
    state_ = State::kDead;
    return {TEEC_ERROR_TARGET_DEAD, TEEC_ORIGIN_TEE};
  }
}

Reply Session::Open(uint32_t login, CommandParameters* parameters, TEEC_Operation* operation) {
  const std::lock_guard<std::mutex> lock(mutex_);
  Reply reply = CallApp([&] {
    return app_.open_session(login, parameters->types(), parameters->ta_params(), &ta_session_);
  });
  state_ = reply.result == TEEC_SUCCESS ? State::kOpen : State::kClosed;
  reply = parameters->CopyOut(reply, operation);
  if (reply.result != TEEC_SUCCESS) CloseLocked();
  return reply;
}

Reply Session::Invoke(uint32_t command, CommandParameters* parameters) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (state_ == State::kDead) return {TEEC_ERROR_TARGET_DEAD, TEEC_ORIGIN_TEE};
  if (state_ == State::kClosed) return {TEEC_ERROR_BAD_STATE, TEEC_ORIGIN_API};
  TEEC_Result fault = TEEC_SUCCESS;
  if (TakePlannedFault(command, &fault)) return {fault, TEEC_ORIGIN_TRUSTED_APP};
  return CallApp([&] {
    return app_.invoke(ta_session_, command, parameters->types(), parameters->ta_params());
  });
}

void Session::Close() {
  const std::lock_guard<std::mutex> lock(mutex_);
  CloseLocked();
}

void Session::CloseLocked() {
  if (state_ != State::kClosed) {
    CallApp([&] {
      app_.close_session(ta_session_);
      return TEEC_SUCCESS;
    });
  }
  state_ = State::kClosed;
}

Handle SessionTable::AddContext() {
  const std::lock_guard<std::mutex> lock(mutex_);
  contexts_.insert(++last_handle_);
  return last_handle_;
}

std::vector<std::shared_ptr<Session>> SessionTable::TakeContext(Handle context) {
  const std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::shared_ptr<Session>> taken;
  taken.reserve(sessions_.size());
  contexts_.erase(context);
  for (auto entry = sessions_.begin(); entry != sessions_.end();) {
    if (entry->second->context() != context) {
      ++entry;
      continue;
    }
    taken.push_back(entry->second);
    entry = sessions_.erase(entry);
  }
  return taken;
}

Handle SessionTable::AddSession(const std::shared_ptr<Session>& session) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (contexts_.count(session->context()) == 0) return 0;
  sessions_.emplace(++last_handle_, session);
  return last_handle_;
}

std::shared_ptr<Session> SessionTable::FindSession(Handle session) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = sessions_.find(session);
  return found == sessions_.end() ? nullptr : found->second;
}

std::shared_ptr<Session> SessionTable::TakeSession(Handle session) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = sessions_.find(session);
  if (found == sessions_.end()) return nullptr;
  std::shared_ptr<Session> taken = found->second;
  sessions_.erase(found);
  return taken;
}
