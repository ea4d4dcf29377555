#include "tee/session.h"

#include <securec.h>
#include <string.h>

#include "tee/tee_context.h"
#include "tee/watchdog.h"
#include "wire/log.h"
#include "wire/malloc_buffer.h"
#include "wire/ta_protocol.h"

namespace km41 {

namespace {

uint32_t OpenOnContext(TEEC_Session* session, TEEC_Operation* operation) {
  TEEC_UUID uuid;
  memset(&uuid, kKeymasterTaUuidByte, sizeof(uuid));
  uint32_t return_origin = 0;
  zubrel_init();
  uint32_t result;
  {
    const WatchdogBracket bracket("OpenKmSession");
    result = TEEC_OpenSession(GlobalTeeContext(), session, &uuid, kKeymasterLoginMethod, nullptr,
                              operation, &return_origin);
  }
  if (result != TEEC_SUCCESS) {
    TEE_LOGE("open km session failed, ret=0x%x, origin=%u", result, return_origin);
  }
  return result;
}

// Opens into a block that the caller owns. On success *first_session is the TA's flag.
uint32_t OpenInto(TEEC_Session* session, uint32_t* first_session) {
  TEEC_Operation operation;
  if (!ClearOperation(&operation)) return TEEC_ERROR_GENERIC;
  operation.started = 1;
  operation.paramTypes = TEEC_PARAM_TYPES(TEEC_VALUE_OUTPUT, TEEC_VALUE_INPUT,
                                          TEEC_MEMREF_TEMP_INPUT, TEEC_MEMREF_TEMP_INPUT);
  TEE_LOGI("Disable the enhanced crypto!\n");
  operation.params[1].value.a = 0;
  const uint32_t result = OpenOnContext(session, &operation);
  if (result == TEEC_SUCCESS) *first_session = operation.params[0].value.a;
  return result;
}

}  // namespace

// By the platform's memset_s, whose failure is a result of the command.
bool ClearOperation(TEEC_Operation* operation) {
  return memset_s(operation, sizeof(*operation), 0, sizeof(*operation)) == 0;
}

uint32_t KmSession::Open() {
  MallocPtr<TEEC_Session> session = Allocate<TEEC_Session>(1);
  if (session == nullptr) return TEEC_ERROR_OUT_OF_MEMORY;
  const uint32_t result = OpenInto(session.get(), &first_session_);
  if (result != TEEC_SUCCESS) return result;
  session_ = session.release();
  if (first_session_ == kFirstSession) TEE_LOGI("open first km session");
  return TEEC_SUCCESS;
}

void KmSession::Close() {
  if (session_ != nullptr && first_session_ != kFirstSession) {
    {
      const WatchdogBracket bracket("CloseKmSession");
      TEEC_CloseSession(session_);
    }
    free(session_);
  }
  session_ = nullptr;
}

}  // namespace km41
