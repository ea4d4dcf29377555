// A session to a TA, wherever the TA runs.
#ifndef PLATFORM_TEE_CLIENT_APP_SESSION_H
#define PLATFORM_TEE_CLIENT_APP_SESSION_H

#include <trusted_app.h>

#include <memory>

#include "platform/tee_client/command_memory.h"
#include "platform/tee_client/command_parameters.h"

// What a call is answered with when the TA ended under it.
constexpr Reply kTargetDead = {TEEC_ERROR_TARGET_DEAD, TEEC_ORIGIN_TEE};

// AppSession is called by one thread at a time. Invoke and Close follow an Open that succeeded, and
// nothing follows Close.
class AppSession {
 public:
  virtual ~AppSession() = default;
  // Memory is where the parameters of an open or of a command lie; null when the TA is dead.
  virtual CommandMemory* Memory() = 0;
  virtual Reply Open(uint32_t login, CommandParameters* parameters) = 0;
  virtual Reply Invoke(uint32_t command, CommandParameters* parameters) = 0;
  virtual void Close() = 0;
  // Kill ends the TA as a crash would. Only Close may follow.
  virtual void Kill() = 0;
};

// InlineSession calls a TA in this process. An exception is a TA that crashed.
class InlineSession : public AppSession {
 public:
  InlineSession(const TrustedApp& app, std::shared_ptr<MemoryPool> pool);
  CommandMemory* Memory() override { return memory_.get(); }
  Reply Open(uint32_t login, CommandParameters* parameters) override;
  Reply Invoke(uint32_t command, CommandParameters* parameters) override;
  void Close() override;
  void Kill() override {}

 private:
  const TrustedApp& app_;
  const std::shared_ptr<MemoryPool> pool_;
  std::unique_ptr<CommandMemory> memory_;
  void* ta_session_ = nullptr;
};

#endif  // PLATFORM_TEE_CLIENT_APP_SESSION_H
