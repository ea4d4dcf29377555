#include "tee/tee_context.h"

#include <stdio.h>

#include "keymaster_ts.h"
#include "wire/log.h"
#include "wire/malloc_buffer.h"

using namespace km41;

namespace {

TEEC_Context* g_context = nullptr;

void DropContext() {
  TEEC_FinalizeContext(g_context);
  free(g_context);
  g_context = nullptr;
}

}  // namespace

namespace km41 {

TEEC_Context* GlobalTeeContext() { return g_context; }

}  // namespace km41

uint32_t Ts_Initcontext() {
  if (g_context != nullptr) DropContext();
  MallocPtr<TEEC_Context> context = Allocate<TEEC_Context>(1);
  if (context == nullptr) {
    TEE_LOGE("memory allocation failed!\n");
    return TEEC_ERROR_OUT_OF_MEMORY;
  }
  const uint32_t result = TEEC_InitializeContext(nullptr, context.get());
  if (result == TEEC_SUCCESS) {
    g_context = context.release();
  } else {
    TEE_LOGE("Initialize TEE context failed, ret=0x%x\n", result);
  }
  return result;
}

uint32_t Ts_Finishcontext() {
  if (g_context == nullptr) {
    puts("unexpected NULL!");
    return TEEC_ERROR_BAD_PARAMETERS;
  }
  DropContext();
  return TEEC_SUCCESS;
}
