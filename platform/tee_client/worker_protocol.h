// What the client and the worker say to each other.
//
// The client sends one end of a new channel over the control channel for each session. On a
// session's own channel the first request opens the session and every later one invokes a command;
// the client's end of the channel closes the session. A request comes with a memory file that
// holds its memory references in order, unless they are all empty. Neither side believes a size
// that it has not checked.
#ifndef PLATFORM_TEE_CLIENT_WORKER_PROTOCOL_H
#define PLATFORM_TEE_CLIENT_WORKER_PROTOCOL_H

#include "command_parameters.h"
#include "shared_memory.h"

constexpr uint32_t kWorkerMagic = 0x54454531;
// The memory references of a call together.
constexpr uint64_t kMaxSharedSize = 64u << 20;

// In both, a memory reference has a size and no buffer.
struct WorkerRequest {
  uint32_t magic;
  uint32_t code;  // the login method of an open, or the command
  TEEC_UUID uuid;
  uint32_t types;
  TEEC_Parameter params[CommandParameters::kCount];
};

struct WorkerReply {
  uint32_t magic;
  TEEC_Result result;
  uint32_t origin;
  TEEC_Parameter params[CommandParameters::kCount];
};

// Where the memory references of a request lie in its memory file.
struct ReferenceLayout {
  uint64_t offset[CommandParameters::kCount] = {};
  uint64_t total = 0;

  explicit ReferenceLayout(const WorkerRequest& request) {
    constexpr uint64_t kAlignment = 16;
    for (uint32_t i = 0; i < CommandParameters::kCount; ++i) {
      offset[i] = total;
      if (!IsMemoryReference(TEEC_PARAM_TYPE_GET(request.types, i))) continue;
      total += (request.params[i].tmpref.size + kAlignment - 1) / kAlignment * kAlignment;
    }
  }
};

#endif  // PLATFORM_TEE_CLIENT_WORKER_PROTOCOL_H
