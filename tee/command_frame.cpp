#include "tee/command_frame.h"

#include <securec.h>

#include "keymaster_ts.h"
#include "tee/watchdog.h"
#include "wire/little_endian.h"
#include "wire/log.h"

namespace km41 {

namespace {

CommandParam Value(uint32_t type, uint32_t a, uint32_t b) {
  CommandParam param;
  param.type = type;
  param.value = {a, b};
  return param;
}

CommandParam Reference(uint32_t type, const uint8_t* buffer, uint32_t size) {
  CommandParam param;
  param.type = type;
  // The client API has one reference type for all directions; an input is only read.
  param.reference = {const_cast<uint8_t*>(buffer), size};
  return param;
}

bool WriteFront(const CommandParam& param) {
  auto* const buffer = static_cast<uint8_t*>(param.reference.buffer);
  switch (param.front) {
    case CommandParam::Front::kNothing:
      return true;
    case CommandParam::Front::kImportSource:
      buffer[0] = static_cast<uint8_t>(param.front_value);
      return true;
    case CommandParam::Front::kOperationHandle:
      break;
  }
  uint8_t handle[sizeof(param.front_value)];
  PutU64(handle, param.front_value);
  return memcpy_s(buffer, param.reference.size, handle, sizeof(handle)) == 0;
}

}  // namespace

CommandParam ValueInput(uint32_t a, uint32_t b) { return Value(TEEC_VALUE_INPUT, a, b); }

CommandParam ValueInOut(uint32_t a, uint32_t b) { return Value(TEEC_VALUE_INOUT, a, b); }

CommandParam Input(const uint8_t* buffer, uint32_t size) {
  return Reference(TEEC_MEMREF_TEMP_INPUT, buffer, size);
}

CommandParam Output(uint8_t* buffer, uint32_t size) {
  return Reference(TEEC_MEMREF_TEMP_OUTPUT, buffer, size);
}

CommandParam InOut(uint8_t* buffer, uint32_t size) {
  return Reference(TEEC_MEMREF_TEMP_INOUT, buffer, size);
}

CommandParam InputIfGiven(const uint8_t* buffer, uint32_t size) {
  return buffer != nullptr ? Input(buffer, size) : CommandParam{};
}

CommandParam InputOfGivenSize(const uint8_t* buffer, const uint32_t* size) {
  return buffer != nullptr && size == nullptr ? Input(nullptr, 0)
                                              : InputIfGiven(buffer, buffer != nullptr ? *size : 0);
}

CommandParam InOutWithSource(uint8_t* buffer, uint32_t size, uint8_t source) {
  CommandParam param = InOut(buffer, size);
  if (size != 0) {
    param.front = CommandParam::Front::kImportSource;
    param.front_value = source;
  }
  return param;
}

CommandParam InOutWithHandle(uint8_t* buffer, uint32_t size, uint64_t op_handle) {
  CommandParam param = InOut(buffer, size);
  param.front = CommandParam::Front::kOperationHandle;
  param.front_value = op_handle;
  return param;
}

uint32_t RejectArguments() {
  TEE_LOGE("%s : invalid parameters", kLogFailure);
  return TEEC_ERROR_BAD_PARAMETERS;
}

uint32_t RejectParams() {
  TEE_LOGE("%s : invalid params", kLogFailure);
  return TEEC_ERROR_BAD_PARAMETERS;
}

uint32_t CommandFrame::Send(const CommandParam (&params)[4]) {
  const uint32_t result = session_.Open();
  if (result != TEEC_SUCCESS) {
    return result;
  }
  step_ = Step::kClear;
  if (!ClearOperation(&operation_)) {
    return TEEC_ERROR_GENERIC;
  }
  step_ = Step::kFill;
  if (!Fill(params)) {
    return TEEC_ERROR_GENERIC;
  }
  step_ = Step::kInvoke;
  return Invoke();
}

bool CommandFrame::Fill(const CommandParam (&params)[4]) {
  operation_.started = 1;
  for (uint32_t i = 0; i < 4; ++i) {
    const CommandParam& param = params[i];
    operation_.paramTypes |= param.type << (4 * i);
    if (param.type == TEEC_VALUE_INPUT || param.type == TEEC_VALUE_INOUT) {
      operation_.params[i].value = param.value;
    } else if (param.type != TEEC_NONE) {
      operation_.params[i].tmpref = param.reference;
    }
    if (!WriteFront(param)) {
      return false;
    }
  }
  return true;
}

uint32_t CommandFrame::Invoke() {
  const uint32_t result = InvokeGuarded();
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

uint32_t CommandFrame::InvokeGuarded() {
  if (label_ == nullptr) {
    return TEEC_InvokeCommand(session_.get(), id_, &operation_, &return_origin_);
  }
  const WatchdogBracket bracket(label_);
  return TEEC_InvokeCommand(session_.get(), id_, &operation_, &return_origin_);
}

uint32_t CommandFrame::CappedSize(uint32_t index) const {
  const uint32_t size = ReportedSize(index);
  return size < kReplyCapacity ? size : kReplyCapacity;
}

}  // namespace km41
