#include "tests/tee_process/failing_app.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/tee_client/built_in_apps.h"

namespace {

TEEC_Result Open(uint32_t, uint32_t, TaParam*, void**) { return TEEC_SUCCESS; }
std::atomic<bool> g_notes_close{false};

void Close(void*) {
  if (g_notes_close) {
    usleep(50000);
    close(creat((std::string(getenv("KEYMASTER_TA_STATE")) + "/closed").c_str(), 0600));
  }
}

TEEC_Result Meet(uint32_t expected) {
  static std::atomic<uint32_t> here{0};
  ++here;
  for (int wait = 0; here < expected && wait < 10000; ++wait) {
    usleep(1000);
  }
  return here < expected ? TEEC_ERROR_BUSY : TEEC_SUCCESS;
}

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

TEEC_Result Invoke(void*, uint32_t command, uint32_t, TaParam params[4]) {
  if (command == kAbort) abort();
  while (command == kHang) {
    pause();
  }
  if (command == kMeet) return Meet(params[1].a);
  if (command == kEcho) return Echo(&params[0], &params[1]);
  if (command == kNoteClose) {
    g_notes_close = true;
    return TEEC_SUCCESS;
  }
  if (command != kFill) return TEEC_ERROR_NOT_SUPPORTED;
  if (params[0].size >= 5) std::memset(params[0].buffer, 0x22, 5);
  params[0].size = 5;
  return TEEC_SUCCESS;
}

const TrustedApp kApp = {kFailingApp, Open, Close, Invoke};

}  // namespace

const TrustedApp* FindBuiltInApp(const TEEC_UUID& uuid) {
  return std::memcmp(&uuid, &kFailingApp, sizeof(uuid)) == 0 ? &kApp : nullptr;
}
