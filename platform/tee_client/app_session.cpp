#include "platform/tee_client/app_session.h"

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
