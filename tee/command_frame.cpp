#include "tee/command_frame.h"

#include "keymaster_ts.h"
#include "tee/watchdog.h"
#include "wire/log.h"

namespace km41 {

uint32_t RefuseArguments() {
  TEE_LOGE("%s : invalid parameters", kLogFailure);
  return TEEC_ERROR_BAD_PARAMETERS;
}

uint32_t RefuseParams() {
  TEE_LOGE("%s : invalid params", kLogFailure);
  return TEEC_ERROR_BAD_PARAMETERS;
}

uint32_t CommandFrame::Start() {
  const uint32_t result = OpenSession();
  return result == TEEC_SUCCESS ? ClearRecord() : result;
}

uint32_t CommandFrame::ClearRecord() {
  if (!ClearOperation(&operation_)) {
    return TEEC_ERROR_GENERIC;
  }
  operation_.started = 1;
  return TEEC_SUCCESS;
}

void CommandFrame::Value(uint32_t index, uint32_t type, uint32_t a, uint32_t b) {
  Declare(index, type);
  operation_.params[index].value.a = a;
  operation_.params[index].value.b = b;
}

void CommandFrame::Reference(uint32_t index, uint32_t type, const uint8_t* buffer, uint32_t size) {
  Declare(index, type);
  // The client API has one reference type for all directions; an input is only read.
  operation_.params[index].tmpref.buffer = const_cast<uint8_t*>(buffer);
  operation_.params[index].tmpref.size = size;
}

void CommandFrame::Input(uint32_t index, const uint8_t* buffer, uint32_t size) {
  Reference(index, TEEC_MEMREF_TEMP_INPUT, buffer, size);
}

void CommandFrame::Output(uint32_t index, uint8_t* buffer, uint32_t size) {
  Reference(index, TEEC_MEMREF_TEMP_OUTPUT, buffer, size);
}

void CommandFrame::InOut(uint32_t index, uint8_t* buffer, uint32_t size) {
  Reference(index, TEEC_MEMREF_TEMP_INOUT, buffer, size);
}

void CommandFrame::OptionalInput(uint32_t index, const uint8_t* buffer, uint32_t size) {
  if (buffer != nullptr) {
    Input(index, buffer, size);
  }
}

void CommandFrame::OptionalInput(uint32_t index, const uint8_t* buffer, const uint32_t* size) {
  if (buffer != nullptr && size != nullptr) {
    Input(index, buffer, *size);
  } else if (buffer != nullptr) {
    Input(index, nullptr, 0);
  }
}

uint32_t CommandFrame::CappedSize(uint32_t index) const {
  const uint32_t size = ReportedSize(index);
  return size < kReplyCapacity ? size : kReplyCapacity;
}

uint32_t CommandFrame::Send() {
  return TEEC_InvokeCommand(session_.get(), id_, &operation_, &return_origin_);
}

uint32_t CommandFrame::Invoke() {
  uint32_t result;
  {
    const WatchdogBracket bracket(label_);
    result = Send();
  }
  return Conclude(result);
}

uint32_t CommandFrame::InvokeUnguarded() { return Conclude(Send()); }

uint32_t CommandFrame::Conclude(uint32_t result) {
  if (result == TEEC_SUCCESS) {
    return result;
  }
  TEE_LOGE("invoke km command failed, cmd = %d, ret = 0x%x, retOrigin = %u", static_cast<int>(id_),
           result, return_origin_);
  if (after_failure_ == AfterFailure::kFetchErrorRecord) {
    ObtainTaErrorCode(session_.get(), id_, result);
  }
  Close();
  return result;
}

}  // namespace km41
