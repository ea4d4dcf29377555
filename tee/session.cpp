#include "tee/session.h"

#include <securec.h>
#include <stdlib.h>
#include <string.h>

#include "tee/tee_context.h"
#include "tee/watchdog.h"
#include "wire/log.h"
#include "wire/ta_protocol.h"

namespace km41 {

namespace {

// Opens into a block that the caller owns, and frees if this fails.
uint32_t OpenInto(TEEC_Session* block, uint32_t* first_session) {
  TEEC_UUID uuid;
  memset(&uuid, kKeymasterTaUuidByte, sizeof(uuid));
  TEEC_Operation operation = {};
  if (!ClearOperation(&operation)) {
    return TEEC_ERROR_GENERIC;
  }
  operation.started = 1;
  operation.paramTypes = TEEC_PARAM_TYPES(TEEC_VALUE_OUTPUT, TEEC_VALUE_INPUT,
                                          TEEC_MEMREF_TEMP_INPUT, TEEC_MEMREF_TEMP_INPUT);
  TEE_LOGI("Disable the enhanced crypto!\n");
  operation.params[1].value.a = 0;

  uint32_t return_origin = 0;
  zubrel_init();
  uint32_t result;
  {
    const WatchdogBracket bracket("OpenKmSession");
    result = TEEC_OpenSession(GlobalTeeContext(), block, &uuid, kKeymasterLoginMethod, nullptr,
                              &operation, &return_origin);
  }
  if (result != TEEC_SUCCESS) {
    TEE_LOGE("open km session failed, ret=0x%x, origin=%u", result, return_origin);
    return result;
  }
  *first_session = operation.params[0].value.a;
  return TEEC_SUCCESS;
}

}  // namespace

bool ClearOperation(TEEC_Operation* operation) {
  return memset_s(operation, sizeof(*operation), 0, sizeof(*operation)) == 0;
}

uint32_t OpenKmSession(TEEC_Session** session, uint32_t* first_session) {
  if (session == nullptr || GlobalTeeContext() == nullptr) {
    TEE_LOGE("%s : invalid parameters", kLogFailure);
    return TEEC_ERROR_BAD_PARAMETERS;
  }
  auto* block = static_cast<TEEC_Session*>(malloc(sizeof(TEEC_Session)));
  if (block == nullptr) {
    return TEEC_ERROR_OUT_OF_MEMORY;
  }
  uint32_t flag = 0;
  const uint32_t result = OpenInto(block, &flag);
  if (result != TEEC_SUCCESS) {
    free(block);
    return result;
  }
  *session = block;
  if (first_session != nullptr) {
    *first_session = flag;
    if (flag == kFirstSession) {
      TEE_LOGI("open first km session");
    }
  }
  return TEEC_SUCCESS;
}

void CloseKmSession(TEEC_Session* session, uint32_t first_session) {
  if (session == nullptr || first_session == kFirstSession) {
    return;
  }
  {
    const WatchdogBracket bracket("CloseKmSession");
    TEEC_CloseSession(session);
  }
  free(session);
}

}  // namespace km41
