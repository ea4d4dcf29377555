#include "failing_app.h"

#include <built_in_apps.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

namespace {

TEEC_Result Open(uint32_t, uint32_t, TaParam*, void**) { return TEEC_SUCCESS; }
void Close(void*) {}

TEEC_Result Meet(uint32_t expected) {
  static std::atomic<uint32_t> here{0};
  ++here;
  for (int wait = 0; here < expected && wait < 10000; ++wait) usleep(1000);
  return here < expected ? TEEC_ERROR_BUSY : TEEC_SUCCESS;
}

TEEC_Result Invoke(void*, uint32_t command, uint32_t, TaParam params[4]) {
  if (command == kAbort) abort();
  while (command == kHang) pause();
  if (command == kMeet) return Meet(params[1].a);
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
