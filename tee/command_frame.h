// The frame that every TA command runs in: open, clear, fill, invoke, close.
#ifndef TEE_COMMAND_FRAME_H
#define TEE_COMMAND_FRAME_H

#include <stdint.h>
#include <tee_client_api.h>

#include "tee/session.h"
#include "wire/ta_protocol.h"

namespace km41 {

// CommandParam is one parameter of a command; made by default, NONE. A buffer stays its owner's.
// Sizes are in bytes.
struct CommandParam {
  CommandParam() = default;
  CommandParam(uint32_t t, TEEC_Value v) : type(t) { param.value = v; }
  CommandParam(uint32_t t, TEEC_TempMemoryReference r) : type(t) { param.tmpref = r; }

  uint32_t type = TEEC_NONE;
  TEEC_Parameter param = {};
};

inline CommandParam ValueInput(uint32_t a, uint32_t b) {
  return {TEEC_VALUE_INPUT, TEEC_Value{a, b}};
}
inline CommandParam ValueInOut(uint32_t a, uint32_t b) {
  return {TEEC_VALUE_INOUT, TEEC_Value{a, b}};
}
inline CommandParam Reference(uint32_t type, const uint8_t* buffer, uint32_t size) {
  // The client API has one reference type for all directions; an input is only read.
  return {type, TEEC_TempMemoryReference{const_cast<uint8_t*>(buffer), size}};
}
inline CommandParam Input(const uint8_t* buffer, uint32_t size) {
  return Reference(TEEC_MEMREF_TEMP_INPUT, buffer, size);
}
inline CommandParam Output(uint8_t* buffer, uint32_t size) {
  return Reference(TEEC_MEMREF_TEMP_OUTPUT, buffer, size);
}
inline CommandParam InOut(uint8_t* buffer, uint32_t size) {
  return Reference(TEEC_MEMREF_TEMP_INOUT, buffer, size);
}
// InputIfGiven is Input; NONE for a null buffer.
inline CommandParam InputIfGiven(const uint8_t* buffer, uint32_t size) {
  return buffer != nullptr ? Input(buffer, size) : CommandParam{};
}
// InputOfGivenSize is InputIfGiven whose size may be missing too: it is then declared, but empty.
inline CommandParam InputOfGivenSize(const uint8_t* buffer, const uint32_t* size) {
  if (buffer != nullptr && size == nullptr) return Input(nullptr, 0);
  return InputIfGiven(buffer, size != nullptr ? *size : 0);
}

// Front is what the library writes at the front of an in/out buffer, once the session is open.
struct Front {
  enum class Kind { kNothing, kImportSource, kOperationHandle };

  Kind kind = Kind::kNothing;
  uint32_t index = 0;  // of the parameter
  uint64_t value = 0;
};
inline constexpr Front kNoFront = {};

// RejectArguments logs that a required argument, or the TEE context, is missing.
[[nodiscard]] uint32_t RejectArguments();
// RejectParams does so in the words of the commands that carry operation data.
[[nodiscard]] uint32_t RejectParams();

// What follows a failed invocation, beside its log line.
enum class AfterFailure { kNothing, kFetchErrorRecord };

// CommandFrame is one command on a session of its own, which is closed at the latest when the
// frame ends.
class CommandFrame {
 public:
  enum class Step { kOpen, kClear, kFill, kInvoke };

  // label names the watchdog's bracket, and outlives the frame; without one (null) the invocation
  // is not guarded.
  CommandFrame(TaCommandId id, const char* label, AfterFailure after_failure)
      : id_(id), label_(label), after_failure_(after_failure) {}

  // Send opens a session, clears the operation, fills it and invokes the command. A failed
  // invocation is logged, and its error record fetched where the command has one. Returns a TEE
  // result.
  template <uint32_t N>
  [[nodiscard]] uint32_t Send(const CommandParam (&params)[N], const Front& front = kNoFront) {
    static_assert(N <= 4, "a command has four parameters");
    return Send(params, N, front);
  }
  [[nodiscard]] uint32_t Send() { return Send(nullptr, 0, kNoFront); }
  // The step that Send reached.
  Step step() const { return step_; }

  // What the TEE reports after a Send that succeeded. A size may exceed the buffer's capacity:
  // whoever reads the buffer checks.
  uint32_t ReportedSize(uint32_t index) const { return operation_.params[index].tmpref.size; }
  // The same, at most kReplyCapacity.
  uint32_t CappedSize(uint32_t index) const;
  const TEEC_Value& ReportedValue(uint32_t index) const { return operation_.params[index].value; }

  void Close() { session_.Close(); }

 private:
  uint32_t Send(const CommandParam* params, uint32_t count, const Front& front);
  // Logs a failed invocation and has its error record reported.
  void ReportFailure(uint32_t result, uint32_t return_origin);

  const TaCommandId id_;
  const char* const label_;
  const AfterFailure after_failure_;
  KmSession session_;
  Step step_ = Step::kOpen;
  TEEC_Operation operation_;  // cleared by Send
};

}  // namespace km41

#endif  // TEE_COMMAND_FRAME_H
