#include "tee/command_frame.h"

#include <securec.h>

#include "keymaster_ts_session.h"
#include "tee/watchdog.h"
#include "wire/little_endian.h"
#include "wire/log.h"

namespace km41 {

namespace {

void Fill(const CommandParam* params, uint32_t count, TEEC_Operation* operation) {
  operation->started = 1;
  for (uint32_t i = 0; i < count; ++i) {
    operation->paramTypes |= params[i].type << (4 * i);
    operation->params[i] = params[i].param;
  }
}

bool WriteFront(const Front& front, const TEEC_Operation& operation) {
  if (front.kind == Front::Kind::kNothing) return true;
  const TEEC_TempMemoryReference& reference = operation.params[front.index].tmpref;
  auto* const buffer = static_cast<uint8_t*>(reference.buffer);
  if (front.kind == Front::Kind::kOperationHandle) {
    uint8_t handle[sizeof(front.value)];
    PutU64(handle, front.value);
    return memcpy_s(buffer, reference.size, handle, sizeof(handle)) == 0;
  }
  // A buffer without room for the source goes to the TA as it is.
  if (reference.size != 0) buffer[0] = static_cast<uint8_t>(front.value);
  return true;
}

}  // namespace

uint32_t RejectArguments() {
  TEE_LOGE("%s : invalid parameters", kLogFailure);
  return TEEC_ERROR_BAD_PARAMETERS;
}

uint32_t RejectParams() {
  TEE_LOGE("%s : invalid params", kLogFailure);
  return TEEC_ERROR_BAD_PARAMETERS;
}

uint32_t CommandFrame::Send(const CommandParam* params, uint32_t count, const Front& front) {
  uint32_t result = session_.Open();
  if (result != TEEC_SUCCESS) return result;
  step_ = Step::kClear;
  if (!ClearOperation(&operation_)) return TEEC_ERROR_GENERIC;
  step_ = Step::kFill;
  Fill(params, count, &operation_);
  if (!WriteFront(front, operation_)) return TEEC_ERROR_GENERIC;
  step_ = Step::kInvoke;
  uint32_t return_origin = 0;
  if (label_ != nullptr) {
    const WatchdogBracket bracket(label_);
    result = TEEC_InvokeCommand(session_.get(), id_, &operation_, &return_origin);
  } else {
    result = TEEC_InvokeCommand(session_.get(), id_, &operation_, &return_origin);
  }
  if (result != TEEC_SUCCESS) ReportFailure(result, return_origin);
  return result;
}

void CommandFrame::ReportFailure(uint32_t result, uint32_t return_origin) {
  TEE_LOGE("invoke km command failed, cmd = %d, ret = 0x%x, retOrigin = %u", static_cast<int>(id_),
           result, return_origin);
  if (after_failure_ == AfterFailure::kFetchErrorRecord) {
    ObtainTaErrorCode(session_.get(), id_, result);
  }
}

uint32_t CommandFrame::CappedSize(uint32_t index) const {
  const uint32_t size = ReportedSize(index);
  return size < kReplyCapacity ? size : kReplyCapacity;
}

}  // namespace km41
