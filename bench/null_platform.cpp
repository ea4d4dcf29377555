#include "null_platform.h"

#include <android/log.h>
#include <securec.h>
#include <string.h>
#include <tee_client_api.h>
#include <zubrel.h>

#include <algorithm>

namespace bench {

Update g_update = Update::kReport;

namespace {

constexpr uint32_t kUpdate = 9;
constexpr uint32_t kCommands = 80;
Bytes g_replies[kCommands][4];

bool IsOutput(uint32_t types, unsigned index) {
  return TEEC_PARAM_TYPE_GET(types, index) >= TEEC_MEMREF_TEMP_OUTPUT;
}

void Reply(const Bytes& bytes, TEEC_TempMemoryReference* ref) {
  ref->size = std::min(ref->size, static_cast<uint32_t>(bytes.size()));
  if (ref->size != 0) memcpy(ref->buffer, bytes.data(), ref->size);
}

}  // namespace

void SetReply(uint32_t command, unsigned index, Bytes bytes) {
  g_replies[command][index] = std::move(bytes);
}

uint64_t& BytesMoved() {
  static thread_local uint64_t moved = 0;
  return moved;
}

}  // namespace bench

extern "C" {

TEEC_Result TEEC_InitializeContext(const char*, TEEC_Context*) { return TEEC_SUCCESS; }
void TEEC_FinalizeContext(TEEC_Context*) {}
TEEC_Result TEEC_OpenSession(TEEC_Context*, TEEC_Session*, const TEEC_UUID*, uint32_t, const void*,
                             TEEC_Operation*, uint32_t*) {
  return TEEC_SUCCESS;
}
void TEEC_CloseSession(TEEC_Session*) {}

TEEC_Result TEEC_InvokeCommand(TEEC_Session*, uint32_t command, TEEC_Operation* operation,
                               uint32_t*) {
  for (unsigned i = 0; i < 4; ++i) {
    if (bench::IsOutput(operation->paramTypes, i)) {
      bench::Reply(bench::g_replies[command][i], &operation->params[i].tmpref);
    }
  }
  if (command == bench::kUpdate) {
    const TEEC_TempMemoryReference& input = operation->params[1].tmpref;
    operation->params[3].tmpref.size = input.size;
    if (bench::g_update == bench::Update::kCopy) {
      memcpy(operation->params[3].tmpref.buffer, input.buffer, input.size);
    }
  }
  return TEEC_SUCCESS;
}

int __android_log_print(int, const char*, const char*, ...) { return 0; }

int zubrel_init(void) { return 0; }
int __zubrel_start_ex(const char*, unsigned, void (*)(void*), void*, unsigned) { return 1; }
int zubrel_end(int) { return 0; }

int memcpy_s(void* dest, size_t dest_max, const void* src, size_t count) {
  if (dest == nullptr || src == nullptr || count > dest_max) return 1;
  bench::BytesMoved() += count;
  memcpy(dest, src, count);
  return 0;
}

}  // extern "C"
