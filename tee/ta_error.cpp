// The TA's record of its last error, fetched on the session of the command that failed.

#include <securec.h>
#include <tee_client_api.h>

#include "keymaster_ts.h"
#include "keymaster_ts_session.h"
#include "tee/session.h"
#include "wire/log.h"
#include "wire/malloc_buffer.h"
#include "wire/ta_protocol.h"

using namespace km41;

namespace {

// Fetches the record into a buffer of kErrorRecordCapacity bytes and reports it.
void FetchAndReport(TEEC_Session* session, const uint32_t* call, uint8_t* record) {
  if (memset_s(record, kErrorRecordCapacity, 0, kErrorRecordCapacity) != 0) {
    TEE_LOGE("taErrInfo memset_s failed!!!");
    return;
  }
  TEEC_Operation operation;
  if (!ClearOperation(&operation)) {
    TEE_LOGE("ObtainTaErrorCode memset_s operation failed!!!");
    return;
  }
  operation.started = 1;
  operation.paramTypes = TEEC_PARAM_TYPES(TEEC_MEMREF_TEMP_OUTPUT, TEEC_NONE, TEEC_NONE, TEEC_NONE);
  operation.params[0].tmpref.buffer = record;
  operation.params[0].tmpref.size = kErrorRecordCapacity;
  // Not under the watchdog: this is the aftermath of a call that already failed.
  uint32_t return_origin = 0;
  const uint32_t result =
      TEEC_InvokeCommand(session, kCmdGetErrorRecord, &operation, &return_origin);
  if (result != TEEC_SUCCESS) {
    TEE_LOGE("ObtainTaErrorCode return failed error code = %d", static_cast<int>(result));
    return;
  }
  const uint32_t length = operation.params[0].tmpref.size;
  if (length != 0) QavixKeyMaster(call, record, length);
}

}  // namespace

void ObtainTaErrorCode(TEEC_Session* session, uint32_t cmd, uint32_t ret) {
  TEE_LOGI("ObtainTaErrorCode begin!!!");
  if (session == nullptr) {
    TEE_LOGI("ObtainTaErrorCode kmSession is NULL!!!");
    return;
  }
  const uint32_t call[2] = {cmd, ret};
  if (ret == TEEC_ERROR_TARGET_DEAD) {
    QavixKeyMaster(call, nullptr, 0);
    return;
  }
  const MallocBuffer record = AllocateBytes(kErrorRecordCapacity);
  if (record == nullptr) {
    TEE_LOGE("taErrInfo malloc failed!!!");
    return;
  }
  FetchAndReport(session, call, record.get());
}
