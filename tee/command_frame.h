// The frame that every TA command runs in: open, clear, fill, invoke, close.
#ifndef TEE_COMMAND_FRAME_H
#define TEE_COMMAND_FRAME_H

#include <stdint.h>
#include <tee_client_api.h>

#include "tee/session.h"
#include "wire/ta_protocol.h"

namespace km41 {

// CommandParam is one parameter of a command; as it is made by default, NONE. A buffer stays its
// owner's. Sizes are in bytes.
struct CommandParam {
  // What the library writes at the front of an in/out buffer once the session is open.
  enum class Front : uint8_t { kNothing, kImportSource, kOperationHandle };

  uint32_t type = TEEC_NONE;
  TEEC_Value value = {};
  TEEC_TempMemoryReference reference = {};
  Front front = Front::kNothing;
  uint64_t front_value = 0;
};

CommandParam ValueInput(uint32_t a, uint32_t b);
CommandParam ValueInOut(uint32_t a, uint32_t b);
CommandParam Input(const uint8_t* buffer, uint32_t size);
CommandParam Output(uint8_t* buffer, uint32_t size);
CommandParam InOut(uint8_t* buffer, uint32_t size);
// InputIfGiven is Input; NONE for a null buffer.
CommandParam InputIfGiven(const uint8_t* buffer, uint32_t size);
// InputOfGivenSize is InputIfGiven whose size may be missing too: it is then declared, but empty.
CommandParam InputOfGivenSize(const uint8_t* buffer, const uint32_t* size);
// InOutWithSource is InOut that tells the TA in its first byte where a key comes from. A buffer
// without room for it goes as it is.
CommandParam InOutWithSource(uint8_t* buffer, uint32_t size, uint8_t source);
// InOutWithHandle is InOut that carries an operation handle in its first 8 bytes.
CommandParam InOutWithHandle(uint8_t* buffer, uint32_t size, uint64_t op_handle);

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
  // invocation is logged, its error record fetched where the command has one, and its session
  // closed. Returns a TEE result.
  [[nodiscard]] uint32_t Send(const CommandParam (&params)[4]);
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
  bool Fill(const CommandParam (&params)[4]);
  uint32_t Invoke();
  uint32_t InvokeGuarded();

  const TaCommandId id_;
  const char* const label_;
  const AfterFailure after_failure_;
  KmSession session_;
  Step step_ = Step::kOpen;
  TEEC_Operation operation_ = {};
  uint32_t return_origin_ = 0;
};

}  // namespace km41

#endif  // TEE_COMMAND_FRAME_H
