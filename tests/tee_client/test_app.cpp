#include "tests/tee_client/test_app.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <stdexcept>

#include "platform/tee_client/sessions.h"

namespace {

// A session is a heap block, so that one that is not closed is a leak.
TEEC_Result Open(uint32_t, uint32_t, TaParam* params, void** session) {
  if (params[1].a != 0) return params[1].a;
  *session = new std::atomic<int>(0);
  return TEEC_SUCCESS;
}

void Close(void* session) { delete static_cast<std::atomic<int>*>(session); }

TEEC_Result Echo(TaParam* from, TaParam* to) {
  const uint32_t room = to->size;
  if (std::count(to->buffer, to->buffer + room, 0) != room) return TEEC_ERROR_SECURITY;
  std::memset(to->buffer, 0x33, room);
  if (room < from->size) return TEEC_ERROR_GENERIC;
  std::memcpy(to->buffer, from->buffer, from->size);
  std::memset(from->buffer, 0x33, from->size);
  to->size = from->size;
  return TEEC_SUCCESS;
}

TEEC_Result Pass(TaParam params[4]) {
  TaParam& memory = params[0];
  const auto full = std::count(memory.buffer, memory.buffer + memory.size, params[1].a);
  if (full != memory.size) return TEEC_ERROR_SECURITY;
  std::fill_n(memory.buffer, memory.size, uint8_t{0x22});
  memory.size = params[1].b;
  return params[2].a;
}

TEEC_Result Serve(uint32_t command, TaParam params[4]) {
  switch (command) {
    case kFill:
      usleep(20);  // so that calls that need not take turns overlap
      if (params[0].size >= 5) std::memset(params[0].buffer, 0x22, 5);
      params[0].size = 5;
      return TEEC_SUCCESS;
    case kEcho:
      return Echo(&params[0], &params[1]);
    case kPass:
      return Pass(params);
    case kThrow:
      throw std::runtime_error("thrown by the TA");
    case kHang:
      while (true) {
        pause();
      }
    default:
      return TEEC_ERROR_NOT_SUPPORTED;
  }
}

TEEC_Result Invoke(void* session, uint32_t command, uint32_t, TaParam params[4]) {
  auto* const calls = static_cast<std::atomic<int>*>(session);
  if (++*calls != 1) return TEEC_ERROR_BUSY;
  const TEEC_Result result = Serve(command, params);
  --*calls;
  return result;
}

const TrustedApp kApp = {kTestApp, Open, Close, Invoke};

}  // namespace

const TrustedApp* FindBuiltInApp(const TEEC_UUID& uuid) {
  return std::memcmp(&uuid, &kTestApp, sizeof(uuid)) == 0 ? &kApp : nullptr;
}
