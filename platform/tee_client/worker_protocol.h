// What the client and the worker say to each other.
//
// The client sends one end of a new channel over the control channel for each session that finds no
// idle connection. On the channel of a connection one session follows the other: a request opens
// the session, more of them invoke commands, the last one closes it, and each is answered; the next
// session's first request need not wait for the answer to the closing of the one before. The
// memory references of a request lie in shared memory, in order; the file of that comes with the
// first request that uses it. Neither side believes a size that it has not checked.
#ifndef PLATFORM_TEE_CLIENT_WORKER_PROTOCOL_H
#define PLATFORM_TEE_CLIENT_WORKER_PROTOCOL_H

#include "platform/tee_client/command_parameters.h"

constexpr uint32_t kWorkerMagic = 0x54454532;

enum class WorkerRequestKind : uint32_t { kOpen = 1, kInvoke, kClose };

// In both, a memory reference has a size and no buffer.
struct WorkerRequest {
  uint32_t magic;
  WorkerRequestKind kind;
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

#endif  // PLATFORM_TEE_CLIENT_WORKER_PROTOCOL_H
